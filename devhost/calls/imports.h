/* The import table of a loaded module, through which its calls can be redirected. */
#ifndef DEVHOST_IMPORTS_H
#define DEVHOST_IMPORTS_H

#include <windows.h>

#include <functional>
#include <string>

/* library: in lower case; entry: contains the function's address, writable during the call. */
typedef std::function<void(const std::string &library, const char *name, void **entry)> import_fn;

/* Calls fn for each function that is imported by its name. */
void imports_each(HMODULE module, const import_fn &fn);

/* Redirects an entry to another function; called by fn of imports_each. Result: the previous
 * function. */
void *imports_redirect(void **entry, void *function);

#endif
