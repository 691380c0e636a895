/* What the engine's object uses: the script, and the files of dumps. On the engine's thread. */
#ifndef DEVHOST_ENGINE_SCRIPT_INTERNAL_H
#define DEVHOST_ENGINE_SCRIPT_INTERNAL_H

#include <string>
#include <vector>

#include "../kernel_dump/kernel_dump.h"
#include "engine_script.h"

enum engine_call {
    ENGINE_CALL_DEBUG_CREATE,
    ENGINE_CALL_QUERY_INTERFACE,
    ENGINE_CALL_SET_OUTPUT_CALLBACKS,
    ENGINE_CALL_OPEN_DUMP,
    ENGINE_CALL_WAIT,
    ENGINE_CALL_GET_STACK,
    ENGINE_CALL_OUTPUT_STACK,
    ENGINE_CALL_COUNT,
};

/* The result that the call returns instead of working; S_OK: it works. */
HRESULT engine_script_fault_of(enum engine_call call);

/* The stack text for a dump; NULL: the dump is read. Borrowed until the script changes. */
const std::string *engine_script_stack_of(const wchar_t *path);

/* The file of the dump. Result: as that of the script's map. Throws std::bad_alloc. */
HRESULT engine_script_map_path(const wchar_t *path, std::wstring *mapped);

/* How dumps are loaded. */
const struct engine_loading &engine_script_loading(void);

/* The images at hand. */
const std::vector<kernel_image> &engine_script_images(void);

/* Whether a dump with a scripted stack opens. A refusal is reported. */
HRESULT engine_script_open(const wchar_t *path);

/* Reports a call of the client to the watch. */
void engine_script_called(const char *format, ...)
    __attribute__((format(__MINGW_PRINTF_FORMAT, 1, 2)));

/* Reports the refusal to the script. Result: result. */
HRESULT engine_script_refuse(const wchar_t *path, HRESULT result, const char *reason);

/*
 * engine_dump.cpp: reads a dump. The file is mapped, since it may be larger than the memory, and only while
 * it is read.
 *
 * reason   Why it is refused, in one sentence.
 *
 * Result   S_OK, or that of OpenDumpFileWide. Throws std::bad_alloc.
 */
HRESULT engine_read_dump(const wchar_t *path, kernel_dump *dump, std::string *reason);

#endif
