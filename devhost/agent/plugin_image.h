/*
 * The plug-in's DLL in memory. Loading it from its file takes most of a simulated boot, so a host of
 * many boots keeps it mapped: a start restores the bytes that the module can write and its import
 * table, and runs its entry point as the loader does. An end runs the entry point again and makes
 * the code inaccessible, so that a late call faults as in a freed DLL.
 *
 * Not restored: static thread-local data, and the state of a DLL that only the plug-in imports; there is
 * neither. Host's one thread.
 */
#ifndef DEVHOST_PLUGIN_IMAGE_H
#define DEVHOST_PLUGIN_IMAGE_H

#include <windows.h>

#include <string>

/* Sets whether the module stays mapped after image_end. By default each start loads the file and each end
 * frees the module. Called while no plug-in is started. */
void image_keep_mapped(bool on);

/* Starts the plug-in of that path: its entry point gets DLL_PROCESS_ATTACH and runs with
 * the real imports, as under the loader; after it the imports are redirected. redirect is called
 * for a module that was loaded from its file; later starts repeat what it did to the import table.
 * Result: the module; NULL: not started, the reason is the last error. */
HMODULE image_start(const std::wstring &path, void (*redirect)(HMODULE plugin));

/* Ends it: the entry point gets DLL_PROCESS_DETACH. No code of it can run until the next
 * start. */
void image_end(void);

/* Frees the module, whether or not it stays mapped otherwise. */
void image_unload(void);

#endif
