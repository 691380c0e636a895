/* The platform of the core's unit tests. */
#include "core_patches.h"

#include <algorithm>

#include <cstring>
#include <windows.h>

#include <oxni/base/memory.h>
#include <oxni/base/timer.h>

#include "bypass_mgr_recover.h"
#include "bypass_mgr_store.h"
#include "liboxnibase/host.h"
#include "report_link.h"
#include "report_pending.h"

core_state s_core;

static const oxni_subscriber_attr s_attrs[] = {
    {"space", "a", nullptr},
    {"space", "b", nullptr},
    {"space", "c", nullptr},
    {"space", "d", nullptr},
};

static void note(const std::string &word)
{
    s_core.calls.push_back(word);
}

static std::string name_of(const oxni_subscriber *subscriber)
{
    return reinterpret_cast<const oxni_subscriber_attr *>(subscriber)->name;
}

static std::string text_of(const json_t *json)
{
    char *text = json_dumps(json, JSON_COMPACT | JSON_SORT_KEYS | JSON_ENCODE_ANY);
    std::string copy = text != nullptr ? text : "nothing";
    json_free_t free_text = nullptr;

    json_get_alloc_funcs(nullptr, &free_text);
    free_text(text);
    std::replace(copy.begin(), copy.end(), '"', '\'');
    return copy;
}

void core_patches::patch_subscribers()
{
    patches_.emplace_back(
        "oxni_subscribee_pushback",
        [](oxni_subscriber *subscriber, json_t *message, void *cookie, oxni_push_reply_fn reply) {
            note("push " + name_of(subscriber) + " " + text_of(message));
            if (s_core.cookie != nullptr)
                oxni_free_(s_core.cookie);
            s_core.reply = reply;
            s_core.cookie = cookie;
            s_core.pushed_to = subscriber;
            return 0;
        });
    patches_.emplace_back("oxni_subscriber_get_attr", [](oxni_subscriber *subscriber) {
        return s_core.nameless ? nullptr : reinterpret_cast<oxni_subscriber_attr *>(subscriber);
    });
    patches_.emplace_back("oxni_subscriber_retain");
    patches_.emplace_back("oxni_subscriber_delete", [](oxni_subscriber *subscriber) {
        note("release " + name_of(subscriber));
    });
    patches_.emplace_back("oxni_subscribee_install",
                          [](const char *, const char *, unsigned, oxni_subscribee_fn,
                             oxni_subscribee_second_fn second) {
                              s_core.install_second = second;
                              return 0;
                          });
}

void core_patches::patch_files()
{
    patches_.emplace_back("wdu_json_dump_file_ejs", [](json_t *document, const char *path) {
        if (strstr(path, "dumprecord") != nullptr)
            note("record " + text_of(json_object_get(document, "dump_time")));
        else if (strstr(path, "persistence") != nullptr)
            note("store " + text_of(json_object_get(document, "data")));
        else
            note("save " + text_of(document));
        return 0;
    });
    patches_.emplace_back("wdu_json_load_file_ejs", [](const char *path) -> json_t * {
        if (strstr(path, "persistence") != nullptr)
            return json_incref(s_core.document);
        note("history");
        return nullptr;
    });
    patches_.emplace_back("oxni_path_is_exist_u", [](const char *path) -> int {
        if (strstr(path, "oxni_driver_recover") == nullptr)
            return 1;
        note("tag?");
        return s_core.tag;
    });
    patches_.emplace_back("oxni_path_del_file_u", [](const char *) {
        note("tag-");
        s_core.tag = false;
        return 0;
    });
    patches_.emplace_back(
        "CreateFileA",
        [](const char *, DWORD, DWORD, LPSECURITY_ATTRIBUTES, DWORD, DWORD, HANDLE) -> HANDLE {
            note("tag=");
            return INVALID_HANDLE_VALUE;
        });
}

void core_patches::patch_times_and_links()
{
    patches_.emplace_back("oxni_timer_start",
                          [](uint32_t ms, oxni_timer_fn fn, void *argument) -> uint64_t {
                              s_core.last_timer = fn;
                              note("timer " + std::to_string(ms));
                              if (ms == 30000) /* a check's context, which the timer would own */
                                  oxni_free_(argument);
                              return s_core.calls.size();
                          });
    patches_.emplace_back("oxni_timer_stop", [](uint64_t) { note("stop"); });
    patches_.emplace_back("oxni_time_get_tick_cout"); /* 0: no late product */
    patches_.emplace_back("oxni_res_require", [](const char *, unsigned, oxni_res_state_fn fn) {
        s_core.link = fn;
        return 0;
    });
    patches_.emplace_back("oxni_dbg_exec",
                          [](const char *, const char *, unsigned, oxni_dbg_echo_fn answer) {
                              s_core.answer = answer;
                              return 0;
                          });
}

static void forget_everything(void)
{
    for (size_t number = 0; number < ARRAYSIZE(s_attrs); number++)
        bypass_mgr_table_delete(core_subscriber(number));
    for (const oxni_subscriber_attr &attr : s_attrs)
        report_forget(attr.name);
    *report_link_timer_slot() = 0;
    if (s_core.cookie != nullptr)
        oxni_free_(s_core.cookie);
    json_decref(s_core.document);
    s_core = {};
}

core_patches::core_patches()
{
    patch_subscribers();
    patch_files();
    patch_times_and_links();
    (void)bypass_mgr_table_create();
    oxnih_set_log_dir("C:\\base");
    report_init();
    bypass_mgr_watch_recover_tag(); /* pending from here on */
    forget_everything();
    bypass_mgr_store_load(5);
    s_core.calls.clear();
}

core_patches::~core_patches()
{
    forget_everything();
    oxnih_set_log_dir(nullptr);
}

oxni_subscriber *core_subscriber(size_t number)
{
    return reinterpret_cast<oxni_subscriber *>(
        const_cast<oxni_subscriber_attr *>(&s_attrs[number]));
}

struct suber_set *core_product(size_t number, int32_t status, int64_t count)
{
    struct suber_set *record = static_cast<struct suber_set *>(oxni_zero_malloc_(sizeof(*record)));
    const std::string module = std::string("m") + s_attrs[number].name;

    record->product_name = oxni_strdup(s_attrs[number].name);
    record->status = status;
    record->count = count;
    record->driver_modules = oxni_xhash_create(nullptr, 0);
    (void)oxni_xhash_insert(record->driver_modules, module.c_str(), module.size() + 1, nullptr);
    (void)bypass_mgr_table_insert(core_subscriber(number), record);
    return record;
}

std::string core_calls(void)
{
    std::string all;

    for (const std::string &word : s_core.calls)
        all += (all.empty() ? "" : "; ") + word;
    s_core.calls.clear();
    return all;
}

json_t *core_json(std::string text)
{
    std::replace(text.begin(), text.end(), '\'', '"');
    return json_loads(text.c_str(), 0, nullptr);
}
