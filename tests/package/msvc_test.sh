#!/usr/bin/env bash
# Compiles the package's headers and links against its import libraries as MSVC would, with clang and
# LLVM's linker: dialect and names, without Microsoft's SDK, whose headers stubs stand for.
# usage: msvc_test.sh PACKAGE WORK
set -eu
package=$1 work=$2
rm -rf "$work"
mkdir -p "$work/stubs"
cd "$work"
printf '#include <stddef.h>\ntypedef struct FILE FILE;\n' >stubs/stdio.h
printf '#include <stddef.h>\n' | tee stubs/stdlib.h stubs/string.h >stubs/wchar.h
printf 'struct tm { int tm_sec; };\n' >stubs/time.h
cat >stubs/windows.h <<'END'
typedef int BOOL;
typedef unsigned long DWORD;
typedef void *HANDLE;
typedef struct HKEY__ *HKEY;
typedef struct _FILETIME { DWORD low, high; } FILETIME;
typedef struct _SYSTEMTIME { unsigned short wYear; } SYSTEMTIME;
typedef struct _TIME_ZONE_INFORMATION { long Bias; } TIME_ZONE_INFORMATION;
END
compile=(clang --target=x86_64-pc-windows-msvc -fms-compatibility -fms-extensions
    -fms-compatibility-version=19.29 -nostdlibinc -Wall -Wextra -Werror -Wno-unused-function
    -I"$package/include" -I"$package/host" -isystem stubs)

for header in $(cd "$package" && find include host -name '*.h' | sort); do
    for language in c c++; do
        "${compile[@]}" -fsyntax-only -x "$language" "$package/$header"
    done
done

# One function of each library; the linker names what an import library lacks.
cat >consumer.c <<'END'
#include <oxni/base/agentid.h>
#include <oxni/base/algo.h>
#include <oxni/base/ejs.h>
#include <oxni/base/json.h>
#include <oxni/base/memory.h>
#include <oxni/base/subscriber.h>

uint64_t oxni_plugin_init(void);
void *used[7];

int main(void)
{
    used[0] = (void *)oxni_free_;
    used[1] = (void *)oxni_subscriber_new;
    used[2] = (void *)json_object;
    used[3] = (void *)wdu_json_load_file_ejs;
    used[4] = (void *)xor_decry;
    used[5] = (void *)oxni_dev_get_id_crc32;
    return (int)oxni_plugin_init();
}
END
"${compile[@]}" -c consumer.c -o consumer.obj
lld-link /nologo /nodefaultlib /entry:main /subsystem:console /out:consumer.exe consumer.obj \
    "$package"/lib/lib*.lib
llvm-readobj --coff-imports consumer.exe | sed -n 's/^ *Name: //p' | sort >imported.txt
ls "$package/lib" | sed -n 's/[.]lib$/.dll/p' | sort | diff - imported.txt
