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

struct conformance {
    std::wstring
        folder; /* an existing folder, without a backslash at its end; files are made here */
    std::wstring engine; /* Windows' own dbgeng.dll, as LoadLibraryW takes it */
    HKEY root;           /* predefined key below which SOFTWARE may be written */
    HKEY system_root;    /* HKEY_LOCAL_MACHINE */
    FILE *(*open_stream)(const wchar_t *path, const wchar_t *mode); /* NULL: it failed */
    void (*print)(const char *line, void *user);                    /* line has no line feed */
    void *user;
    unsigned checks, differences;
};

/*
 * Compares the answer of a call and prints "ok", "DIFFERS" or "open", the call, the case and the
 * answer.
 *
 * call     Name of the Windows function, as in the plug-in's import table.
 * when     The case, in words; unique for its call.
 * permitted  Empty for an open question.
 */
void conform(conformance &run, const char *call, const char *when, uint64_t answer,
             std::initializer_list<uint64_t> permitted, enum promise source = DOCUMENTED);

/* The last error after a call that failed; 0 after a success. */
DWORD error_if(bool failed);

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
