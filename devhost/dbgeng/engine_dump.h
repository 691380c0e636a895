/* Reading of a dump's file. Any thread. */
#ifndef DEVHOST_ENGINE_DUMP_H
#define DEVHOST_ENGINE_DUMP_H

#include <windows.h>

#include "../kernel_dump/kernel_dump.h"

/*
 * The file is mapped, since it may be larger than the memory, and only while it is read.
 *
 * reason   Why it is refused, in one sentence.
 *
 * Result   S_OK, or that of OpenDumpFileWide. Throws std::bad_alloc.
 */
HRESULT engine_read_dump(const wchar_t *path, kernel_dump *dump, std::string *reason);

#endif
