/* The timed check, where scenarios do not reach: odd poll counts, refused timers, no memory, and
 * exceptions from below and from the callback. */
#include "status_check.h"

#include "crash_dump.h"
#include "unit_support.h"
#include "win_event_parse.h"

#include <stdexcept>

#include <gtest/gtest.h>

#include <oxni/base/timer.h>

#include "liboxnibase/host.h"

static constexpr wchar_t DRIVER_KEY[] = L"SYSTEM\\CurrentControlSet\\Services\\load_driver";

/* The one timer that is pending. */
static struct {
    oxni_timer_fn fn;
    void *arg;
    unsigned armed;
    unsigned refused; /* the number of the one that cannot be armed; 0: none */
} s_timer;

/* Verdicts of one check; nothing here allocates. */
static struct {
    int count;
    int32_t result; /* of the last one */
    size_t modules;
    bool has_path;
    bool has_event;
    bool throws; /* whether the callback throws */
} s_verdict;

static uint64_t arm_timer(uint32_t, oxni_timer_fn fn, void *arg)
{
    if (++s_timer.armed == s_timer.refused)
        return 0;
    s_timer.fn = fn;
    s_timer.arg = arg;
    return s_timer.armed;
}

static int note_verdict(int32_t result, const crash_module_set &modules,
                        const std::string &dump_path, const event_info &event, void *)
{
    s_verdict.count++;
    s_verdict.result = result;
    s_verdict.modules = modules.size();
    s_verdict.has_path = !dump_path.empty();
    s_verdict.has_event = event.event_id != 0 || event.time_generated != 0 ||
                          event.time_text[0] != '\0' || !event.strings.empty();
    if (s_verdict.throws)
        throw std::length_error("callback");
    return 99;
}

/* Starts a check and lets its timers fire until none is pending; the caller has patched their start.
 * Result: that of the start. */
static int32_t play_check(unsigned refused)
{
    s_timer = {nullptr, nullptr, 0, refused};
    s_verdict = {0, -1, 0, false, false, s_verdict.throws};
    const int32_t started = start_bypass_status_check(note_verdict, nullptr);
    while (s_timer.fn != nullptr && s_timer.armed < 40) {
        const oxni_timer_fn fn = s_timer.fn;
        s_timer.fn = nullptr;
        fn(nullptr, nullptr); /* without a check it does nothing */
        EXPECT_EQ(s_timer.fn, nullptr);
        fn(nullptr, s_timer.arg);
    }
    return started;
}

static void set_polls(const wchar_t *polls)
{
    registry_set(DRIVER_KEY, L"TimerMaxCount", REG_SZ, wide_bytes(polls));
}

TEST(test_start_bypass_status_check, polls)
{
    const import_patch timer("oxni_timer_start", arm_timer);

    for (const wchar_t *polls : {L"-5", L"x"}) {
        system_log log({});
        const uint64_t blocks = live_blocks();
        set_polls(polls);
        EXPECT_EQ(play_check(0), 1);
        EXPECT_EQ(s_verdict.result, STATUS_CHECK_NORMAL);
        EXPECT_EQ(s_verdict.count, 1);
        EXPECT_EQ(s_timer.armed, 1u);
        EXPECT_EQ(live_blocks(), blocks);
    }
}

/* A check that cannot continue reports its failure once. */
TEST(test_start_bypass_status_check, cannot_go_on)
{
    const import_patch timer("oxni_timer_start", arm_timer);
    const uint64_t blocks = live_blocks();

    set_polls(L"12");
    for (unsigned refused = 1; refused <= 13; refused += 4) {
        system_log log({});
        EXPECT_EQ(play_check(refused), refused == 1 ? 0 : 1);
        EXPECT_EQ(s_verdict.result, STATUS_CHECK_FAILED);
        EXPECT_EQ(s_verdict.count, 1);
    }
    while_failing(1, [&] { EXPECT_EQ(play_check(0), 0); });
    EXPECT_EQ(s_verdict.result, STATUS_CHECK_FAILED);
    EXPECT_EQ(s_verdict.count, 1);
    EXPECT_EQ(start_bypass_status_check(nullptr, nullptr), 0);
    EXPECT_EQ(live_blocks(), blocks);
}

/* No exception reaches the host's timer: one below a poll ends the check, one in the search for a
 * dump or in the callback does not change the verdict. */
TEST(test_start_bypass_status_check, exceptions)
{
    const import_patch timer("oxni_timer_start", arm_timer);
    static const struct {
        const wchar_t *polls;
        bool read_throws; /* otherwise the search for a dump */
        bool callback_throws;
        int32_t result;
        const char *logged;
    } s_rows[] = {
        {L"0", false, false, STATUS_CHECK_CRASH,  "find_new_crash_dump: exception bad conversion"},
        {L"0", false, true,  STATUS_CHECK_CRASH,  "status_check_cb: exception callback"          },
        {L"0", true,  false, STATUS_CHECK_FAILED, "bypass_check_timer: exception read"           },
        {L"5", true,  false, STATUS_CHECK_FAILED, "winlogin_check_timer: exception read"         },
        {L"5", true,  true,  STATUS_CHECK_FAILED, "status_check_cb: exception callback"          },
    };
    const import_patch find("FindFirstFileW", [](const wchar_t *, WIN32_FIND_DATAW *) -> HANDLE {
        throw std::range_error("bad conversion");
    });

    for (const auto &row : s_rows) {
        SCOPED_TRACE(row.logged);
        system_log log(event_record(1001, L"BugCheck"));
        const uint64_t blocks = live_blocks();
        system_log::read_throws = row.read_throws;
        s_verdict.throws = row.callback_throws;
        set_polls(row.polls);
        log_forget();
        EXPECT_EQ(play_check(0), 1);
        EXPECT_EQ(s_verdict.result, row.result);
        EXPECT_EQ(s_verdict.count, 1);
        EXPECT_FALSE(s_verdict.has_event); /* no verdict relies on the record */
        EXPECT_EQ(s_timer.armed, 1u);
        EXPECT_TRUE(log_contains(row.logged));
        EXPECT_EQ(log_contains("set record ret[1]"), row.result == STATUS_CHECK_CRASH);
        EXPECT_EQ(live_blocks(), blocks);
        EXPECT_EQ(system_log::logs_open, 0);
    }
    s_verdict.throws = false;
}

/* A dump was analysed whose path is not UTF-16: its modules count. */
TEST(test_start_bypass_status_check, odd_path)
{
    const import_patch timer("oxni_timer_start", arm_timer);
    const listed_file dump(L"\xD83D.dmp", INT64_MAX / 2);
    const system_log log(event_record(1001, L"BugCheck"));

    set_polls(L"0");
    set_dump_places(L"C:\\none.dmp", L"C:\\none");
    engine_play(L"C:\\none\\\xD83D.dmp", "Call Site\nguard_flt+1\n");
    log_forget();
    play_check(0);
    EXPECT_EQ(s_verdict.result, STATUS_CHECK_CRASH);
    EXPECT_EQ(s_verdict.modules, 1u);
    EXPECT_FALSE(s_verdict.has_path);
    EXPECT_TRUE(log_contains("parse ret[0]"));
    EXPECT_TRUE(log_contains(" timestamp[" + std::to_string(INT64_MAX / 2) + "]"));
}

/* Whichever allocation fails: there is one verdict, and everything that was opened is closed. */
TEST(test_start_bypass_status_check, no_memory)
{
    const import_patch timer("oxni_timer_start", arm_timer);
    listed_file dump(L"a minidump with a long name.dmp", INT64_MAX / 2);
    const std::wstring folder = L"C:\\dumps that are not there";
    const std::wstring path = folder + L"\\a minidump with a long name.dmp";
    const block crash =
        event_record(1001, L"BugCheck", {L"0x0000007e, longer than a small string"});
    bool results[4] = {};

    set_polls(L"0");
    set_dump_places(path, folder);
    engine_play(path.c_str(), "Call Site\na_driver_with_a_long_name+1\nnt!x\n");
    play_check(0); /* creates what is kept */
    for (const bool forever : {true, false}) {
        const system_log log(crash);
        each_allocation_fails([] { (void)play_check(0); },
                              [&](bool, uint64_t left) {
                                  ASSERT_EQ(s_verdict.count, 1);
                                  results[s_verdict.result] = true;
                                  EXPECT_EQ(left, 0u);
                                  EXPECT_EQ(system_log::logs_open, 0);
                                  EXPECT_EQ(listed_file::finds_open, 0);
                                  EXPECT_EQ(engine_left(), 0u);
                                  system_log::fill(crash);
                              },
                              while_malloc_failing, forever);
    }
    EXPECT_TRUE(s_verdict.modules == 2 && s_verdict.has_path) << "nothing failed in the last one";
    EXPECT_TRUE(results[STATUS_CHECK_FAILED]) << "no memory for the record";
    EXPECT_TRUE(results[STATUS_CHECK_NORMAL]) << "no memory for the read";
}
