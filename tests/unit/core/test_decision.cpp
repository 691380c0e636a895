/* The calls that follow a verdict, in order, and what remains unchanged. */
#include "core_patches.h"

#include <gtest/gtest.h>

#include "bypass_mgr_decision.h"
#include "bypass_mgr_report.h"
#include "bypass_mgr_store.h"
#include "win_event_parse.h"

/* clang-format off */
static const struct decision_row {
    const char *name;
    int32_t kind;
    const char *module; /* on the crashed stack */
    int32_t status;
    int64_t count;
    bool tag, updated;
    const char *calls;
} s_decisions[] = {
    {"clean",                      0, "", 1, 2, true,  true,  "stop; timer 60000; release a"},
    {"clean, bypassed",            0, "", 2, 2, false, false, "stop; timer 60000; release a"},
    {"any other kind",             7, "", 1, 2, false, false, "stop; timer 60000; release a"},
    {"no check",                   1, "", 1, 2, true,  true,  "store {'a':{'count':2,'status':1}}; release a"},
    {"no check, bypassed",         1, "", 2, 2, false, false, "history; timer 60000; store {'a':{'count':2,'status':2}}; release a"},
    {"crash, updated",             2, "ma", 1, 2, true, true, "tag?; tag-; update?; release a"},
    {"crash, updated, bypassed",   2, "x", 2, 2, true,  true, "tag?; tag-; update?; release a"},
    {"crash of others",            2, "x", 1, 2, true,  false, "tag?; tag-; update?; dump?; store {'a':{'count':2,'status':1}}; release a"},
    {"crash of others, bypassed",  2, "x", 2, 2, false, false, "tag?; update?; dump?; history; timer 60000; store {'a':{'count':2,'status':2}}; release a"},
    {"crash",                      2, "ma", 2, 2, false, false, "tag?; update?; dump?; store {'crash_info':{'create_time':'T','module_name':'ma','path':'C:\\\\d'}}; push a {'reason':'ma','type':'bypass'}; push b {'reason':'ma','type':'bypass'}; release a"},
    {"crash of the other product", 2, "mb", 1, 2, false, false, "tag?; update?; dump?; store {'crash_info':{'create_time':'T','module_name':'mb','path':'C:\\\\d'}}; push a {'reason':'mb','type':'bypass'}; push b {'reason':'mb','type':'bypass'}; release a"},
    {"power loss",                 3, "", 1, 2, true,  false, "tag?; tag-; tag?; update?; push a {'count':1,'reason':'none','type':'set_count'}; store {'a':{'count':1,'status':1}}; release a"},
    {"power loss, initializing",   3, "", 3, 2, false, false, "tag?; tag?; update?; push a {'count':1,'reason':'none','type':'set_count'}; store {'a':{'count':1,'status':3}}; release a"},
    {"power loss, count 1",        3, "", 1, 1, true,  false, "tag?; tag-; release a"},
    {"power loss, updated",        3, "", 1, 2, true,  true,  "tag?; tag-; tag?; update?; store {'a':{'count':2,'status':1}}; release a"},
    {"power loss, bypassed",       3, "", 2, 2, true,  true,  "tag?; tag-; history; timer 60000; store {'a':{'count':2,'status':2}}; release a"},
};
/* clang-format on */

/* Local times differ from machine to machine. */
static std::string without_time(std::string calls)
{
    const std::string key = "'create_time':'";
    const size_t at = calls.find(key);

    if (at != std::string::npos)
        calls.replace(at + key.size(), strlen("1970-01-01 00:00:00"), "T");
    return calls;
}

TEST(test_decision, calls_in_order)
{
    for (const decision_row &row : s_decisions) {
        SCOPED_TRACE(row.name);
        const core_patches patches;
        struct suber_set *record = core_product(0, row.status, row.count);
        crash_module_set modules;

        core_product(1, STATUS_WORKING, 5);
        if (row.module[0] != '\0')
            modules.emplace(row.module);
        s_core.tag = row.tag;
        s_core.updated = row.updated;
        EXPECT_EQ(bypass_mgr_check_cb(row.kind, modules, "C:\\d", {}, core_subscriber(0)), 0);
        EXPECT_EQ(without_time(core_calls()), row.calls);
        EXPECT_EQ(record->parsed, 1);
        EXPECT_EQ(record->status, row.status);
        EXPECT_EQ(bypass_mgr_table_find(core_subscriber(1))->parsed, 0);
    }
}

/* A crash in an unregistered module is kept in the product's record and is not stored. */
TEST(test_decision, crash_of_others)
{
    const core_patches patches;
    struct suber_set *record = core_product(0, STATUS_WORKING, 2);
    struct crash_info stored = {"before", "", ""};

    strcpy(record->crash.crash_module, "left over");
    (void)bypass_mgr_check_cb(2, {"x"}, "C:\\d", {}, core_subscriber(0));
    EXPECT_STREQ(record->crash.crash_path, "C:\\d");
    EXPECT_STREQ(record->crash.crash_module, "");
    EXPECT_EQ(bypass_mgr_stored_crash(&stored), -1);
    EXPECT_STREQ(stored.crash_path, "before");
}

TEST(test_decision, unregistered)
{
    const core_patches patches;

    (void)bypass_mgr_check_cb(2, {"ma"}, "C:\\d", {}, core_subscriber(0));
    EXPECT_EQ(core_calls(), "release a");
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
