/*
 * What Windows promises about the calls that the plug-in makes, as checks that run anywhere: on a
 * Windows machine, under Wine, and inside a plug-in on the development host's machine. A check makes
 * a call and compares one number with the permitted ones. One thread.
 */
#ifndef CONFORMANCE_H
#define CONFORMANCE_H

#include <cstdint>
#include <cstdio>
#include <windows.h>

#include <initializer_list>
#include <string>

/* Where a promise comes from. */
enum promise {
    DOCUMENTED, /* Microsoft's documentation of the call */
    OBSERVED,   /* conformance tests that are verified on Windows */
    OPEN        /* nothing settles it: the answer of a Windows machine is noted */
};

/* The last error after a call that failed; 0 after a success. */
DWORD error_if(bool failed);

/* The same of a call that opens something, which is closed again. */
template <typename Handle, typename Close> DWORD opening_error(Handle handle, Close close)
{
    const DWORD error = error_if(handle == nullptr || reinterpret_cast<intptr_t>(handle) == -1);

    if (error == ERROR_SUCCESS)
        close(handle);
    return error;
}

/* A handle that is none. */
template <typename Handle = HANDLE> Handle no_handle(void)
{
    return reinterpret_cast<Handle>(static_cast<intptr_t>(0x3ffffff4));
}

/*
 * One run of the checks. Each of the functions below prints "ok", "DIFFERS" or "open", the call, the
 * case and the answer.
 *
 * call     Name of the Windows function, as in the plug-in's import table.
 * when     The case, in words; unique for its call.
 */
struct conformance {
    typedef std::initializer_list<uint64_t> numbers;

    /* Compares a number with the permitted ones; none for an open question. */
    template <typename Number>
    void gives(const char *call, const char *when, Number answer, numbers permitted,
               enum promise source = DOCUMENTED)
    {
        compare(call, when, static_cast<uint64_t>(answer), permitted, source);
    }
    /* The same of the last error, 0 for a call that is done. */
    void fails(const char *call, const char *when, bool done, numbers permitted,
               enum promise source = DOCUMENTED)
    {
        compare(call, when, error_if(!done), permitted, source);
    }
    void works(const char *call, const char *when, bool done, enum promise source = DOCUMENTED)
    {
        fails(call, when, done, {ERROR_SUCCESS}, source);
    }
    void holds(const char *call, const char *when, bool truth, enum promise source = DOCUMENTED)
    {
        compare(call, when, truth, {1}, source);
    }

    /* An existing folder, without a backslash at its end; files are made here. */
    std::wstring folder;
    std::wstring engine; /* Windows' own dbgeng.dll, as LoadLibraryW takes it */
    HKEY root;           /* predefined key below which SOFTWARE may be written */
    HKEY system_root;    /* HKEY_LOCAL_MACHINE */
    FILE *(*open_stream)(const wchar_t *path, const wchar_t *mode); /* NULL: it failed */
    void (*print)(const char *line, void *user);                    /* line has no line feed */
    void *user;
    unsigned checks, differences;

  private:
    void compare(const char *call, const char *when, uint64_t answer, numbers permitted,
                 enum promise source);
};

/* The checks, one function a subject. */
void check_event_log(conformance &run);
void check_processes(conformance &run);
void check_token(conformance &run);
void check_services(conformance &run);
void check_registry(conformance &run);
void check_files(conformance &run);
void check_searches(conformance &run);
void check_streams(conformance &run);
void check_texts_and_times(conformance &run);
void check_modules(conformance &run);
void check_engine(conformance &run);

/* All of them. */
void check_all(conformance &run);

#endif
