/*
 * Stand-ins for functions that the code under test imports: the entry of this executable's own
 * import table is replaced while a patch lives. Functions that are looked up at run time are
 * reached by patching GetProcAddress.
 */
#ifndef IMPORT_PATCH_H
#define IMPORT_PATCH_H

class import_patch
{
  public:
    /* Replaces the imported function of that name, by a function or a lambda expression without
     * captures; ends the program when nothing imports it, as a test would silently reach the real
     * one. One patch a name at a time. */
    template <typename Function>
    import_patch(const char *name, Function replacement)
        : name_(name), original_(exchange(name, reinterpret_cast<void *>(+replacement)))
    {
    }
    /* By one that returns 0 and sets the last error to ERROR_ACCESS_DENIED, whatever its arguments
     * are: the caller removes them. */
    explicit import_patch(const char *name);

    /* Puts the real function back. */
    ~import_patch();
    import_patch(const import_patch &) = delete;
    import_patch &operator=(const import_patch &) = delete;

  private:
    static void *exchange(const char *name, void *function);

    const char *name_;
    void *original_;
};

#endif
