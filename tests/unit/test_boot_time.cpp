/* The boot moment: the System process, its start time, and the estimate in its place. */
#include "boot_time.h"

#include "fake_processes.h"
#include "unit_support.h"

#include <gtest/gtest.h>

typedef std::vector<std::string> lines;

/* 2024-03-07 09:05:41 UTC. */
#define MOMENT_FILETIME 133542759410000000ULL
#define MOMENT          1709802341

TEST(test_find_system_process_id, snapshots)
{
    /* clang-format off */
    static const struct {
        const char *row;
        std::vector<fake_process> list;
        bool null, invalid;
        uint32_t result, id; /* id 77: untouched */
        lines log;
        lines calls;
    } s_rows[] = {
        {"as usual", {{0, 0, L"[System Process]"}, {4, 0, L"System"}, {88, 4, L"smss.exe"}}, false,
         false, 0, 4, {}, {"close snapshot"}},
        {"first entry, other letters", {{9, 0, L"SYSTEM"}}, false, false, 0, 9, {},
         {"close snapshot"}},
        {"the first of two", {{8, 0, L"system"}, {4, 0, L"System"}}, false, false, 0, 8, {},
         {"close snapshot"}},
        {"with a parent", {{4, 1, L"System"}, {5, 4, L"system"}}, false, false, 1168, 77, {},
         {"close snapshot"}},
        {"name begins like it", {{4, 0, L"System32"}, {5, 0, L"Syste"}}, false, false, 1168, 77, {},
         {"close snapshot"}},
        {"nothing listed", {}, false, false, 18, 77, {"error process first failed 12."},
         {"close snapshot"}},
        {"no snapshot, null", {}, true, false, 5, 77, {"error Snapshot failed 5. "}, {}},
        {"no snapshot, invalid", {}, false, true, 6, 77, {"error process first failed 6."}, {}},
    };
    /* clang-format on */
    log_capture log;

    for (const auto &row : s_rows) {
        SCOPED_TRACE(row.row);
        fake_processes machine;
        uint32_t id = 77;
        machine.list = row.list;
        machine.snapshot_null = row.null;
        machine.snapshot_invalid = row.invalid;
        EXPECT_EQ(find_system_process_id(&id), row.result);
        EXPECT_EQ(id, row.id);
        EXPECT_EQ(log.take(), row.log);
        EXPECT_EQ(machine.calls, row.calls);
    }
    EXPECT_EQ(find_system_process_id(NULL), 87u);
}

TEST(test_get_system_process_start_time, outcomes)
{
    /* clang-format off */
    static const struct {
        const char *row;
        std::vector<fake_process> list;
        uint32_t full_error, limited_error, times_error;
        uint64_t creation;
        uint32_t result;
        uint64_t time; /* 77: untouched */
        lines log;
        lines calls;
    } s_rows[] = {
        {"found", {{9, 0, L"System"}}, 0, 0, 0, 5000, 0, 5000, {},
         {"close snapshot", "open 9 400", "times", "close process"}},
        {"only with limited access", {{9, 0, L"System"}}, 5, 0, 0, 5000, 0, 5000, {},
         {"close snapshot", "open 9 400", "open 9 1000", "times", "close process"}},
        {"cannot be opened", {{9, 0, L"System"}}, 5, 87, 0, 5000, 87, 77,
         {"error open process failed 9 57."}, {"close snapshot", "open 9 400", "open 9 1000"}},
        {"times refused", {{9, 0, L"System"}}, 0, 0, 31, 5000, 31, 77,
         {"error get process time failed 9 1f."},
         {"close snapshot", "open 9 400", "times", "close process"}},
        {"time of zero", {{9, 0, L"System"}}, 0, 0, 0, 0, 50, 0,
         {"error get process time is zero "},
         {"close snapshot", "open 9 400", "times", "close process"}},
        {"usual id after a failed search", {{9, 1, L"System"}}, 0, 0, 0, 5000, 1168, 5000, {},
         {"close snapshot", "open 4 400", "times", "close process"}},
        {"usual id, time of zero", {{9, 1, L"System"}}, 0, 0, 0, 0, 50, 0,
         {"error get process time is zero "},
         {"close snapshot", "open 4 400", "times", "close process"}},
        {"usual id, cannot be opened", {{9, 1, L"System"}}, 5, 5, 0, 5000, 5, 77,
         {"error open process failed 4 5."}, {"close snapshot", "open 4 400", "open 4 1000"}},
    };
    /* clang-format on */
    log_capture log;

    for (const auto &row : s_rows) {
        SCOPED_TRACE(row.row);
        fake_processes machine;
        boot_time_filetime time = 77;
        machine.list = row.list;
        machine.full_error = row.full_error;
        machine.limited_error = row.limited_error;
        machine.times_error = row.times_error;
        machine.creation = row.creation;
        EXPECT_EQ(get_system_process_start_time(&time), row.result);
        EXPECT_EQ(time, row.time);
        EXPECT_EQ(log.take(), row.log);
        EXPECT_EQ(machine.calls, row.calls);
    }
    EXPECT_EQ(get_system_process_start_time(NULL), 87u);
}

/* The clock of the estimate: 60 s after the start, at MOMENT. */
static uint64_t s_ticks64;
static std::vector<unsigned> s_sleeps;

static void WINAPI system_time_now(SYSTEMTIME *now)
{
    *now = {2024, 3, 4, 7, 9, 5, 41, 0};
}

static DWORD WINAPI ticks32_now(void)
{
    return 30000;
}

static ULONGLONG WINAPI ticks64_now(void)
{
    return s_ticks64;
}

static FARPROC WINAPI with_ticks64(HMODULE module, const char *name)
{
    if (module != GetModuleHandleA("kernel32.dll") || strcmp(name, "GetTickCount64") != 0)
        return NULL;
    return reinterpret_cast<FARPROC>(reinterpret_cast<void *>(ticks64_now));
}

static FARPROC WINAPI without_ticks64(HMODULE, const char *)
{
    return NULL;
}

static void note_sleep(unsigned milliseconds)
{
    s_sleeps.push_back(milliseconds);
}

TEST(test_get_tick_count_ms, with_and_without_the_wide_count)
{
    import_patch ticks("GetTickCount", ticks32_now);

    s_ticks64 = 0x123456789AULL;
    {
        import_patch look_up("GetProcAddress", with_ticks64);
        EXPECT_EQ(get_tick_count_ms(), 0x123456789AULL);
    }
    import_patch look_up("GetProcAddress", without_ticks64);
    EXPECT_EQ(get_tick_count_ms(), 30000u);
}

TEST(test_estimate_boot_filetime, now_less_ticks)
{
    import_patch now("GetSystemTime", system_time_now), look_up("GetProcAddress", with_ticks64);

    s_ticks64 = 60000;
    EXPECT_EQ(estimate_boot_filetime(), MOMENT_FILETIME - 600000000);
    /* More ticks than time since 1601: it wraps, and nobody is hurt. */
    s_ticks64 = MOMENT_FILETIME / 10000 + 1;
    EXPECT_EQ((int64_t)estimate_boot_filetime(), -10000);
}

/* A time is taken as a signed number and cut toward zero. */
TEST(test_get_bootup_time, conversions)
{
    static const struct {
        uint64_t filetime;
        int64_t seconds;
    } s_rows[] = {
        {MOMENT_FILETIME,           MOMENT      },
        {MOMENT_FILETIME + 9999999, MOMENT      },
        {116444736000000000,        0           },
        {116444736009999999,        0           },
        {116444735999999999,        -1          },
        {1,                         -11644473600},
        {0xFFFFFFFFFFFFFFFF,        -11644473600},
    };
    log_capture log;

    for (const auto &row : s_rows) {
        SCOPED_TRACE(row.filetime);
        fake_processes machine;
        machine.creation = row.filetime;
        EXPECT_EQ((int64_t)get_bootup_time(), row.seconds);
        const lines seen = log.take();
        ASSERT_EQ(seen.size(), 1u);
        EXPECT_EQ(seen[0].substr(0, 24), "info system boot up at [");
    }
}

TEST(test_get_bootup_time, attempts_and_estimate)
{
    fake_processes machine;
    import_patch now("GetSystemTime", system_time_now), look_up("GetProcAddress", with_ticks64);
    import_patch sleep("oxni_msleep", note_sleep);
    log_capture log;

    s_ticks64 = 60000;
    machine.creation = MOMENT_FILETIME - 1234567;
    machine.list = {};
    EXPECT_EQ(get_bootup_time(), MOMENT - 60u);
    EXPECT_EQ(s_sleeps, (std::vector<unsigned>{500, 500, 500, 500}));
    lines seen = log.take();
    ASSERT_EQ(seen.size(), 10u);
    for (size_t i = 0; i < 8; i += 2) {
        EXPECT_EQ(seen[i], "error process first failed 12.");
        EXPECT_EQ(seen[i + 1], "warn get bootup time fail! err[18], try once");
    }
    EXPECT_EQ(seen[8], "warn use tick count calc boot time!");
}

TEST(test_get_systempro_time, time_or_estimate)
{
    fake_processes machine;
    import_patch now("GetSystemTime", system_time_now), look_up("GetProcAddress", with_ticks64);
    log_capture log;

    s_ticks64 = 60000;
    machine.creation = 1234567;
    EXPECT_EQ(get_systempro_time(), 1234567);
    EXPECT_TRUE(log.take().empty());
    machine.list = {
        {4, 1, L"System"}
    };
    EXPECT_EQ(get_systempro_time(), (int64_t)MOMENT_FILETIME - 600000000);
    EXPECT_EQ(log.take(), lines{"error get systempro failed 490."});
}
