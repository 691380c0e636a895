/* Reports and alarms: what they hold, and what is left when memory runs out; guards that no host reaches
 * in order: missing names, calls of Windows that fail at odd moments. */
#include "core_patches.h"

#include <gtest/gtest.h>

#include <oxni/base/debug_console.h>
#include <oxni/base/log.h>
#include <oxni/base/memory.h>
#include <oxni/base/resource.h>

#include "bypass_mgr.h"
#include "bypass_mgr_command.h"
#include "bypass_mgr_debug.h"
#include "bypass_mgr_decision.h"
#include "bypass_mgr_registry.h"
#include "bypass_mgr_report.h"
#include "bypass_mgr_store.h"
#include "crash_dump.h"
#include "liboxnibase/host.h"
#include "report_abnormal_crash.h"
#include "report_alarm.h"
#include "report_history.h"
#include "report_link.h"
#include "report_pending.h"
#include "time_text.h"
#include "unit_support.h"
#include "win_event_parse.h"

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

/* A report and what it owns; whichever of its six allocations fails, nothing of it leaks. */
TEST(test_report_pending, memory)
{
    const core_patches patches;
    const struct crash_info crash = {"C:\\d", "then", "ma"}, no_dump = {};
    char first[] = "ma", second[] = "mb", *names[] = {first, second};
    const uint64_t blocks = live_blocks();

    each_allocation_fails([&] { drv_info_add(names, 2, "a", &crash); },
                          [&](bool failed, uint64_t left) {
                              EXPECT_EQ(report_pending_has("a"), !failed);
                              EXPECT_EQ(left == 0, failed);
                          });
    for (const struct crash_info *given :
         {&crash, &no_dump, static_cast<const struct crash_info *>(nullptr)}) {
        drv_info_add(names, 2, "a", given);
        EXPECT_TRUE(report_pending_has("a"));
        drv_info_add(names, 1, "a", given); /* the first one stays */
        for (auto at = report_pending_first(); at != nullptr; at = report_pending_next(at)) {
            EXPECT_EQ(static_cast<drv_info *>(at->value)->driver_count, 2);
            EXPECT_EQ(static_cast<drv_info *>(at->value)->crash_info != nullptr, given != nullptr);
        }
        report_forget("a");
        EXPECT_FALSE(report_pending_has("a"));
        EXPECT_EQ(live_blocks(), blocks);
    }
}

/* The upload of a report that the host refuses gives everything back. */
TEST(test_report_abnormal_crash, results)
{
    static int s_deliveries;
    const core_patches patches;
    const import_patch deliver(
        "oxni_res_deliver", [](const char *, json_t *request, void *, oxni_res_reply_fn, unsigned) {
            s_deliveries++;
            json_decref(request); /* taken over all the same */
            return -1;
        });
    char module[] = "" /* is a name, too */, *names[] = {module}, *none[] = {nullptr};

    EXPECT_EQ(report_abnormal_crash(nullptr, 1, "a", nullptr), -1);
    EXPECT_EQ(report_abnormal_crash(none, 1, "a", nullptr), -1);
    EXPECT_EQ(report_abnormal_crash(names, 0, "a", nullptr), -1);
    EXPECT_EQ(report_abnormal_crash(names, 1, nullptr, nullptr), -1);
    EXPECT_EQ(core_calls(), "");
    for (const char *name : {"a", "a", "b"})
        EXPECT_EQ(report_abnormal_crash(names, 1, name, nullptr), 0);
    EXPECT_EQ(core_calls(), "history; timer 60000; history; history"); /* its timer waits already */
    const uint64_t blocks = live_blocks();
    s_core.last_timer(nullptr, nullptr); /* there is no device: armed again */
    EXPECT_EQ(core_calls(), "timer 60000");
    EXPECT_EQ(s_deliveries, 0);
    EXPECT_EQ(live_blocks(), blocks);
    /* One that cannot be kept starts the timer, too. */
    *report_link_timer_slot() = 0;
    while_failing(1, [&] { (void)report_abnormal_crash(names, 1, "c", nullptr); });
    EXPECT_EQ(core_calls(), "history; timer 60000");
}

/* Before the management side has named a device, constants take its place. The time needs more than
 * 31 bits. */
TEST(test_alarm, without_a_device)
{
    const core_patches patches;
    const import_patch time("oxni_time", []() -> int64_t { return 4102444800; });
    char module[] = "ma", *names[] = {module};
    const uint64_t blocks = live_blocks();
    json_t *content = build_alarm_content(names, 1, "a", nullptr);
    const json_t *data = json_object_get(content, "data");

    EXPECT_STREQ(json_string_value(json_object_get(data, "deviceId")), "XNI_DEVICE_ID");
    EXPECT_STREQ(json_string_value(json_object_get(data, "appversion")), "16.20.933");
    EXPECT_EQ(json_integer_value(json_object_get(data, "recordTimestamp")), 4102444800);
    EXPECT_NE(strstr(json_string_value(json_object_get(data, "alarmResultDetail")), "\": \"2"),
              nullptr);
    json_decref(content);
    EXPECT_EQ(live_blocks(), blocks);

    /* The first device of today's table, not of an earlier initialisation's. */
    report_link_watch();
    s_core.link("path", 1);
    for (const std::string id : {"d1", "d2"}) {
        s_core.answer(
            0, (R"({"total": 1, "info": [{"product": "x", "device_id": ")" + id + "\"}]}").c_str());
        content = build_alarm_content(names, 1, "a", nullptr);
        EXPECT_EQ(json_string_value(json_object_get(json_object_get(content, "data"), "deviceId")),
                  id);
        json_decref(content);
        report_link_create();
    }
    s_core.link("path", 0);
}

/* Nothing is called, and the product that is registered remains. */
TEST(test_guards, missing_arguments)
{
    const core_patches patches;
    const import_patch echo("oxni_dbg_echo", [](oxni_dbg_context *, int, const char *) {
        ADD_FAILURE() << "nothing is to be printed";
    });
    char word[] = "other", option[] = "-r", *arguments[] = {word, option};

    EXPECT_EQ(bypass_mgr_init(), 0);
    core_product(0, STATUS_BYPASS, 3);
    core_calls();
    log_forget();
    suber_set_free(nullptr);
    EXPECT_TRUE(log_contains("suber_set is NULL"));
    bypass_mgr_unsubscribe(nullptr);
    s_core.install_second();
    report_forget(nullptr);
    EXPECT_FALSE(upload_history_need_report(nullptr));
    EXPECT_FALSE(upload_history_save(nullptr));
    EXPECT_FALSE(upload_history_delete(nullptr));
    bypass_mgr_dbg_cmd(2, arguments, nullptr);
    EXPECT_EQ(core_calls(), "");
    EXPECT_NE(bypass_mgr_table_find(core_subscriber(0)), nullptr);
}

/* A product and a handle without names have empty ones in log lines, and no entry in the store. */
TEST(test_guards, missing_names)
{
    const core_patches patches;
    const struct bypass_cmd request = {"bypass", "m", 0};
    const uint64_t blocks = live_blocks();
    struct suber_set *record = core_product(0, STATUS_BYPASS, 3);

    oxni_free_(record->product_name);
    record->product_name = nullptr;
    s_core.nameless = true;
    log_forget();
    (void)bypass_mgr_check_cb(3, {}, "", {}, core_subscriber(0));
    EXPECT_TRUE(log_contains("The product () has already passed"));
    EXPECT_FALSE(log_contains("Malloc memory failure"));
    EXPECT_EQ(core_calls(), "tag?; store {}; release a");
    for (const int32_t error : {5, 0}) {
        (void)bypass_mgr_send(core_subscriber(0), &request);
        s_core.reply(error, s_core.cookie, s_core.pushed_to, nullptr);
        s_core.cookie = nullptr;
    }
    EXPECT_TRUE(log_contains("Successfully send bypass command, ns(), name()"));
    bypass_mgr_unsubscribe(core_subscriber(0));
    EXPECT_TRUE(log_contains("bypass_mgr subscriber ns() name :  unsubscribe!"));
    EXPECT_EQ(live_blocks(), blocks);
}

/* A dump whose creation time cannot be read has the time 0. */
TEST(test_guards, creation_time_of_a_dump)
{
    const core_patches patches;
    const import_patch open("CreateFileA",
                            [](const char *, DWORD, DWORD, LPSECURITY_ATTRIBUTES, DWORD, DWORD,
                               HANDLE) -> HANDLE { return &s_core; });
    const import_patch times("GetFileTime");
    static int s_closed;
    const import_patch close("CloseHandle", [](HANDLE) -> BOOL { return ++s_closed; });

    core_product(0, STATUS_WORKING, 2);
    log_forget();
    (void)bypass_mgr_check_cb(2, {"ma"}, "C:\\d", {}, core_subscriber(0));
    EXPECT_EQ(s_closed, 1);
    EXPECT_TRUE(log_contains("Failed to GetFileTime [C:\\d]"));
    const std::string calls = core_calls();
    char text[TIME_TEXT_CHARS];

    time_text_local(0, text, sizeof(text));
    EXPECT_NE(calls.find("'module_name':'ma'"), std::string::npos) << calls;
    EXPECT_NE(calls.find(std::string("'create_time':'") + text + "'"), std::string::npos) << calls;
}

static std::vector<DWORD> s_expanded; /* results of the next calls, the last one first */

TEST(test_guards, calls_of_windows)
{
    const import_patch information("GetFileInformationByHandle");
    const import_patch expand("ExpandEnvironmentStringsW", [](const wchar_t *, wchar_t *, DWORD) {
        const DWORD chars = s_expanded.back();

        s_expanded.pop_back();
        return chars;
    });
    const temporary_folder folder;
    const std::wstring path = folder.file(L"d.dmp");
    uint64_t time = 7;
    event_info info = {};

    EXPECT_EQ(get_file_write_time(path.c_str(), &time), static_cast<uint32_t>(ERROR_ACCESS_DENIED));
    EXPECT_EQ(time, 7u);
    EXPECT_TRUE(log_contains("d.dmp information failed 5."));
    log_forget();
    EXPECT_FALSE(is_file_updated_since_boot(path.c_str()));
    EXPECT_TRUE(log_contains("d.dmp information failed 5."));
    for (const std::vector<DWORD> &results :
         {std::vector<DWORD>(1), std::vector<DWORD>({0, 300}), std::vector<DWORD>({400, 300})}) {
        s_expanded = results;
        EXPECT_EQ(expand_env_path(L"%A%"), L"");
        EXPECT_TRUE(s_expanded.empty());
    }
    const system_log log({});
    const import_patch read("ReadEventLogW",
                            [](HANDLE, DWORD, DWORD, void *, DWORD, DWORD *filled, DWORD *) {
                                *filled = 0;
                                return TRUE;
                            });
    EXPECT_EQ(win_event_parse().get_crash_info(&info, {nullptr, 0}), 13u);
    EXPECT_EQ(system_log::logs_open, 0);
}

/* Whichever allocation fails, a product's entry is stored as a whole or not at all; a document that
 * could not be made is made by the next entry. */
TEST(test_guards, store_without_memory)
{
    const core_patches patches;
    struct suber_set *record = core_product(0, STATUS_BYPASS, 3);
    const auto store = [&] {
        bypass_mgr_store_load(5);
        bypass_mgr_store_product(record);
    };

    each_allocation_fails(store, [](bool failed, uint64_t) {
        const int64_t count = bypass_mgr_stored_count("a");
        EXPECT_EQ(bypass_mgr_stored_status("a"), count == 3 ? STATUS_BYPASS : STATUS_UNKNOWN);
        EXPECT_TRUE(count == 3 || (count == -1 && failed));
    });
    while_failing(1, store, true);
    bypass_mgr_store_product(record);
    EXPECT_EQ(bypass_mgr_stored_count("a"), 3);
}

static int s_alarms, s_deliver_result;

static int keep_alarm(const char *, json_t *request, void *user, oxni_res_reply_fn, unsigned)
{
    const json_t *content = json_object_get(json_object_get(request, "data"), "content");
    const json_t *data = json_object_get(content, "data");
    const char *detail = json_string_value(json_object_get(data, "alarmResultDetail"));

    s_alarms++;
    EXPECT_NE(user, nullptr);
    EXPECT_EQ(json_object_size(data), 26u);
    EXPECT_STREQ(json_string_value(json_object_get(content, "type")), "QA_ALERT_LOG");
    EXPECT_NE(detail == nullptr
                  ? nullptr
                  : strstr(detail,
                           "\"driverName\": [\"ma\"], \"crashInfo\": {\"dumpPath\": \"C:\\\\d\", "
                           "\"dumpPathCreateTime\": \"then\", \"crashModuleName\": \"ma\"}}]"),
              nullptr)
        << detail;
    json_decref(request);
    if (s_deliver_result == 0)
        oxni_free_(user);
    return s_deliver_result;
}

static int insert_nothing(oxni_xhash *, const void *, size_t, void *)
{
    return -1;
}

/* Whichever allocation fails, an alarm is delivered once with all its members, or not at all, and
 * nothing of it leaks. */
TEST(test_guards, alarm_without_memory)
{
    static const char answer[] = R"({"total": 1, "info": [{"product": "a", "device_id": "d",
                                                          "agent_version": "1"}]})";
    const core_patches patches;
    const import_patch deliver("oxni_res_deliver", keep_alarm);
    struct suber_set *record = core_product(0, STATUS_BYPASS, 3);
    int expected = -1;

    report_link_create();
    report_link_watch();
    s_core.link("path", 1);
    uint64_t blocks = live_blocks();
    core_calls();
    {
        const import_patch insert("oxni_xhash_insert", insert_nothing);
        s_core.answer(0, answer);
    }
    EXPECT_EQ(core_calls(), ""); /* the poll goes on */
    EXPECT_EQ(live_blocks(), blocks);
    for (const char *const text : {answer, static_cast<const char *>(nullptr)}) {
        EXPECT_FALSE(report_link_connected());
        s_core.answer(5, text);
    }
    EXPECT_FALSE(report_link_connected());
    s_core.answer(0, answer);
    record->parsed = 1;
    record->crash = {"C:\\d", "then", "ma"};
    each_allocation_fails(
        [&] {
            s_alarms = 0;
            EXPECT_EQ(bypass_mgr_report_trigger(record), expected);
            report_forget("a");
        },
        [&](bool failed, uint64_t left) {
            EXPECT_LE(s_alarms, 1);
            EXPECT_TRUE(s_alarms == 1 || failed);
            EXPECT_EQ(left, 0u);
            expected = 0; /* without memory for its first part nothing is reported */
        });
    {
        const import_patch insert("oxni_xhash_insert", insert_nothing);
        const import_patch level("oxni_log_level_get", [] { return OXNI_LOG_INFO; });
        blocks = live_blocks();
        s_deliver_result = -1;
        log_forget();
        EXPECT_EQ(bypass_mgr_report_trigger(record), 0);
        EXPECT_FALSE(log_contains("crach info"));
        EXPECT_EQ(live_blocks(), blocks);
        EXPECT_FALSE(report_pending_has("a"));
        s_deliver_result = 0;
    }
    s_core.link("path", 0);
    report_link_create();
}

/* A path that does not fit is empty, and names no other file. */
TEST(test_guards, long_install_folder)
{
    const core_patches patches;

    oxnih_set_install_dir(("C:\\" + std::string(240, 'i') + "\\x").c_str());
    log_forget();
    EXPECT_TRUE(upload_history_need_report("a"));
    EXPECT_TRUE(log_contains("cannot be resolved or is too long"));
    EXPECT_TRUE(log_contains("Failed to open []!"));
    oxnih_set_install_dir(nullptr);
}
