#!/usr/bin/env bash
# Prints the source of a DLL with the imports of another DLL, an empty entry point and nothing else.
# usage: empty_plugin.sh OBJDUMP DLL
set -eu -o pipefail
echo 'unsigned long long __declspec(dllexport) oxni_plugin_init(void) { return 0; }'
# References the import libraries' __imp_ symbols, which contain the functions' addresses.
"$1" -p "$2" | awk '
    /^The Import Tables/ { inside = 1 }
    /^The Export Tables|^The Function Table/ { inside = 0 }
    inside && $1 ~ /^[0-9a-f]+$/ && $2 ~ /^[0-9]+$/ && NF == 3 { name[count++] = $3 }
    END {
        for (i = 0; i < count; i++) printf "extern const char __imp_%s[];\n", name[i]
        print "__declspec(dllexport) const char *const imported[] = {"
        for (i = 0; i < count; i++) printf "    __imp_%s,\n", name[i]
        print "};"
    }'
