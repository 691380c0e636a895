/* Commands to products: messages, and what a reply changes. */
#include "core_patches.h"

#include <gtest/gtest.h>

#include <oxni/base/memory.h>

#include "bypass_mgr_command.h"
#include "unit_support.h"

/* clang-format off */
static const struct command_row {
    const char *name, *type, *reason;
    int32_t error;
    const char *message;
    int32_t status, recover_sent, parsed; /* after the reply; before: 1, 0, 0, without a type 1, 1, 0 */
    const char *calls;                    /* of the reply */
} s_commands[] = {
    {"bypass",        "bypass",    "m",  0, "{'reason':'m','type':'bypass'}", 2, 0, 1, "history; timer 60000; store {'a':{'count':3,'status':2}}"},
    {"no type",       nullptr,        nullptr, 0, "{'reason':'none','type':'bypass'}", 2, 1, 1, "history; timer 60000; store {'a':{'count':3,'status':2}}"},
    {"recover",       "recover",   nullptr, 0, "{'reason':'none','type':'recover'}", 1, 1, 0, ""},
    {"set_count",     "set_count", nullptr, 0, "{'count':7,'reason':'none','type':'set_count'}", 1, 0, 0, ""},
    {"another",       "Bypass",    nullptr, 0, "{'reason':'none','type':'Bypass'}", 1, 0, 0, ""},
    {"bypass fails",  "bypass",    "m",  5, "{'reason':'m','type':'bypass'}", 1, 0, 0, ""},
    {"recover fails", "recover",   nullptr, 5, "{'reason':'none','type':'recover'}", 1, 0, 0, ""},
};
/* clang-format on */

TEST(test_command, messages_and_replies)
{
    for (const command_row &row : s_commands) {
        SCOPED_TRACE(row.name);
        const core_patches patches;
        struct suber_set *record = core_product(0, STATUS_WORKING, 3);
        const struct bypass_cmd request = {row.type, row.reason, 7};

        record->recover_sent = row.type == nullptr;
        record->crash = {"of", "another", "blame"}; /* it stays while the store has none */
        EXPECT_EQ(bypass_mgr_send(core_subscriber(0), &request), 0);
        EXPECT_EQ(core_calls(), std::string("push a ") + row.message);
        s_core.reply(row.error, s_core.cookie, s_core.pushed_to, nullptr);
        s_core.cookie = nullptr;
        EXPECT_EQ(core_calls(), row.calls);
        EXPECT_EQ(record->status, row.status);
        EXPECT_EQ(record->recover_sent, row.recover_sent);
        EXPECT_EQ(record->parsed, row.parsed);
        EXPECT_EQ(record->count, 3);
        EXPECT_STREQ(record->crash.crash_module, "blame");
    }
}

/* Without a registered subscriber nothing is sent, and a late reply changes nothing. */
TEST(test_command, unregistered)
{
    const core_patches patches;
    const struct bypass_cmd request = {"bypass", "m", 0};
    int32_t kind = 1;

    log_forget();
    EXPECT_EQ(bypass_mgr_send(nullptr, &request), -1);
    EXPECT_TRUE(log_contains("invalid parameter"));
    log_forget();
    EXPECT_EQ(bypass_mgr_send(core_subscriber(0), &request), 0);
    EXPECT_TRUE(log_contains("The subscriber may have lost contact"));
    EXPECT_EQ(core_calls(), "");
    core_product(0, STATUS_WORKING, 3);
    log_forget();
    (void)bypass_mgr_send(core_subscriber(0), &request);
    core_calls();
    s_core.reply(0, nullptr, core_subscriber(0), nullptr);
    s_core.reply(0, &kind, nullptr, nullptr);
    bypass_mgr_table_delete(core_subscriber(0));
    s_core.reply(0, s_core.cookie, core_subscriber(0), nullptr);
    EXPECT_EQ(core_calls(), "");
    EXPECT_TRUE(log_contains("The subscriber may have lost contact"));
    s_core.cookie = oxni_zero_malloc_(sizeof(int32_t));
    s_core.reply(5, s_core.cookie, core_subscriber(0), nullptr);
    s_core.cookie = nullptr;
    EXPECT_TRUE(log_contains("Sending notification failed, type(0), ns(space), name(a), error(5)"));
}

/* A delivered "bypass" is stored although its report lacks memory; a recovery that lacks it keeps no
 * other product from its own. */
TEST(test_command, one_lacks_memory)
{
    const core_patches patches;
    const struct bypass_cmd request = {"bypass", "m", 0};

    core_product(0, STATUS_WORKING, 3);
    (void)bypass_mgr_send(core_subscriber(0), &request);
    core_calls();
    while_failing(1, [] { s_core.reply(0, s_core.cookie, s_core.pushed_to, nullptr); });
    s_core.cookie = nullptr;
    EXPECT_EQ(core_calls(), "store {'a':{'count':3,'status':2}}");
    core_product(1, STATUS_BYPASS, 3)->parsed = 1;
    while_failing(1, bypass_mgr_send_recovery);
    EXPECT_EQ(core_calls(), "push b {'reason':'none','type':'recover'}");
}

/* Whichever allocation fails, the result shows whether the command was sent; only the reason of one
 * that was sent may be missing. */
TEST(test_command, memory)
{
    const core_patches patches;
    const struct bypass_cmd request = {"set_count", "m", 7};
    bool refused = false, without_reason = false;
    int result;

    core_product(0, STATUS_WORKING, 3);
    each_allocation_fails([&] { result = bypass_mgr_send(core_subscriber(0), &request); },
                          [&](bool, uint64_t left) {
                              const std::string calls = core_calls();
                              EXPECT_EQ(result, calls.empty() ? -1 : 0);
                              EXPECT_TRUE(result == 0 || left == 0);
                              refused |= result != 0;
                              without_reason |=
                                  calls == "push a {'count':7,'reason':'none','type':'set_count'}";
                              /* The text of what was sent may itself lack memory. */
                              EXPECT_TRUE(calls.empty() || calls == "push a nothing" ||
                                          calls.find("'count':7") != std::string::npos)
                                  << calls;
                          });
    EXPECT_TRUE(refused && without_reason);
}
