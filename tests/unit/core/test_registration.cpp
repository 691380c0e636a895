/* Messages of products: what each is compared with, which calls follow, and in which order. */
#include "core_patches.h"

#include <gtest/gtest.h>

#include "bypass_mgr.h"
#include "bypass_mgr_registry.h"
#include "bypass_mgr_store.h"
#include "bypass_subscriber.h"
#include "unit_support.h"

static constexpr uint32_t TEN_DAYS = 864000u;
#define CRASH  "'crash_info':{'path':'C:\\\\d','create_time':'then','module_name':'mx'}"
#define SET_1  "push a {'count':1,'reason':'none','type':'set_count'}"
#define BYPASS "push a {'reason':'mx','type':'bypass'}"

/* clang-format off */
static const struct registration_row {
    const char *name, *data; /* the store's, without braces */
    const char *status;
    int64_t count;
    uint64_t uptime;
    bool updated;
    const char *calls;
    int64_t count_after;
    int32_t parsed;
} s_registrations[] = {
    {"unknown",                 "", "working",      3, 1, false, "history; timer 30000", 3, 0},
    {"unknown, bypassed",       "", "bypass",       3, 1, false, "timer 30000", 3, 0},
    {"unknown after a crash",   CRASH, "working",   3, 1, false, "history; " BYPASS, 3, 1},
    {"the same",                "'a':{'count':3,'status':1}", "working", 3, 1, true, "history", 3, 1},
    {"known after a crash",     "'a':{'count':3,'status':1}," CRASH, "working", 5, 1, false, "history; " BYPASS, 5, 1},
    {"its state wins",          "'a':{'count':3,'status':2}," CRASH, "working", 5, 1, false, "history; store {'a':{'count':5,'status':1},'crash_info':{'create_time':'then','module_name':'mx','path':'C:\\\\d'}}", 5, 0},
    {"higher",                  "'a':{'count':3,'status':1}", "working", 5, 1, false, "history; update?; push a {'count':3,'reason':'none','type':'set_count'}", 3, 1},
    {"lower",                   "'a':{'count':3,'status':1}", "working", 2, 1, false, "history; update?; store {'a':{'count':2,'status':1}}", 2, 1},
    {"higher, updated",         "'a':{'count':3,'status':1}", "working", 5, 1, true,  "history; update?", 5, 1},
    {"lower, updated",          "'a':{'count':3,'status':1}", "working", 2, 1, true,  "history; update?", 2, 1},
    {"higher, bypassed",        "'a':{'count':3,'status':2}", "bypass",  5, 1, false, "update?; history; timer 60000", 5, 1},
    {"lower, bypassed",         "'a':{'count':3,'status':2}", "bypass",  2, 1, false, "update?; history; timer 60000", 2, 1},
    {"higher, bypassed, update","'a':{'count':3,'status':2}", "bypass",  5, 1, true,  "update?", 5, 1},
    {"count 0 is known",        "'a':{'count':0,'status':1}", "working", 0, 1, false, "history", 0, 1},
    {"late",                    "", "working", 2, TEN_DAYS,     false, "history; store {'a':{'count':1,'status':1}}; " SET_1, 1, 1},
    {"late, initializing",      "", "initializing", 9, TEN_DAYS, false, "store {'a':{'count':1,'status':3}}; " SET_1, 1, 1},
    {"a second before",         "", "working", 2, TEN_DAYS - 1, false, "history; timer 30000", 2, 0},
    {"late, count 1",           "", "working", 1, TEN_DAYS,     false, "history; timer 30000", 1, 0},
    {"late, bypassed",          "", "bypass",  9, TEN_DAYS,     false, "timer 30000", 9, 0},
};
/* clang-format on */

static int32_t send_message(const char *type, const char *status, int64_t count)
{
    json_t *message =
        core_json(std::string("{'product_name':'a','type':'") + type + "','status':'" + status +
                  "','count':" + std::to_string(count) + ",'data':{'driver_module':['ma']}}");
    const int32_t result = bypass_mgr_receive(core_subscriber(0), message);

    json_decref(message);
    return result;
}

TEST(test_registration, calls_in_order)
{
    for (const registration_row &row : s_registrations) {
        SCOPED_TRACE(row.name);
        const core_patches patches;

        s_core.document = core_json(std::string("{'start_time':9,'data':{") + row.data + "}}");
        bypass_mgr_store_load(9);
        s_core.uptime_seconds = row.uptime;
        s_core.updated = row.updated;
        EXPECT_EQ(send_message("reg", row.status, row.count), 0);
        EXPECT_EQ(core_calls(), row.calls);
        const struct suber_set *record = bypass_mgr_table_find(core_subscriber(0));
        EXPECT_EQ(record->count, row.count_after);
        EXPECT_EQ(record->parsed, row.parsed);
    }
}

/* Whichever allocation fails, a product is registered as a whole or not at all, without a leak. */
TEST(test_registration, memory)
{
    bool reached = true, parsing_failed = false;

    for (uint64_t nth = 1; nth < 100 && reached; nth++) {
        SCOPED_TRACE(nth);
        const core_patches patches;
        json_t *message = core_json("{'product_name':'a','type':'reg','status':'working',"
                                    "'data':{'driver_module':['ma','mb']}}");
        const uint64_t blocks = live_blocks();
        int32_t result;

        log_forget();
        reached =
            while_failing(nth, [&] { result = bypass_mgr_receive(core_subscriber(0), message); });
        EXPECT_TRUE(result == 0 || live_blocks() == blocks);
        const struct suber_set *record = bypass_mgr_table_find(core_subscriber(0));
        EXPECT_EQ(record != nullptr, result == 0);
        parsing_failed |= log_contains("expr[msg] false! Parsing JSON failed!");
        if (record != nullptr) {
            EXPECT_STREQ(record->product_name, "a");
            EXPECT_EQ(oxni_xhash_count(record->driver_modules), 2u);
        }
        json_decref(message);
    }
    EXPECT_FALSE(reached);
    EXPECT_TRUE(parsing_failed);
}

static int take_registration(oxni_subscriber *, const char *, json_t *message, oxni_subscriber_fn)
{
    static const char *const s_members[] = {"product_name", "type", "status", "count", "data"};

    for (const char *member : s_members)
        EXPECT_NE(json_object_get(message, member), nullptr) << member;
    const json_t *modules = json_object_get(json_object_get(message, "data"), "driver_module");
    EXPECT_EQ(json_array_size(modules), 5u);
    s_core.calls.push_back("subscribe");
    return 0;
}

static oxni_subscriber *new_subscriber(const oxni_subscriber_attr *)
{
    return core_subscriber(3);
}

/* An incomplete registration is not sent. */
TEST(test_bypass_subscriber, memory)
{
    const core_patches patches;
    import_patch subscribe("oxni_subscriber_subscribe", take_registration),
        create("oxni_subscriber_new", new_subscriber);
    bool reached = true, failed = false;

    for (uint64_t nth = 1; nth < 100 && reached; nth++) {
        SCOPED_TRACE(nth);
        log_forget();
        s_core.calls.clear();
        reached = while_failing(nth, [&] { EXPECT_EQ(bypass_subscriber_init(), 0); });
        const bool logged = log_contains("registration of XNI failed, message(0) subscriber(1)");
        EXPECT_EQ(core_calls(), logged ? "timer 1800000" : "timer 1800000; subscribe");
        failed |= logged;
    }
    EXPECT_FALSE(reached);
    EXPECT_TRUE(failed);
}

TEST(test_registration, results)
{
    const core_patches patches;
    json_t *message = core_json("{'product_name':'a','type':'conflict','status':'working'}");

    EXPECT_EQ(send_message("modify", "bypass", 1), 0);
    EXPECT_EQ(bypass_mgr_receive(nullptr, message), -1);
    EXPECT_EQ(bypass_mgr_receive(core_subscriber(0), nullptr), -1);
    EXPECT_EQ(bypass_mgr_receive(core_subscriber(0), message), 0);
    EXPECT_EQ(bypass_mgr_table_find(core_subscriber(0)), nullptr);
    EXPECT_EQ(send_message("reg", "bypass", 1), 0);
    EXPECT_EQ(send_message("reg", "bypass", 2), -1);
    EXPECT_EQ(bypass_mgr_table_find(core_subscriber(0))->count, 1);
    json_decref(message);
}
