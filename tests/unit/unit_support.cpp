/* The machine as the unit tests arrange it. */
#include "unit_support.h"

#include <algorithm>
#include <fstream>
#include <stdexcept>

#include <cstdio>
#include <cstdlib>
#include <cstring>

#include <gtest/gtest.h>

#include <oxni/base/log.h>

#include "liboxnibase/host.h"
#include "proc_address.h"

/* Of fixed size: lines arrive while allocations fail. */
static char s_lines[1 << 16];
static size_t s_lines_bytes;

static void require(bool condition, const char *what)
{
    if (condition)
        return;
    fprintf(stderr, "unit_support: %s, error %lu\n", what, GetLastError());
    abort();
}

static int every_level(void)
{
    SetLastError(0xBAD);
    return OXNI_LOG_DEBUG;
}

static void keep_line(int, const char *line, void *)
{
    const size_t bytes = std::min(strlen(line), sizeof(s_lines) - s_lines_bytes);

    memcpy(s_lines + s_lines_bytes, line, bytes);
    s_lines_bytes += bytes;
}

static HKEY s_machine_key;

/* For all tests: what is logged stays here, blocks are guarded, and HKEY_LOCAL_MACHINE is a key of
 * ours. */
struct unit_environment : public testing::Environment {
    void SetUp() override
    {
        const std::string path = "Software\\bypass_unit_" + std::to_string(GetCurrentProcessId());

        oxnih_log_set_sink(keep_line, nullptr);
        oxnih_memory_set_mode(OXNIH_MEMORY_GUARD);
        require(RegCreateKeyA(HKEY_CURRENT_USER, path.c_str(), &s_machine_key) == 0 &&
                    RegOverridePredefKey(HKEY_LOCAL_MACHINE, s_machine_key) == 0,
                "machine key not redirected");
    }

    void TearDown() override
    {
        RegOverridePredefKey(HKEY_LOCAL_MACHINE, nullptr);
        RegDeleteTreeW(s_machine_key, nullptr);
        RegDeleteKeyW(s_machine_key, L"");
    }

    import_patch level{"oxni_log_level_get", every_level};
};
[[maybe_unused]] static testing::Environment *const s_environment =
    testing::AddGlobalTestEnvironment(new unit_environment);

bool log_contains(const std::string &text)
{
    return std::string(s_lines, s_lines_bytes).find(text) != std::string::npos;
}

void log_forget(void)
{
    s_lines_bytes = 0;
}

static oxnih_memory_stats memory_stats(void)
{
    oxnih_memory_stats stats;

    oxnih_memory_get_stats(&stats);
    return stats;
}

uint64_t live_blocks(void)
{
    return memory_stats().live_blocks;
}

bool while_failing(uint64_t nth, const std::function<void()> &call, bool forever)
{
    const uint64_t failed_before = memory_stats().failed;

    oxnih_memory_fail(nth, forever);
    call();
    oxnih_memory_fail(0, 0);
    return memory_stats().failed != failed_before;
}

static uint64_t s_fail_in; /* calls of malloc until one fails; 0: none */
static bool s_malloc_failed;

static void *failing_malloc(size_t bytes)
{
    static const auto s_real =
        proc_address<void *(*)(size_t)>(GetModuleHandleW(L"msvcrt.dll"), "malloc");

    if (s_fail_in == 0 || --s_fail_in > 0)
        return s_real(bytes);
    s_malloc_failed = true;
    return nullptr;
}

bool while_malloc_failing(uint64_t nth, const std::function<void()> &call, bool forever)
{
    const import_patch patch("malloc", failing_malloc);

    s_malloc_failed = false;
    const bool failed = while_failing(
        nth,
        [&] {
            s_fail_in = nth;
            call();
            s_fail_in = 0;
        },
        forever);
    return s_malloc_failed || failed;
}

void each_allocation_fails(const std::function<void()> &call,
                           const std::function<void(bool failed, uint64_t left)> &check,
                           decltype(&while_failing) fail, bool forever)
{
    bool failed = true;

    for (uint64_t nth = 1; nth < 300 && failed; nth++) {
        SCOPED_TRACE(nth);
        const uint64_t blocks = live_blocks();

        failed = fail(nth, call, forever);
        check(failed, live_blocks() - blocks);
    }
    EXPECT_FALSE(failed);
}

void registry_set(const wchar_t *path, const wchar_t *name, DWORD type, const std::string &bytes)
{
    /* Windows stores a terminator more when one follows what it is given. */
    const std::string guarded = bytes + "!!";

    require(RegSetKeyValueW(HKEY_LOCAL_MACHINE, path, name, type, guarded.data(),
                            static_cast<DWORD>(bytes.size())) == 0,
            "value not set");
}

void set_dump_places(const std::wstring &complete, const std::wstring &minidumps)
{
    static const wchar_t key[] = L"SYSTEM\\CurrentControlSet\\Control\\CrashControl";

    registry_set(key, L"DumpFile", REG_SZ, wide_bytes(complete));
    registry_set(key, L"MinidumpDir", REG_SZ, wide_bytes(minidumps));
}

temporary_folder::~temporary_folder()
{
    std::filesystem::remove_all(path);
}

std::wstring temporary_folder::file(const wchar_t *name) const
{
    std::filesystem::create_directories(path);
    std::ofstream(path / name).close();
    return (path / name).wstring();
}

int listed_file::finds_open;
static const wchar_t *s_name;
static uint64_t s_written;

static HANDLE WINAPI find_first(const wchar_t *, WIN32_FIND_DATAW *data)
{
    listed_file::finds_open++;
    data->dwFileAttributes = ~static_cast<DWORD>(FILE_ATTRIBUTE_DIRECTORY); /* no other counts */
    data->ftLastWriteTime = {static_cast<DWORD>(s_written), static_cast<DWORD>(s_written >> 32)};
    wcscpy(data->cFileName, s_name);
    return &s_name;
}

listed_file::listed_file(const wchar_t *name, uint64_t written)
    : first_("FindFirstFileW", find_first), next_("FindNextFileW"), close_("FindClose", [](HANDLE) {
          finds_open--;
          return TRUE;
      })
{
    s_name = name;
    s_written = written;
}

template <typename Function> static Function engine_export(const char *name)
{
    const HMODULE engine = LoadLibraryW(L"dbgeng.dll");
    void *function = reinterpret_cast<void *>(GetProcAddress(engine, name));

    require(function != nullptr, "dbgeng.dll is not the stand-in");
    return reinterpret_cast<Function>(function);
}

void engine_play(const wchar_t *dump, const char *stack, const char *failing, HRESULT result)
{
    const engine_script_stack stacks = {dump, stack};
    const engine_script_fault fault = {failing, result};
    engine_script script = {};

    script.struct_bytes = sizeof(script);
    script.stacks = &stacks;
    script.stack_count = 1;
    script.faults = &fault;
    script.fault_count = failing != nullptr ? 1 : 0;
    require(engine_export<engine_script_set_fn>("engine_script_set")(&script) == S_OK,
            "the engine refuses its script");
}

size_t engine_left(void)
{
    engine_counts counts;

    engine_export<engine_counts_get_fn>("engine_counts_get")(&counts);
    return counts.objects + counts.references + counts.callbacks;
}
