/* The import table of the running executable. */
#include "import_patch.h"

#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <windows.h>

#include "calls/imports.h"

void *import_patch::exchange(const char *name, void *function)
{
    void *original = nullptr;

    imports_each(GetModuleHandleW(nullptr),
                 [&](const std::string &, const char *imported, void **entry) {
                     if (original == nullptr && strcmp(imported, name) == 0)
                         original = imports_redirect(entry, function);
                 });
    if (original == nullptr) {
        fprintf(stderr, "import_patch: nothing imports %s\n", name);
        abort();
    }
    return original;
}

static BOOL refuse(void)
{
    SetLastError(ERROR_ACCESS_DENIED);
    return FALSE;
}

import_patch::import_patch(const char *name) : import_patch(name, refuse)
{
}

import_patch::~import_patch()
{
    (void)exchange(name_, original_);
}
