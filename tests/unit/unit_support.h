/* What several of the unit tests need of the machine: its log, registry, files, System log and
 * debugger engine. */
#ifndef UNIT_SUPPORT_H
#define UNIT_SUPPORT_H

#include <string>
#include <vector>

#include <stdint.h>
#include <windows.h>

#include "engine_script.h"
#include "import_patch.h"

typedef std::vector<uint8_t> block;

/* 2024-03-07 09:05:41 UTC, in seconds since 1970 and as a file time. */
#define MOMENT          1709802341
#define MOMENT_FILETIME 133542759410000000ULL

/* The newest line of the log. Every level is logged; a log statement changes the thread's last
 * error, as opening the log does: what is used after it must have been taken before. */
const std::string &last_log_line(void);
/* Live blocks of the platform's allocator. */
uint64_t live_blocks(void);

/* Sets a value below HKEY_LOCAL_MACHINE, which is a key of the tests, empty at their start; bytes
 * are stored as they are. */
void registry_set(const wchar_t *path, const wchar_t *name, DWORD type, const std::string &bytes);
/* UTF-16 as the registry stores it, without a terminator. */
std::string wide_bytes(const std::wstring &text);

/* The bytes of one log record, laid out as Windows does. */
block event_record(uint32_t event_id, const std::wstring &source,
                   const std::vector<std::wstring> &strings = {});

/* The System log holds these bytes, given in one read when they fit, while it lives. */
class system_log
{
  public:
    explicit system_log(const block &bytes);

  private:
    import_patch open_, read_, close_;
};

/* How the stand-in engine plays from here on: the dump of that path has this stack text, and the
 * named call, unless NULL, fails with the result. */
void engine_play(const wchar_t *dump, const char *stack, const char *failing = NULL,
                 HRESULT result = E_FAIL);
/* Objects, references and callbacks that the engine's clients have not given back. */
size_t engine_left(void);

#endif
