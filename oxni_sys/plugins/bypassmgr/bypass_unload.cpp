/*
 * What the C++ runtime in this DLL must not bring or leave.
 *
 * It keeps a block of some 70 KB from its first moment on, for exceptions that are thrown when
 * memory is short, and leaves it behind when the DLL is freed. A host that loads the plug-in afresh
 * for each boot that it plays would grow by it each time.
 */
#include <stdlib.h>

/* libsupc++'s own; no header declares it. */
namespace __gnu_cxx
{
void __freeres();
void __verbose_terminate_handler();
} // namespace __gnu_cxx

/* Stands for the runtime's own, which prints the exception's name to nobody and needs a demangler
 * of 50 KB for it. */
void __gnu_cxx::__verbose_terminate_handler()
{
    abort();
}

/* The last thing that runs before the DLL is unmapped; nothing throws from here on. */
__attribute__((destructor)) static void free_emergency_pool(void)
{
    __gnu_cxx::__freeres();
}
