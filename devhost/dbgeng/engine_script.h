/*
 * How the development host controls and queries the stand-in debugger engine. A client of the engine
 * never includes this. The functions are exports of the engine's dbgeng.dll; the pointer types are for
 * GetProcAddress.
 *
 * Thread: the one that uses the engine, outside its calls.
 */
#ifndef DEVHOST_ENGINE_SCRIPT_H
#define DEVHOST_ENGINE_SCRIPT_H

#include <cstdint>
#include <windows.h>

#ifdef __cplusplus
extern "C" {
#endif

/*
 * A call that returns result and does nothing. Names: "DebugCreate", "QueryInterface" (only for
 * IDebugControl), "SetOutputCallbacks" (only with an object), "OpenDumpFileWide", "WaitForEvent",
 * "GetStackTrace", "OutputStackTrace".
 */
struct engine_script_fault {
    const char *call;
    HRESULT result; /* not S_OK */
};

/* A dump that is not read: it always opens, GetStackTrace returns one empty frame, none when the text
 * is empty, and OutputStackTrace prints the text unchanged. */
struct engine_script_stack {
    const wchar_t *path; /* as the client gives it; case does not matter */
    const char *text;
};

/*
 * Returns the file of a dump that the client names.
 *
 * mapped   chars characters, the terminator included.
 *
 * Result   S_OK, or the result of OpenDumpFileWide, which then opens nothing.
 */
typedef HRESULT (*engine_script_map_fn)(const wchar_t *path, wchar_t *mapped, size_t chars,
                                        void *user);

/*
 * Called when a dump is rejected. A dump that only lacks pages is not rejected: its output lists the
 * missing parts of modules and stack before the stack.
 *
 * path     As the client gave it. Borrowed for the call, as is reason.
 * result   The result of OpenDumpFileWide: the error of the file system, or as an HRESULT
 *          ERROR_BAD_FORMAT          not a dump
 *          ERROR_NOT_SUPPORTED       a dump, but not of x64 Windows, or of an unknown kind
 *          ERROR_HANDLE_EOF          the file is truncated
 *          ERROR_FILE_CORRUPT        a field is invalid
 *          ERROR_INVALID_DATA        the processor's state or the list of modules is missing
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
    engine_script_map_fn map;         /* NULL: paths are not mapped */
    engine_script_refused_fn refused; /* NULL: nothing is called */
    void *user;                       /* handed to both */
};

/*
 * Sets the engine's script; open dumps do not change.
 *
 * script   Borrowed for the call: tables and texts are copied. The functions and user must stay
 *          valid until the next call. NULL: an engine without a script.
 *
 * Result   S_OK; E_INVALIDARG for a structure of another size, an unexpected NULL, an unknown call or S_OK
 *          as its result; E_OUTOFMEMORY. On failure the previous script stays.
 */
typedef HRESULT (*engine_script_set_fn)(const struct engine_script *script);
HRESULT engine_script_set(const struct engine_script *script);

/* How the engine opens and loads dumps. */
struct engine_loading {
    unsigned ms;      /* a wait for the event of a dump that takes less gives S_FALSE */
    const char *text; /* what the engine prints while it loads a dump; NULL: nothing */
    /* The milliseconds that a wait takes pass in the call. NULL: no time passes. */
    void (*wait)(unsigned ms);
    /* Asked for a dump with a scripted stack, which is not read. Result: that of OpenDumpFileWide. NULL:
     * every one opens. */
    HRESULT (*open)(const wchar_t *path);
};

/* Copied but for the text, which is borrowed until the next call. NULL: loading takes no time. */
typedef void (*engine_loading_set_fn)(const struct engine_loading *loading);
void engine_loading_set(const struct engine_loading *loading);

/* The image of a driver or of the kernel, which unwinds its frames. */
struct engine_image {
    const char *file; /* UTF-8, without its folder */
    const void *bytes;
    uint64_t size; /* bytes of the file */
};

/*
 * Sets the images for the dumps that are opened. One that is not readable, or of a module that the dump
 * does not have, is never used.
 *
 * images   Copied, but for the bytes: these must stay valid until the next call.
 *
 * Result   S_OK; E_OUTOFMEMORY, and there are no images.
 */
typedef HRESULT (*engine_images_set_fn)(const struct engine_image *images, size_t count);
HRESULT engine_images_set(const struct engine_image *images, size_t count);

/*
 * Called for each call of a client, before it works; for a release after it. NULL: no calls.
 *
 * call     "EndSession(0)"; "Release() = 1" with the remaining references. Borrowed for the call.
 */
typedef void (*engine_called_fn)(const char *call);
typedef void (*engine_watch_fn)(engine_called_fn called);
void engine_watch(engine_called_fn called);

/* Objects and references that clients have not released. All are 0 after a correct client. */
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
