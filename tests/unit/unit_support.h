/* What several of the unit tests need of the machine: its log, registry, files, System log,
 * allocator and debugger engine. */
#ifndef UNIT_SUPPORT_H
#define UNIT_SUPPORT_H

#include <filesystem>
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

/* While it lives, the nth allocation of the platform's allocator fails; forever: all later ones, too.
 * Test code may allocate by other means. */
class failing_memory
{
  public:
    explicit failing_memory(uint64_t nth, bool forever = false);
    ~failing_memory();
    /* Whether any allocation has failed. */
    bool reached() const;

  private:
    uint64_t failed_before_;
};

/* Makes a call meanwhile. Result: whether any allocation failed. */
template <typename Function> bool while_failing(uint64_t nth, Function call, bool forever = false)
{
    const failing_memory failing(nth, forever);

    call();
    return failing.reached();
}

/* The nth call of malloc in this executable fails, too, once: C++ code may use either. Test code that
 * runs meanwhile must not allocate. */
class failing_allocations : public failing_memory
{
  public:
    failing_allocations(uint64_t nth, bool forever);
    bool reached() const;

  private:
    import_patch malloc_;
};

/* Sets a value below HKEY_LOCAL_MACHINE, which is a key of the tests, empty at their start; bytes
 * are stored as they are. */
void registry_set(const wchar_t *path, const wchar_t *name, DWORD type, const std::string &bytes);

/* A folder below the system's temporary one, removed with its content. */
struct temporary_folder {
    ~temporary_folder();

    const std::filesystem::path path = std::filesystem::temp_directory_path() /
                                       ("bypass_unit_" + std::to_string(GetCurrentProcessId()));
};

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
