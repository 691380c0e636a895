/* Functions that are looked up at run time. */
#ifndef PROC_ADDRESS_H
#define PROC_ADDRESS_H

#include <windows.h>

/* An exported function as a pointer of its real type; NULL when module is NULL or lacks it. Not for
 * DllMain. */
template <typename Function> Function proc_address(HMODULE module, const char *name)
{
    if (module == NULL)
        return NULL;
    /* By way of void *: Windows declares every export as one and the same type. */
    return reinterpret_cast<Function>(reinterpret_cast<void *>(GetProcAddress(module, name)));
}

#endif
