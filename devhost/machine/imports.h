/* The import table of a loaded module, through which its calls can be led elsewhere. */
#ifndef DEVHOST_IMPORTS_H
#define DEVHOST_IMPORTS_H

#include <windows.h>

#include <functional>
#include <string>

/* Calls fn for each function that is imported by its name. library: in lower case; entry: where the
 * function's address stands, which can be written for the call. */
void imports_each(
    HMODULE module,
    const std::function<void(const std::string &library, const char *name, void **entry)> &fn);

/* Leads an entry to another function, inside of the above. Result: the one before. */
void *imports_lead(void **entry, void *function);

#endif
