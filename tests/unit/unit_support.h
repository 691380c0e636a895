/* What several of the unit tests need of the machine: its log, registry, files, System log,
 * allocator and debugger engine. */
#ifndef UNIT_SUPPORT_H
#define UNIT_SUPPORT_H

#include <filesystem>
#include <functional>
#include <string>
#include <vector>

#include <cstdint>
#include <windows.h>

#include "dbgeng/engine_script.h"
#include "import_patch.h"
#include "system_log.h"

/* 2024-03-07 09:05:41 UTC, in seconds since 1970 and as a file time. */
static constexpr int MOMENT = 1709802341;
static constexpr uint64_t MOMENT_FILETIME = 133542759410000000ULL;

/* Whether a line of the log contains the text; lines are kept from the last log_forget on, as many
 * as fit. Every level is logged. A log statement changes the thread's last error, as opening the log
 * does: code that uses it must take it before. */
bool log_contains(const std::string &text);
void log_forget(void);

/* Live blocks of the platform's allocator. */
uint64_t live_blocks(void);

/* Makes a call while the nth allocation of the platform's allocator fails; forever: all later ones,
 * too. Test code may allocate by other means. Result: whether any allocation failed. */
bool while_failing(uint64_t nth, const std::function<void()> &call, bool forever = false);
/* The nth call of malloc in this executable fails, too, once: C++ code may use either. Test code in
 * the call must not allocate. */
bool while_malloc_failing(uint64_t nth, const std::function<void()> &call, bool forever = false);

/* Makes a call for each of its allocations, which fails, until none does. After each, checks: whether
 * any failed, and how many blocks of the platform's allocator are left of the call. fail: one of the
 * functions above. */
void each_allocation_fails(const std::function<void()> &call,
                           const std::function<void(bool failed, uint64_t left)> &check,
                           decltype(&while_failing) fail = while_failing, bool forever = false);

/* Sets a value below HKEY_LOCAL_MACHINE, which is a key of the tests, empty at their start; bytes
 * are stored as they are. */
void registry_set(const wchar_t *path, const wchar_t *name, DWORD type, const std::string &bytes);

/* A folder below the system's temporary one, removed with its content. */
struct temporary_folder {
    ~temporary_folder();
    /* Creates an empty file in it. Result: its path. */
    std::wstring file(const wchar_t *name) const;

    const std::filesystem::path path = std::filesystem::temp_directory_path() /
                                       ("bypass_unit_" + std::to_string(GetCurrentProcessId()));
};

/* Where Windows is set to write dumps. */
void set_dump_places(const std::wstring &complete, const std::wstring &minidumps);

/* While it lives, every folder lists one file, which is not there. */
class listed_file
{
  public:
    listed_file(const wchar_t *name, uint64_t written);
    /* Searches that were not closed, of all objects. */
    static int finds_open;

  private:
    import_patch first_, next_, close_;
};

/* How the stand-in engine plays from here on: the dump of that path has this stack text, and the
 * named call, unless NULL, fails with the result. */
void engine_play(const wchar_t *dump, const char *stack, const char *failing = nullptr,
                 HRESULT result = E_FAIL);
/* Objects, references and callbacks that the engine's clients have not released. */
size_t engine_left(void);

#endif
