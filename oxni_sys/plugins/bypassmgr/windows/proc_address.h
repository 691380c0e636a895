/* Functions that are looked up at run time. */
#ifndef PROC_ADDRESS_H
#define PROC_ADDRESS_H

#include <windows.h>

/* An exported function as a pointer of its real type; NULL when module is NULL or does not export
 * it. Not for DllMain. */
template <typename Function> Function proc_address(HMODULE module, const char *name)
{
    if (module == NULL)
        return NULL;
    /* By way of void *: Windows declares every export with one and the same type. */
    return (Function)(void *)GetProcAddress(module, name);
}

#endif
