/*
 * What the development host tells the stand-in debugger engine, and what it can ask it. A client of
 * the engine never includes this. The functions are exports of the engine's dbgeng.dll; the pointer
 * types are for GetProcAddress.
 *
 * Thread: the one that uses the engine, outside its calls.
 */
#ifndef DEVHOST_ENGINE_SCRIPT_H
#define DEVHOST_ENGINE_SCRIPT_H

#include <windows.h>

#ifdef __cplusplus
extern "C" {
#endif

/*
 * A call that answers result and does nothing. Names: "DebugCreate", "QueryInterface" (only for
 * IDebugControl), "SetOutputCallbacks" (only with an object), "OpenDumpFileWide", "WaitForEvent",
 * "GetStackTrace", "OutputStackTrace".
 */
struct engine_script_fault {
    const char *call;
    HRESULT result; /* not S_OK */
};

/* A dump that is not read: it always opens, GetStackTrace answers one empty frame, and
 * OutputStackTrace puts out the text as it stands. */
struct engine_script_stack {
    const wchar_t *path; /* as the client gives it; case does not matter */
    const char *text;
};

/*
 * Where a dump that the client names really lies.
 *
 * mapped   Room for chars characters, the terminator included.
 *
 * Result   S_OK, or what OpenDumpFileWide answers instead of opening it.
 */
typedef HRESULT (*engine_script_map_fn)(const wchar_t *path, wchar_t *mapped, size_t chars,
                                        void *user);

/*
 * Told when a dump is refused. One that only lacks pages is not: what is missing of modules and
 * stack then stands in the output, before the stack.
 *
 * path     As the client gave it. Borrowed for the call, as is reason.
 * result   What OpenDumpFileWide answers: the error of the file system, or as an HRESULT
 *          ERROR_BAD_FORMAT          no dump at all
 *          ERROR_NOT_SUPPORTED       a dump, but not of 64-bit x64 Windows, or of an unknown kind
 *          ERROR_HANDLE_EOF          the file is cut off
 *          ERROR_FILE_CORRUPT        a field cannot be right
 *          ERROR_INVALID_DATA        the state of the processor or the list of modules is not in it
 * reason   One sentence in UTF-8, without a full stop and a line feed.
 */
typedef void (*engine_script_refused_fn)(const wchar_t *path, HRESULT result, const char *reason,
                                         void *user);

struct engine_script {
    size_t struct_bytes; /* sizeof(struct engine_script) */
    const struct engine_script_fault *faults;
    size_t fault_count;
    const struct engine_script_stack *stacks;
    size_t stack_count;
    engine_script_map_fn map;         /* NULL: paths are what they are */
    engine_script_refused_fn refused; /* NULL: nobody is told */
    void *user;                       /* handed to both */
};

/*
 * From here on the engine plays by script; dumps that are open stay as they are.
 *
 * script   Borrowed for the call: tables and texts are copied. The functions and user must stay
 *          valid until the next call. NULL: an engine without a script.
 *
 * Result   S_OK; E_INVALIDARG for a structure of another size, a NULL where something must be, an
 *          unknown call or S_OK for one; E_OUTOFMEMORY. The earlier script then stays.
 */
typedef HRESULT (*engine_script_set_fn)(const struct engine_script *script);
HRESULT engine_script_set(const struct engine_script *script);

/*
 * Told of each call of a client, before it works; of a release after it. NULL: nobody is told.
 *
 * call     "EndSession(0)"; "Release() = 1" with the remaining references. Borrowed for the call.
 */
typedef void (*engine_called_fn)(const char *call);
typedef void (*engine_watch_fn)(engine_called_fn called);
void engine_watch(engine_called_fn called);

/* What clients have not given back. All are 0 after a client that behaved. */
struct engine_counts {
    size_t objects;    /* engine objects */
    size_t references; /* references of clients to them */
    size_t callbacks;  /* the engine's own references to output callbacks */
};

typedef void (*engine_counts_get_fn)(struct engine_counts *counts);
void engine_counts_get(struct engine_counts *counts);

#ifdef __cplusplus
}
#endif

#endif
