/*
 * Unloading: what the C++ runtime in this DLL must not bring or leave behind.
 *
 * It keeps a block of some 70 KB from its start, for exceptions that are thrown when memory is
 * short, and does not free it when the DLL is freed. A host that loads the plug-in afresh for each
 * boot that it plays would grow by it each time.
 */
#include <stdlib.h>
#include <windows.h>

/* libsupc++'s own; no header declares it. */
namespace __gnu_cxx
{
void __freeres();
void __verbose_terminate_handler();
} // namespace __gnu_cxx

/* Whether the process ends, in place of the DLL alone being freed. Loader's thread. */
static bool s_process_ends;

/* Replaces the runtime's own handler, which prints the exception's name for no reader and needs a
 * demangler of 50 KB for it. */
void __gnu_cxx::__verbose_terminate_handler()
{
    abort();
}

/* reserved: NULL when the DLL is freed, not NULL when the process ends. */
extern "C" BOOL WINAPI DllMain(HINSTANCE instance, DWORD reason, LPVOID reserved);

extern "C" BOOL WINAPI DllMain(HINSTANCE instance, DWORD reason, LPVOID reserved)
{
    (void)instance;
    if (reason == DLL_PROCESS_DETACH)
        s_process_ends = reserved != NULL;
    return TRUE;
}

/* Runs last, after DllMain; nothing throws from here on. At the end of the process the other threads
 * are gone and one of them may have held the heap's lock, and all memory goes with the process. */
__attribute__((destructor)) static void free_emergency_pool(void)
{
    if (!s_process_ends)
        __gnu_cxx::__freeres();
}
