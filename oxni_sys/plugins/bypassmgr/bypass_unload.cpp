/*
 * The C++ runtime in this DLL keeps a block of some 70 KB from its first moment on, for exceptions
 * that are thrown when memory is short, and leaves it behind when the DLL is freed. A host that
 * loads the plug-in afresh for each boot that it plays would grow by it each time.
 */

/* libsupc++'s own; no header declares it. */
namespace __gnu_cxx
{
void __freeres();
}

/* The last thing that runs before the DLL is unmapped; nothing throws from here on. */
__attribute__((destructor)) static void free_emergency_pool(void)
{
    __gnu_cxx::__freeres();
}
