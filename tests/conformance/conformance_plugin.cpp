/* A plug-in that makes the checks on the machine of its host, and prints to the standard output. */
#include "conformance.h"

#include <cstdio>

#include <oxni/base/path.h>

static void print(const char *line, void *)
{
    printf("conformance: %s\n", line);
    fflush(stdout);
}

extern "C" uint64_t __declspec(dllexport) oxni_plugin_init(void);

extern "C" uint64_t oxni_plugin_init(void)
{
    conformance run = {L"C:\\check",
                       L"dbgeng.dll",
                       HKEY_LOCAL_MACHINE,
                       HKEY_LOCAL_MACHINE,
                       oxni_file_open_w,
                       print,
                       nullptr,
                       0,
                       0};

    check_all(run);
    printf("conformance: %u checks, %u of them differ\n", run.checks, run.differences);
    return 0;
}
