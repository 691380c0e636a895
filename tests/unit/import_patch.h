/*
 * Stand-ins for functions that the code under test imports: the entry of this executable's own
 * import table is replaced while a patch lives. Functions that are looked up at run time are
 * reached by patching GetProcAddress.
 */
#ifndef IMPORT_PATCH_H
#define IMPORT_PATCH_H

#include <cstdint>

class import_patch
{
  public:
    /* Replaces the imported function of that name; ends the program when nothing imports it, as a
     * test would silently reach the real one. One patch a name at a time. */
    template <typename Function> import_patch(const char *name, Function *replacement)
    {
        replace(name, reinterpret_cast<uintptr_t>(replacement));
    }

    /* Puts the real function back. */
    ~import_patch();
    import_patch(const import_patch &) = delete;
    import_patch &operator=(const import_patch &) = delete;

  private:
    void replace(const char *name, uintptr_t replacement);

    uintptr_t *entry_ = nullptr;
    uintptr_t original_ = 0;
};

#endif
