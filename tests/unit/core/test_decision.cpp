/* The decision on each verdict: what it calls, in which order, and what it leaves of the product. */
#include "core_patches.h"

#include <gtest/gtest.h>

#include "bypass_mgr_decision.h"
#include "status_check.h"
#include "time_text.h"
#include "win_event_parse.h"

static const crash_module_set s_none, s_own = {"ma", "nt"}, s_foreign = {"nt"};

#define REPORT "history; timer 60000; "
#define STORE3 "store {'a':{'count':3,'status':#}}; "
#define BLAME  "store {'crash_info':{'create_time':'*','module_name':'ma','path':'C:\\\\d'}}; "

/* clang-format off */
static const struct verdict_row {
    int32_t kind;
    const crash_module_set *modules;
    bool updated;  /* the drivers, in this boot */
    bool bypassed; /* the product; else it is played in every other status, which is # below */
    int64_t count;
    const char *calls;
    int64_t left; /* of the count */
} s_verdicts[] = {
    {STATUS_CHECK_FAILED, &s_none,    false, false, 3, STORE3, 3},
    {STATUS_CHECK_FAILED, &s_none,    false, true,  3, REPORT STORE3, 3},
    {STATUS_CHECK_FAILED, &s_none,    true,  true,  3, REPORT STORE3, 3},
    {STATUS_CHECK_CRASH,  &s_own,     false, false, 3, "tag?; tag=; " BLAME "push a {'reason':'ma','type':'bypass'}; ", 3},
    {STATUS_CHECK_CRASH,  &s_own,     false, true,  3, "tag?; tag=; " BLAME "push a {'reason':'ma','type':'bypass'}; ", 3},
    {STATUS_CHECK_CRASH,  &s_foreign, false, false, 3, "tag?; tag=; " STORE3, 3},
    {STATUS_CHECK_CRASH,  &s_none,    false, true,  3, "tag?; tag=; " REPORT STORE3, 3},
    {STATUS_CHECK_CRASH,  &s_own,     true,  false, 3, "tag?; ", 3},
    {STATUS_CHECK_CRASH,  &s_own,     true,  true,  3, "tag?; ", 3},
    {STATUS_CHECK_UNEXPECTED_SHUTDOWN, &s_none, false, false, 3, "tag?; tag?; push a {'count':2,'reason':'none','type':'set_count'}; store {'a':{'count':2,'status':#}}; ", 2},
    {STATUS_CHECK_UNEXPECTED_SHUTDOWN, &s_none, false, false, 0x100000001, "tag?; tag?; push a {'count':4294967296,'reason':'none','type':'set_count'}; store {'a':{'count':4294967296,'status':#}}; ", 0x100000000},
    {STATUS_CHECK_UNEXPECTED_SHUTDOWN, &s_none, true,  false, 3, "tag?; tag?; " STORE3, 3},
    {STATUS_CHECK_UNEXPECTED_SHUTDOWN, &s_none, false, false, 1, "tag?; ", 1},
    {STATUS_CHECK_UNEXPECTED_SHUTDOWN, &s_none, false, true,  3, "tag?; " REPORT STORE3, 3},
    {STATUS_CHECK_UNEXPECTED_SHUTDOWN, &s_none, true,  true,  3, "tag?; " REPORT STORE3, 3},
    {STATUS_CHECK_NORMAL, &s_none,    false, false, 3, "stop; timer 60000; ", 3},
    {STATUS_CHECK_NORMAL, &s_none,    true,  true,  3, "stop; timer 60000; ", 3},
};
/* clang-format on */

/* Puts in the status for #, and for * the time of a dump that cannot be opened. */
static std::string expected_calls(const verdict_row &row, int32_t status)
{
    std::string calls;
    char time[TIME_TEXT_CHARS];

    time_text_local(0, time, sizeof(time));
    for (const char *at = row.calls; *at != '\0'; at++)
        calls += *at == '#' ? std::to_string(status) : *at == '*' ? time : std::string(1, *at);
    return calls + "release a";
}

static void play_verdict(const verdict_row &row, int32_t status)
{
    const core_patches patches;
    std::list<import_patch> update;
    struct suber_set *record = core_product(0, status, row.count);

    if (row.updated) {
        update.emplace_back("CreateFileW",
                            [](const wchar_t *, DWORD, DWORD, LPSECURITY_ATTRIBUTES, DWORD, DWORD,
                               HANDLE) -> HANDLE { return &s_core; });
        update.emplace_back("GetFileInformationByHandle",
                            [](HANDLE, BY_HANDLE_FILE_INFORMATION *information) -> BOOL {
                                information->ftLastWriteTime.dwHighDateTime = MAXLONG;
                                return TRUE;
                            });
    }
    (void)bypass_mgr_check_cb(row.kind, *row.modules, "C:\\d", {}, core_subscriber(0));
    EXPECT_EQ(core_calls(), expected_calls(row, status));
    EXPECT_EQ(record->count, row.left);
    EXPECT_EQ(record->status, status);
    EXPECT_EQ(record->parsed, 1); /* whatever the verdict */
}

TEST(test_decision, verdicts)
{
    for (const verdict_row &row : s_verdicts)
        for (int32_t status = STATUS_UNKNOWN; status <= STATUS_INITIALIZING; status++)
            if (row.bypassed == (status == STATUS_BYPASS)) {
                SCOPED_TRACE(row.calls);
                play_verdict(row, status);
            }
}

/* The product left before its verdict came, another one stays. */
TEST(test_decision, of_a_product_that_left)
{
    for (const int32_t kind : {0, 1, 2, 3}) {
        const core_patches patches;

        core_product(1, STATUS_BYPASS, 3);
        (void)bypass_mgr_check_cb(kind, s_own, "C:\\d", {}, core_subscriber(0));
        EXPECT_EQ(core_calls(), "release a");
    }
}
