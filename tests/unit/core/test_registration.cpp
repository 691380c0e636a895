/* Messages of products, and the registration of the platform's own drivers. */
#include "core_patches.h"

#include <gtest/gtest.h>

#include "bypass_mgr_registry.h"
#include "bypass_mgr_store.h"
#include "bypass_subscriber.h"
#include "unit_support.h"

static int32_t send_message(const char *type, const char *status, int64_t count)
{
    json_t *message =
        core_json(std::string("{'product_name':'a','type':'") + type + "','status':'" + status +
                  "','count':" + std::to_string(count) + ",'data':{'driver_module':['ma']}}");
    const int32_t result = bypass_mgr_receive(core_subscriber(0), message);

    json_decref(message);
    return result;
}

/* Even when the order does not reach it, or cannot be built. */
TEST(test_registration, an_ordered_product_counts_as_examined)
{
    const core_patches patches;
    int32_t result;

    bypass_mgr_store_crash("C:\\d", "then", "mx");
    core_calls();
    EXPECT_EQ(send_message("reg", "working", 3), 0);
    EXPECT_EQ(core_calls(), "history; push a {'reason':'mx','type':'bypass'}");
    EXPECT_EQ(bypass_mgr_table_find(core_subscriber(0))->parsed, 1);
    bypass_mgr_table_delete(core_subscriber(0));
    each_allocation_fails([&] { result = send_message("reg", "working", 3); },
                          [&](bool, uint64_t) {
                              EXPECT_TRUE(result != 0 ||
                                          bypass_mgr_table_find(core_subscriber(0))->parsed == 1);
                              bypass_mgr_table_delete(core_subscriber(0));
                          });
}

/* Whichever allocation fails, a product is registered as a whole or not at all, without a leak. */
TEST(test_registration, memory)
{
    const core_patches patches;
    json_t *message = core_json("{'product_name':'a','type':'reg','status':'working',"
                                "'data':{'driver_module':['ma','mb']}}");
    int32_t result;

    log_forget();
    each_allocation_fails([&] { result = bypass_mgr_receive(core_subscriber(0), message); },
                          [&](bool, uint64_t left) {
                              const struct suber_set *record =
                                  bypass_mgr_table_find(core_subscriber(0));
                              EXPECT_TRUE(result == 0 || left == 0);
                              EXPECT_EQ(record != nullptr, result == 0);
                              if (record != nullptr) {
                                  EXPECT_STREQ(record->product_name, "a");
                                  EXPECT_EQ(oxni_xhash_count(record->driver_modules), 2u);
                              }
                              bypass_mgr_table_delete(core_subscriber(0));
                              bypass_mgr_store_load(5);
                          });
    EXPECT_TRUE(log_contains("expr[msg] false! Parsing JSON failed!"));
    json_decref(message);
}

static int take_registration(oxni_subscriber *, const char *, json_t *message, oxni_subscriber_fn)
{
    for (const char *member : {"product_name", "type", "status", "count", "data"})
        EXPECT_NE(json_object_get(message, member), nullptr) << member;
    const json_t *modules = json_object_get(json_object_get(message, "data"), "driver_module");
    EXPECT_EQ(json_array_size(modules), 5u);
    s_core.calls.push_back("subscribe");
    return 0;
}

/* An incomplete registration is not sent. */
TEST(test_bypass_subscriber, memory)
{
    const core_patches patches;
    const import_patch subscribe("oxni_subscriber_subscribe", take_registration);
    const import_patch create("oxni_subscriber_new", [](const oxni_subscriber_attr *attr) {
        EXPECT_EQ(attr->reserved, nullptr);
        return core_subscriber(3);
    });
    bool incomplete = false;

    each_allocation_fails(
        [] { EXPECT_EQ(bypass_subscriber_init(), 0); },
        [&](bool, uint64_t left) {
            const bool logged =
                log_contains("registration of XNI failed, message(0) subscriber(1)");
            EXPECT_TRUE(!logged || left == 0);
            EXPECT_EQ(core_calls(), logged ? "timer 1800000" : "timer 1800000; subscribe");
            incomplete |= logged;
            log_forget();
        });
    EXPECT_TRUE(incomplete);
}

TEST(test_registration, results)
{
    const core_patches patches;
    json_t *message = core_json("{'product_name':'a','type':'conflict','status':'working'}");

    EXPECT_EQ(send_message("modify", "bypass", 1), 0);
    EXPECT_EQ(bypass_mgr_receive(nullptr, message), -1);
    EXPECT_EQ(bypass_mgr_receive(core_subscriber(0), nullptr), -1);
    EXPECT_EQ(bypass_mgr_receive(core_subscriber(0), message), 0);
    EXPECT_EQ(bypass_mgr_receive(core_subscriber(0), json_object_get(message, "type")), 0);
    EXPECT_EQ(bypass_mgr_table_find(core_subscriber(0)), nullptr);
    EXPECT_EQ(send_message("reg", "bypass", 1), 0);
    EXPECT_EQ(send_message("reg", "bypass", 2), -1);
    EXPECT_EQ(bypass_mgr_table_find(core_subscriber(0))->count, 1);
    json_decref(message);
}
