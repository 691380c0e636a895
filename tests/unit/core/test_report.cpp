/* Reports and alarms: what they hold, and what is left when memory runs out. */
#include "core_patches.h"

#include <gtest/gtest.h>

#include <oxni/base/resource.h>

#include "bypass_mgr_report.h"
#include "liboxnibase/host.h"
#include "report_abnormal_crash.h"
#include "report_alarm.h"
#include "report_pending.h"
#include "unit_support.h"

static int s_deliveries;

static int refuse_request(const char *, json_t *request, void *, oxni_res_reply_fn, unsigned)
{
    s_deliveries++;
    json_decref(request); /* taken over all the same */
    return -1;
}

TEST(test_report_trigger, results)
{
    const core_patches patches;
    struct suber_set *record = core_product(0, STATUS_BYPASS, 3);
    struct suber_set nameless = {};

    nameless.status = STATUS_BYPASS;
    nameless.parsed = 1;
    EXPECT_EQ(bypass_mgr_report_trigger(nullptr), -1);
    EXPECT_EQ(bypass_mgr_report_trigger(&nameless), -1);
    EXPECT_EQ(bypass_mgr_report_trigger(record), -2);
    record->parsed = 1;
    for (record->status = 0; record->status < 5; record->status++)
        EXPECT_EQ(bypass_mgr_report_trigger(record), record->status == STATUS_BYPASS ? 0 : -2);
    EXPECT_EQ(core_calls(), "history; timer 60000");
}

/* A report and what it owns; whichever allocation fails, nothing of it leaks and the log line names what
 * was missing. */
TEST(test_report_pending, memory)
{
    static const char *const s_lines[] = {
        "Failed to zero_malloc memory", /* the names */
        "Failed to zero_malloc memory", /* the report */
        "Failed to strdup memory",
        "strdup filed!",
        "strdup filed!",
        "expr[drv_info->crash_info] false! zero_malloc fail",
    };
    const core_patches patches;
    const struct crash_info crash = {"C:\\d", "then", "ma"};
    char first[] = "ma", second[] = "mb", *names[] = {first, second};
    const uint64_t blocks = live_blocks();

    for (uint64_t nth = 1; nth <= ARRAYSIZE(s_lines); nth++) {
        SCOPED_TRACE(nth);
        log_forget();
        while_failing(nth, [&] { drv_info_add(names, 2, "a", &crash); });
        EXPECT_TRUE(log_contains(s_lines[nth - 1]));
        EXPECT_FALSE(report_pending_has("a"));
        EXPECT_EQ(live_blocks(), blocks);
    }
    for (const struct crash_info *given :
         {&crash, static_cast<const struct crash_info *>(nullptr)}) {
        drv_info_add(names, 2, "a", given);
        EXPECT_TRUE(report_pending_has("a"));
        drv_info_add(names, 2, "a", given);
        report_forget("a");
        EXPECT_FALSE(report_pending_has("a"));
        EXPECT_EQ(live_blocks(), blocks);
    }
}

/* The upload of a report that the host refuses gives everything back. */
TEST(test_report_abnormal_crash, results)
{
    const core_patches patches;
    import_patch deliver("oxni_res_deliver", refuse_request);
    char module[] = "ma", *names[] = {module}, *none[] = {nullptr};

    EXPECT_EQ(report_abnormal_crash(nullptr, 1, "a", nullptr), -1);
    EXPECT_EQ(report_abnormal_crash(none, 1, "a", nullptr), -1);
    EXPECT_EQ(report_abnormal_crash(names, 0, "a", nullptr), -1);
    EXPECT_EQ(report_abnormal_crash(names, 1, nullptr, nullptr), -1);
    EXPECT_EQ(core_calls(), "");
    EXPECT_EQ(report_abnormal_crash(names, 1, "a", nullptr), 0);
    EXPECT_EQ(report_abnormal_crash(names, 1, "a", nullptr), 0);
    EXPECT_EQ(report_abnormal_crash(names, 1, "b", nullptr), 0);
    EXPECT_EQ(core_calls(), "history; timer 60000; history; history"); /* its timer waits already */
    const uint64_t blocks = live_blocks();
    s_deliveries = 0;
    s_core.last_timer(nullptr, nullptr); /* there is no device: armed again */
    EXPECT_EQ(core_calls(), "timer 60000");
    EXPECT_EQ(s_deliveries, 0);
    EXPECT_EQ(live_blocks(), blocks);
}

/* Before the management side has named a device, constants take its place. */
TEST(test_alarm, without_a_device)
{
    const core_patches patches;
    char module[] = "ma", *names[] = {module};
    const uint64_t blocks = live_blocks();
    json_t *content = build_alarm_content(names, 1, "a", nullptr);
    const json_t *data = json_object_get(content, "data");

    EXPECT_STREQ(json_string_value(json_object_get(data, "deviceId")), "XNI_DEVICE_ID");
    EXPECT_STREQ(json_string_value(json_object_get(data, "appversion")), "16.20.933");
    json_decref(content);
    EXPECT_EQ(live_blocks(), blocks);
}
