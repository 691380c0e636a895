/* The store's document with odd content; the recovery tag that cannot be reached. */
#include "core_patches.h"

#include <gtest/gtest.h>

#include "bypass_mgr_store.h"
#include "liboxnibase/host.h"
#include "recover_tag.h"
#include "report_pending.h"
#include "unit_support.h"

#define CRASH "'crash_info':{'path':'C:\\\\d','create_time':'then','module_name':'mx'}"

TEST(test_store, odd_content)
{
    /* clang-format off */
    static const struct {
        const char *data;
        int64_t count;
        int32_t status;
        bool crash;
    } s_rows[] = {
        {"'a':{'count':3,'status':3}", 3, 3, false},
        {"'a':{'count':-2,'status':1}", -2, 1, false},
        {"'a':{'count':'3','status':'1'}", -1, 0, false},
        {"'a':{'count':3.0,'status':2.0}", -1, 0, false},
        {"'a':{'count':3}", 3, 0, false},
        {"'a':{'count':3,'status':4}", 3, 0, false},
        {"'a':{'count':3,'status':0}", 3, 0, false},
        {"'a':{'count':3,'status':-1}", 3, 0, false},
        {"'a':{'count':3,'status':4294967297}", 3, 0, false},
        {"'a':[3,1]", -1, 0, false},
        {"'a':{}", -1, 0, false},
        {"'A':{'count':3,'status':1}", -1, 0, false},
        {CRASH, -1, 0, true},
        {"'crash_info':{'path':'p','create_time':'t'}", -1, 0, false},
        {"'crash_info':{'path':'p','module_name':'m'}", -1, 0, false},
        {"'crash_info':{'create_time':'t','module_name':'m'}", -1, 0, false},
        {"'crash_info':{'path':'p','create_time':5,'module_name':'m'}", -1, 0, false},
        {"'crash_info':{'path':'','create_time':'','module_name':''}", -1, 0, true},
        {"'crash_info':['p','t','m']", -1, 0, false},
    };
    /* clang-format on */

    for (const auto &row : s_rows) {
        SCOPED_TRACE(row.data);
        const core_patches patches;
        struct crash_info crash = {"before", "before", "before"};

        s_core.document = core_json(std::string("{'start_time':9,'data':{") + row.data + "}}");
        bypass_mgr_store_load(9);
        EXPECT_EQ(bypass_mgr_stored_count("a"), row.count);
        EXPECT_EQ(bypass_mgr_stored_status("a"), row.status);
        EXPECT_EQ(bypass_mgr_stored_crash(&crash), row.crash ? 0 : -1);
        EXPECT_EQ(strcmp(crash.crash_path, "before") == 0, !row.crash);
        EXPECT_EQ(strcmp(crash.crash_module, "before") == 0, !row.crash);
        EXPECT_EQ(core_calls(), "");
    }
}

/* A valid document that is no object is as none. */
TEST(test_store, no_object)
{
    for (const char *content : {"[{'start_time':9}]", "[]"}) {
        SCOPED_TRACE(content);
        const core_patches patches;
        struct crash_info crash = {};

        s_core.document = core_json(content);
        bypass_mgr_store_load(9);
        bypass_mgr_store_crash("path", "then", "m");
        EXPECT_EQ(bypass_mgr_stored_crash(&crash), 0);
        EXPECT_STREQ(crash.crash_module, "m");
    }
}

/* Texts that are too long for a record keep what fits, there and in a report. */
TEST(test_store, long_texts)
{
    const core_patches patches;
    const std::string text(300, 'x');
    struct crash_info crash = {};
    char module[] = "ma", *names[] = {module};

    bypass_mgr_store_crash(text.c_str(), text.c_str(), text.c_str());
    ASSERT_EQ(bypass_mgr_stored_crash(&crash), 0);
    drv_info_add(names, 1, "a", &crash);
    for (auto at = report_pending_first(); at != nullptr; at = report_pending_next(at))
        for (const crash_info *of : {&crash, static_cast<drv_info *>(at->value)->crash_info}) {
            EXPECT_EQ(of->crash_path, text.substr(41));
            EXPECT_EQ(of->crash_create_time, text.substr(41));
            EXPECT_EQ(of->crash_module, text.substr(41));
        }
}

/* A crash record replaces another one as a whole or not at all. */
TEST(test_store, crash_without_memory)
{
    const core_patches patches;
    struct crash_info crash = {};

    bypass_mgr_store_load(9);
    bypass_mgr_store_crash("old", "then", "m");
    each_allocation_fails([] { bypass_mgr_store_crash("new", "now", "n"); },
                          [&](bool, uint64_t) {
                              ASSERT_EQ(bypass_mgr_stored_crash(&crash), 0);
                              EXPECT_STREQ(crash.crash_module,
                                           strcmp(crash.crash_path, "new") == 0 ? "n" : "m");
                              bypass_mgr_store_crash("old", "then", "m");
                          });
}

/* A start time that memory was too short for comes with the next change. */
TEST(test_store, start_time_without_memory)
{
    const core_patches patches;

    s_core.document = core_json("{'data':{}}");
    each_allocation_fails(
        [] {
            log_forget();
            bypass_mgr_store_load(9);
        },
        [](bool, uint64_t) {
            EXPECT_NE(log_contains("Malloc memory failure"),
                      json_object_get(s_core.document, "start_time") != nullptr);
            bypass_mgr_store_crash("path", "then", "m");
            EXPECT_EQ(json_integer_value(json_object_get(s_core.document, "start_time")), 9);
            EXPECT_EQ(json_object_del(s_core.document, "start_time"), 0);
        });
    each_allocation_fails(
        [] {
            json_object_clear(s_core.document);
            bypass_mgr_store_crash("path", "then", "m");
        },
        [](bool, uint64_t) { /* data without a start time would be of no boot */
                             EXPECT_TRUE(
                                 json_object_get(s_core.document, "start_time") != nullptr ||
                                 json_object_size(json_object_get(s_core.document, "data")) == 0);
        });
}

/* Another initialisation frees the document of the one before. */
TEST(test_store, loaded_again)
{
    const core_patches patches;

    bypass_mgr_store_load(9);
    const uint64_t blocks = live_blocks();
    bypass_mgr_store_load(9);
    EXPECT_EQ(live_blocks(), blocks);
}

TEST(test_recover_tag, results)
{
    const core_patches patches;

    EXPECT_EQ(recover_tag_write(), -1);
    EXPECT_FALSE(recover_tag_check());
    s_core.tag = true;
    EXPECT_FALSE(recover_tag_check());
    EXPECT_EQ(core_calls(), "tag=; tag?; tag?; tag=");
    recover_tag_delete();
    EXPECT_EQ(core_calls(), "tag?; tag-");
    oxnih_set_log_dir(nullptr);
    log_forget();
    recover_tag_delete();
    EXPECT_TRUE(log_contains("Failed to retrieve recovery tag path!"));
    log_forget();
    EXPECT_FALSE(recover_tag_check());
    EXPECT_TRUE(log_contains("get log dir is error")); /* each time */
    EXPECT_TRUE(log_contains("Failed to retrieve recovery tag path!"));
    EXPECT_EQ(recover_tag_write(), -1);
    EXPECT_EQ(core_calls(), "");
}
