/* The check after boot: what the polls see, and the one verdict that each check ends with. */
#include "crash_info.h"

#include "fake_engine.h"
#include "fake_event_log.h"
#include "fake_processes.h"
#include "unit_support.h"

#include <algorithm>

#include <gtest/gtest.h>

#include <oxni/base/timer.h>

#include "liboxnibase/host.h"

typedef std::vector<std::string> lines;

#define CRASH_KEY  L"SYSTEM\\CurrentControlSet\\Control\\CrashControl"
#define DRIVER_KEY L"SYSTEM\\CurrentControlSet\\Services\\load_driver"
/* The boot, in seconds since 1970 and as a file time. */
#define BOOT_SECONDS  1709802341
#define BOOT_FILETIME 133542759410000000ULL

/* The one timer that is pending, and how many were armed. */
static struct {
    oxni_timer_fn fn;
    void *arg;
    unsigned armed;
    unsigned refused; /* the number of the one that cannot be armed; 0: none */
    bool odd_delay;   /* one was not of 30 s */
} s_timer;

static uint64_t arm_timer(uint32_t milliseconds, oxni_timer_fn fn, void *arg)
{
    if (++s_timer.armed == s_timer.refused)
        return 0;
    s_timer.odd_delay = s_timer.odd_delay || milliseconds != 30000;
    s_timer.fn = fn;
    s_timer.arg = arg;
    return s_timer.armed;
}

/* Every verdict, as one line. */
static lines s_verdicts;

static int note_verdict(int32_t result, const crash_module_set &modules,
                        const std::string &dump_path, const event_info &event, void *user)
{
    std::string line = std::to_string(result);

    for (const std::string &module : modules)
        line += " " + module;
    if (!dump_path.empty())
        line += " " + dump_path.substr(dump_path.find_last_of('\\') + 1);
    if (event.time_text[0] != '\0' || event.time_generated != 0 || event.event_id != 0 ||
        !event.strings.empty())
        line += " with an event";
    if (user != &s_verdicts)
        line += " for another user";
    s_verdicts.push_back(line);
    return 99;
}

/* A machine whose clock is the polls. */
class check_machine
{
  public:
    check_machine()
    {
        processes.creation = BOOT_FILETIME;
        oxnih_set_install_dir((folder.utf8() + "\\agent").c_str());
        registry.set_text(CRASH_KEY, L"DumpFile", REG_SZ, folder.file(L"MEMORY.DMP"));
        registry.set_text(CRASH_KEY, L"MinidumpDir", REG_SZ, folder.path());
        s_timer = {};
        s_verdicts.clear();
    }

    /* Lets the pending timer fire; false when there is none. */
    bool poll()
    {
        const oxni_timer_fn fn = s_timer.fn;

        if (fn == NULL)
            return false;
        s_timer.fn = NULL;
        fn(NULL, s_timer.arg);
        return true;
    }

    temporary_folder folder;
    private_registry registry;
    fake_processes processes;
    fake_event_log system_log;
    fake_engine engine;
    import_patch timer{"oxni_timer_start", arm_timer};
};

static std::vector<uint8_t> event(char kind, uint32_t seconds)
{
    switch (kind) {
    case 'S': return event_record(12, L"Microsoft-Windows-Kernel-General", seconds);
    case 'L': return event_record(7001, L"Microsoft-Windows-Winlogon", seconds);
    case 'P': return event_record(41, L"Microsoft-Windows-Kernel-Power", seconds);
    case 'B': return event_record(0x400003E9, L"BugCheck", seconds, {L"0x7e", L"C:\\a.dmp"});
    default: return event_record(1001, L"Windows Error Reporting", seconds);
    }
}

/* Stories of one check. Records are written "oldest to newest" as letters: S start, L logon,
 * P unexpected shutdown, B blue screen, x another 1001; what precedes the last S is of an earlier
 * run and a minute older than the boot. "|" stands for the time between two polls, from the start
 * of the check on; the last stretch lasts. */
static void set_log(fake_event_log *system_log, const std::string &story, size_t polls)
{
    std::string seen;
    size_t stretch = 0;

    for (char kind : story) {
        if (kind == '|' && ++stretch > polls)
            break;
        if (kind != '|')
            seen += kind;
    }
    const size_t start = seen.rfind('S');
    system_log->records.clear();
    for (size_t i = seen.size(); i-- > 0;)
        system_log->records.push_back(event(seen[i], start == std::string::npos || i >= start
                                                         ? BOOT_SECONDS + 1
                                                         : BOOT_SECONDS - 60));
}

TEST(test_start_bypass_status_check, stories)
{
    static const struct {
        const char *row;
        const char *story;
        const wchar_t *polls; /* TimerMaxCount, NULL: not set */
        const char *verdict;
        unsigned fired; /* polls until then */
    } s_rows[] = {
        {"normal shutdown",                              "SLSL",                NULL,  "0",    13},
        {"nobody logs on",                               "SLS",                 NULL,  "0",    13},
        {"logon at the third poll",                      "SLS|||L",             NULL,  "0",    13},
        {"power loss",                                   "SLSPL",               NULL,  "3",    13},
        {"power loss, nobody logs on",                   "SLSP",                NULL,  "3",    13},
        {"power loss told late",                         "SLSL||||P",           NULL,  "3",    13},
        {"power loss told too late",                     "SLSL||||||||||||||P", NULL,  "0",    13},
        {"blue screen",                                  "SLSLB",               NULL,  "2 nt", 2 },
        {"blue screen and power loss",                   "SLSPLB",              NULL,  "2 nt", 2 },
        {"blue screen, told before the power loss",      "SLSLBP",              NULL,  "2 nt", 2 },
        {"blue screen told a poll after the power loss", "SLSPL|||B",           NULL,  "2 nt", 3 },
        {"blue screen told at the last poll",            "SLSL|||||||||||||B",  NULL,  "2 nt", 13},
        {"blue screen of an earlier run",                "SPBLSL",              NULL,  "0",    13},
        {"power loss of an earlier run",                 "SPLSL",               NULL,  "0",    13},
        {"another 1001",                                 "SLSLx",               NULL,  "0",    13},
        {"empty log",                                    "",                    NULL,  "0",    13},
        {"no start in the log, blue screen",             "LB",                  NULL,  "2 nt", 2 },
        {"no polls allowed",                             "SLSL",                L"0",  "0",    1 },
        {"no polls allowed, power loss",                 "SLSPL",               L"0",  "3",    1 },
        {"no polls allowed, blue screen",                "SLSLB",               L"0",  "2 nt", 1 },
        {"fewer than none",                              "SLSL",                L"-5", "0",    1 },
        {"one poll",                                     "SLSL",                L"1",  "0",    2 },
        {"one poll, nobody logs on",                     "SLS",                 L"1",  "0",    2 },
        {"three polls",                                  "SLSL",                L"3",  "0",    4 },
        {"no number",                                    "SLSL",                L"x",  "0",    1 },
    };

    for (const auto &row : s_rows) {
        SCOPED_TRACE(row.row);
        check_machine machine;
        oxnih_memory_stats before, after;
        unsigned fired = 0;
        machine.folder.write(L"MEMORY.DMP", "x", BOOT_FILETIME + 1);
        CreateDirectoryW(machine.folder.file(L"small").c_str(), NULL);
        machine.registry.set_text(CRASH_KEY, L"MinidumpDir", REG_SZ, machine.folder.file(L"small"));
        if (row.polls != NULL)
            machine.registry.set_text(DRIVER_KEY, L"TimerMaxCount", REG_SZ, row.polls);
        oxnih_memory_get_stats(&before);
        EXPECT_EQ(start_bypass_status_check(note_verdict, &s_verdicts), 1);
        while (s_timer.fn != NULL && fired < 40) {
            EXPECT_TRUE(s_verdicts.empty());
            set_log(&machine.system_log, row.story, ++fired);
            machine.poll();
        }
        oxnih_memory_get_stats(&after);
        EXPECT_EQ(s_verdicts, lines{row.verdict});
        EXPECT_EQ(fired, row.fired);
        EXPECT_FALSE(s_timer.odd_delay);
        EXPECT_EQ(after.live_blocks, before.live_blocks);
    }
}

/* A logon of this boot is one at or after the moment that Windows started. */
TEST(test_start_bypass_status_check, logon_of_this_boot)
{
    static const struct {
        const char *row;
        uint64_t boot;
        bool ends_wait;
    } s_rows[] = {
        {"at the boot",           BOOT_FILETIME,             true },
        {"the boot a tick later", BOOT_FILETIME + 1,         false},
        {"long before",           BOOT_FILETIME - 600000000, true },
    };

    for (const auto &row : s_rows) {
        SCOPED_TRACE(row.row);
        check_machine machine;
        log_capture log;
        machine.processes.creation = row.boot;
        machine.system_log.records = {event('L', BOOT_SECONDS)};
        ASSERT_EQ(start_bypass_status_check(note_verdict, &s_verdicts), 1);
        const oxni_timer_fn first_phase = s_timer.fn;
        machine.poll();
        EXPECT_EQ(s_timer.fn != first_phase, row.ends_wait);
        const lines seen = log.take();
        EXPECT_EQ(std::count_if(seen.begin(), seen.end(),
                                [](const std::string &line) {
                                    return line.find(
                                               "warn windows_winlogin left count[11] time[") == 0;
                                }),
                  row.ends_wait ? 1 : 0);
    }
}

/* Wherever a timer cannot be armed the check ends, and says so. */
TEST(test_start_bypass_status_check, timer_cannot_be_armed)
{
    for (unsigned refused = 1; refused <= 4; refused++) {
        SCOPED_TRACE(refused);
        check_machine machine;
        oxnih_memory_stats before, after;
        oxnih_memory_get_stats(&before);
        machine.system_log.records = {event('P', BOOT_SECONDS + 1), event('S', BOOT_SECONDS)};
        if (refused > 2)
            machine.system_log.records.insert(machine.system_log.records.begin(),
                                              event('L', BOOT_SECONDS + 1));
        s_timer.refused = refused;
        EXPECT_EQ(start_bypass_status_check(note_verdict, &s_verdicts), refused == 1 ? 0 : 1);
        while (machine.poll()) {
        }
        oxnih_memory_get_stats(&after);
        EXPECT_EQ(s_verdicts, lines{"1"});
        EXPECT_EQ(s_timer.armed, refused);
        EXPECT_EQ(after.live_blocks, before.live_blocks);
    }
}

TEST(test_start_bypass_status_check, cannot_start)
{
    check_machine machine;
    log_capture log;

    EXPECT_EQ(start_bypass_status_check(NULL, &s_verdicts), 0);
    EXPECT_EQ(log.take(), lines{"info start bypass_status_check"});
    oxnih_memory_fail(1, 0);
    EXPECT_EQ(start_bypass_status_check(note_verdict, &s_verdicts), 0);
    oxnih_memory_fail(0, 0);
    EXPECT_EQ(s_verdicts, lines{"1"});
    EXPECT_EQ(s_timer.armed, 0u);
}

/* A log that cannot be read is as one without the record. */
TEST(test_start_bypass_status_check, unreadable_log)
{
    check_machine machine;
    unsigned fired = 0;

    machine.system_log.records = {event('B', BOOT_SECONDS + 1)};
    machine.system_log.open_fails = true;
    ASSERT_EQ(start_bypass_status_check(note_verdict, &s_verdicts), 1);
    while (machine.poll())
        fired++;
    EXPECT_EQ(s_verdicts, lines{"0"});
    EXPECT_EQ(fired, 13u);
}

/* What a crash leaves: the verdict's words, and the record. */
TEST(test_start_bypass_status_check, crash_evidence)
{
    static const struct {
        const char *row;
        int64_t minidump; /* distance of its write time from the boot, 0: none */
        bool engine_fails;
        const char *verdict;
        uint64_t recorded;
        int parsed;
    } s_rows[] = {
        {"new minidump", 10000000,  false, "2 nt m.dmp", BOOT_FILETIME + 10000000, 1},
        {"old minidump", -10000000, false, "2",          0,                        0},
        {"no dump",      0,         false, "2",          0,                        0},
        {"engine fails", 10000000,  true,  "2",          0,                        0},
    };

    for (const auto &row : s_rows) {
        SCOPED_TRACE(row.row);
        check_machine machine;
        log_capture log;
        int64_t recorded = -1;
        if (row.minidump != 0)
            machine.folder.write(L"m.dmp", "x", BOOT_FILETIME + (uint64_t)row.minidump);
        machine.engine.failing_call = row.engine_fails ? "wait" : "";
        set_log(&machine.system_log, "SLB", 0);
        machine.registry.set_text(DRIVER_KEY, L"TimerMaxCount", REG_SZ, L"0");
        ASSERT_EQ(start_bypass_status_check(note_verdict, &s_verdicts), 1);
        machine.poll();
        EXPECT_EQ(s_verdicts, lines{row.verdict});
        EXPECT_TRUE(get_dumprecord_time(&recorded));
        EXPECT_EQ(recorded, (int64_t)row.recorded);
        const lines seen = log.take();
        ASSERT_GE(seen.size(), 2u);
        EXPECT_EQ(seen.back(), "info windows_system_crash set record ret[1] timestamp[" +
                                   std::to_string(row.recorded) + "]");
        const std::string &found = seen[seen.size() - 2];
        EXPECT_EQ(found.find("info windows_system_crash left count[0] time[3/7/2024 "), 0u);
        EXPECT_NE(found.find("] parse ret[" + std::to_string(row.parsed) + "]"), std::string::npos);
    }
}

/* Half a surrogate pair in a dump's name: what was found counts, only the path is missing. */
static HANDLE WINAPI find_broken_name(const wchar_t *, WIN32_FIND_DATAW *data)
{
    const uint64_t written = BOOT_FILETIME + 1;

    *data = {};
    data->ftLastWriteTime = {(DWORD)written, (DWORD)(written >> 32)};
    wcscpy(data->cFileName, L"\xD83D.dmp");
    return &s_timer;
}

static BOOL WINAPI find_no_more(HANDLE, WIN32_FIND_DATAW *)
{
    return FALSE;
}

static BOOL WINAPI find_close(HANDLE)
{
    return TRUE;
}

TEST(test_start_bypass_status_check, path_that_cannot_be_converted)
{
    check_machine machine;
    log_capture log;

    set_log(&machine.system_log, "SLB", 0);
    machine.registry.set_text(DRIVER_KEY, L"TimerMaxCount", REG_SZ, L"0");
    ASSERT_EQ(start_bypass_status_check(note_verdict, &s_verdicts), 1);
    {
        import_patch first("FindFirstFileW", find_broken_name), next("FindNextFileW", find_no_more),
            close("FindClose", find_close);
        machine.poll();
    }
    EXPECT_EQ(s_verdicts, lines{"2 nt"});
    const lines seen = log.take();
    EXPECT_NE(seen[seen.size() - 2].find("parse ret[0]"), std::string::npos);
}
