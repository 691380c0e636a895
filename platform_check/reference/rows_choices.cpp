/* What the reference platform does where a platform may choose. */
#include "reference.h"

#include <algorithm>
#include <filesystem>
#include <fstream>

#include <liboxni_agentid/host.h>
#include <oxni/base/agentid.h>
#include <oxni/base/algo.h>
#include <oxni/base/ejs.h>
#include <oxni/base/log.h>
#include <oxni/base/memory.h>
#include <oxni/base/mutex.h>
#include <oxni/base/path.h>
#include <oxni/base/resource.h>
#include <oxni/base/str.h>
#include <oxni/base/subscriber.h>
#include <oxni/base/timer.h>
#include <oxni/base/uuid.h>
#include <oxni/base/xhash.h>

PROMISE(choices, "oxni_autolog_init",
        "creates the directory; deletes the oldest files above the number")
{
    simulate();
    for (int limit : {0, 3, 10}) {
        const std::string folder = path_of(std::to_string(limit) + "/logs");
        std::string kept;
        check_case("at most " + std::to_string(limit));
        std::filesystem::create_directories(folder);
        file_write(folder + "/1-notes.log", "N"); /* not a file of the log */
        for (int start = 0; start < 7; start++) { /* one hour apart */
            SAME(0, oxni_autolog_init((folder + "/").c_str(), limit));
            SAME(0, oxni_autolog_init(nullptr, limit));   /* already open */
            oxni_log_output(OXNI_LOG_DEBUG, "%d", start); /* the caller filters by level */
            oxnih_log_close();
            oxni_sleep(3600);
        }
        for (const auto &file : std::filesystem::directory_iterator(folder))
            kept += file_bytes(file.path().u8string());
        kept.erase(std::remove(kept.begin(), kept.end(), '\n'), kept.end());
        std::sort(kept.begin(), kept.end());
        SAME(limit == 0 ? "6N" : limit == 3 ? "456N" : "0123456N", kept);
    }
}

PROMISE(choices, "oxni_xhash_create", "other flags cause a complaint")
{
    oxni_xhash *table = oxni_xhash_create(nullptr, 3);

    SAME("oxni_xhash_create: flags 0x3, expected 0", complaints());
    oxni_xhash_destroy(table);
}

/* Each allocation fails once, including those of bucket growth. */
PROMISE(choices, "oxni_xhash_insert", "fails without memory for the entry or for more buckets")
{
    uint64_t nth = 0;

    for (int failures = 1; failures != 0;) {
        std::string expected, keys;
        check_case("allocation " + std::to_string(nth + 1));
        oxnih_memory_fail(++nth, 0);
        oxni_xhash *table = oxni_xhash_create([](void *) { note("freed"); }, 0);
        failures = table == nullptr;
        for (int i = 0; table != nullptr && i < 400; i++) {
            const std::string key = std::to_string(i) + " ";
            if (oxni_xhash_insert(table, key.data(), key.size(), nullptr) == 0)
                expected += key;
            else
                failures++;
        }
        for (auto at = oxni_xhash_first(table); at != nullptr; at = oxni_xhash_next(table, at))
            keys += std::string(static_cast<const char *>(at->key), at->key_length);
        HOLDS(failures <= 1);
        SAME(expected, keys);
        SAME("", notes()); /* the caller still owns a value that was not inserted */
        oxni_xhash_destroy(table);
        notes();
        SAME(0, memory_stats().live_blocks);
    }
    HOLDS(nth > 404); /* the table, its buckets, their growth, and 400 entries */
}

/* An access to a freed entry faults. */
PROMISE(choices, "oxni_xhash_delete",
        "keeps the current entry's block until the iteration advances")
{
    oxnih_memory_set_mode(OXNIH_MEMORY_GUARD);
    check_area("tables");
}

static std::string number(size_t value)
{
    return std::string(reinterpret_cast<const char *>(&value), 4);
}

static std::string framed(const std::string &text)
{
    return "EJS\x1a" + number(1) + number(text.size()) +
           number(oxni_crc32_calc(text.data(), text.size())) + text;
}

static int dump(const std::string &text)
{
    return wdu_json_dump_file_ejs(json_of(text), path_of("x.ejs").c_str());
}

PROMISE(choices, "oxni_dev_get_id_crc32", "CRC-32 of the id")
{
    oxnih_set_device_id("message digest");
    SAME(oxni_crc32_calc("message digest", 14), oxni_dev_get_id_crc32());
    oxnih_set_device_id(nullptr);
}

PROMISE(choices, "wdu_json_load_file_ejs", "logs a corrupted file, not a missing one")
{
    const std::string good = framed("{}");
    const std::pair<std::string, const char *> rows[] = {
        std::make_pair("EJS", "shorter than a header"),
        std::make_pair("FJS" + good.substr(3), "begin"),
        std::make_pair("EJS\x1a" + number(2) + good.substr(8), "version"),
        std::make_pair(good + " ", "length"),
        std::make_pair(good.substr(0, 16) + "[]", "checksum"),
        std::make_pair(framed("[1]"), "holds no object"),
        std::make_pair(framed("{\"a\":"), "not read"),
    };

    HOLDS(wdu_json_load_file_ejs(path_of("none/none.ejs").c_str()) == nullptr);
    HOLDS(!sunk("ejs"));
    for (const auto &[bytes, said] : rows) {
        check_case(said);
        file_write(path_of("x.ejs"), bytes);
        HOLDS(wdu_json_load_file_ejs(path_of("x.ejs").c_str()) == nullptr);
        HOLDS(sunk(said));
    }
}

/* The text's buffer grows several times. Whichever allocation fails, no partial document is
 * written. */
PROMISE(choices, "wdu_json_dumps",
        "NULL when memory for any part runs out, also for a member's name, which Jansson's own "
        "function omits")
{
    std::string text = "{\"a\":1";
    int failed = 0, written = -1;

    for (int i = 0; i < 300; i++)
        text +=
            ",\"" + std::string(static_cast<size_t>(i % 40 + 1), 'k') + std::to_string(i) + "\":1";
    json_t *document = json_of(text + "}");
    for (uint64_t nth = 1; written != 0; nth++) {
        SAME(0, dump("{}"));
        oxnih_memory_fail(nth, 0);
        written = wdu_json_dump_file_ejs(document, path_of("x.ejs").c_str());
        oxnih_memory_fail(0, 0);
        failed += written != 0;
        check_case("allocation " + std::to_string(nth));
        SAME(framed(written == 0 ? text + "}" : "{}"), file_bytes(path_of("x.ejs")));
    }
    HOLDS(failed > 3);
}

PROMISE(choices, "wdu_json_dump_file_ejs",
        "writes a temporary file next to the old one, flushes it and moves it over the old one")
{
    const std::string file = path_of("x.ejs"), temporary = file + ".tmp";

    SAME(0, dump("{\"a\":1}"));
    SAME(framed("{\"a\":1}"), file_bytes(file));
    file_write(temporary, framed("{\"b\":2}").substr(0, 20)); /* of an interrupted write */
    SAME(0, dump("{}"));
    SAME(framed("{}"), file_bytes(file));
    SAME("(none)", file_bytes(temporary));
    std::filesystem::create_directory(temporary); /* blocks the temporary file */
    SAME(-1, dump("{\"b\":2}"));
    std::filesystem::remove(temporary);
    HANDLE held = CreateFileA(file.c_str(), GENERIC_READ, FILE_SHARE_READ, nullptr, OPEN_EXISTING,
                              0, nullptr);
    SAME(-1, dump("{\"b\":2}"));
    CloseHandle(held);
    SAME(framed("{}"), file_bytes(file));
    SAME("(none)", file_bytes(temporary));
}

PROMISE(choices, "oxni_log_level_get", "info until the host sets another level")
{
    SAME(static_cast<int>(OXNI_LOG_INFO), oxni_log_level_get());
    oxnih_log_set_level(OXNI_LOG_DEBUG);
    SAME(static_cast<int>(OXNI_LOG_DEBUG), oxni_log_level_get());
    oxnih_log_set_level(OXNI_LOG_INFO);
}

PROMISE(choices, "oxni_log_output",
        "writes the formatted line to the log file and to the host's sink")
{
    SAME(0, oxni_autolog_init("@/logs", 5));
    oxni_log_output(OXNI_LOG_INFO, "%s %S", "line", L"\x65e5");
    HOLDS(sunk("line \xe6\x97\xa5\n"));
}

PROMISE(choices, "oxni_log_is_regestered",
        "nonzero after the log was opened, even if its file could not be created")
{
    SAME(0, oxni_log_is_regestered());
    file_write(path_of("blocked"), "");
    SAME(-1, oxni_autolog_init("@/blocked/x", 5));
    HOLDS(oxni_log_is_regestered() != 0);
}

PROMISE(choices, "oxni_log_dir", "the directory that the host set; 0 until then")
{
    char buffer[16] = "#";
    oxnih_set_log_dir(nullptr);
    SAME(0, oxni_log_dir(buffer, 16));
    oxnih_set_log_dir("C:/abcdef/ghijk/"); /* 15 characters without the last */
    HOLDS(oxni_log_dir(buffer, 16) != 0);
    SAME("C:/abcdef/ghijk", buffer);
    SAME(0, oxni_log_dir(buffer, 15));
}

PROMISE(choices, "oxni_zero_malloc_", "0 bytes give a distinct block")
{
    for (enum oxnih_memory_mode mode :
         {OXNIH_MEMORY_PLAIN, OXNIH_MEMORY_GUARD, OXNIH_MEMORY_FENCE}) {
        oxnih_memory_set_mode(mode);
        check_area("memory");
        void *block = oxni_zero_malloc_(1234);
        SAME(1234, memory_stats().live_bytes);
        oxni_free_(block);
    }
}

PROMISE(choices, "oxni_out_of_memory_", "logs \"Out of memory\" at fatal")
{
    oxnih_set_exit([](void *) { throw run_ended(); }, nullptr);
    try {
        oxni_out_of_memory_("x.cpp", 12);
        SAME("", "the call returned");
    } catch (const run_ended &) {
    }
    HOLDS(sunk("] [fatal] [pid:") && sunk("] [vkl] [x.cpp:12] Out of memory\n"));
}

PROMISE(choices, "oxni_str_utf8_to_unicode", "NULL without memory")
{
    oxnih_memory_fail(1, 0);
    HOLDS(oxni_str_utf8_to_unicode("x") == nullptr);
}

PROMISE(choices, "oxni_dirutils_path_transform",
        "the directory that the host set, else that of the executable")
{
    char buffer[260] = "#", small[16] = "#";
    oxnih_set_install_dir("C:\\abcdef\\ghijk\\"); /* 15 characters without the last */
    SAME(0, oxni_dirutils_path_transform("@", small, 16));
    SAME("C:/abcdef/ghijk", small);
    SAME(-1, oxni_dirutils_path_transform("@", small, 15));
    SAME(0, oxni_dirutils_path_transform("@/../../../../x", buffer, sizeof(buffer)));
    SAME("C:/x", buffer); /* not above the drive */
    oxnih_set_install_dir(nullptr);
    SAME(0, oxni_dirutils_path_transform("@/platform_check.exe", buffer, sizeof(buffer)));
    HOLDS(oxni_path_is_exist_u(buffer) != 0);
}

PROMISE(choices, "oxni_process_path", "the path that the host set, otherwise the real one")
{
    char buffer[16] = "#";
    oxnih_set_process_path("C:/abcdef/ghijk");
    SAME(0, oxni_process_path(buffer, 16));
    SAME("C:/abcdef/ghijk", buffer);
    SAME(-1, oxni_process_path(buffer, 15));
    SAME("", buffer);
    SAME(0, oxni_process_name(buffer, 16));
    SAME("ghijk", buffer);
}

PROMISE(choices, "oxni_time", "real or simulated")
{
    simulate();
    SAME(1772366400, oxni_time());
    SAME(1000, oxni_time_get_tick_cout());
}

PROMISE(choices, "oxni_msleep", "advances simulated time")
{
    simulate();
    oxni_msleep(1500);
    SAME(2500, oxni_time_get_tick_cout());
}

PROMISE(choices, "oxni_sleep", "advances simulated time")
{
    simulate();
    oxni_sleep(3600);
    SAME(3601000, oxni_time_get_tick_cout());
}

PROMISE(choices, "oxni_uuid_create", "counts up from a fixed start if the host requests it")
{
    oxni_uuid one = {}, other = {};
    oxnih_uuid_fix(7);
    SAME(0, oxni_uuid_create(&one));
    SAME(0, oxni_uuid_create(&other));
    SAME(one.data1 + 1, other.data1);
    oxnih_uuid_fix(0);
}

PROMISE(choices, "oxni_dev_get_id_md5", "the host sets the id")
{
    char buffer[33] = "#";
    oxnih_set_device_id("message digest");
    SAME(0, oxni_dev_get_id_md5(buffer, 33));
    SAME("f96b697d7cb7938d525a2f31aaf161d0", buffer);
    oxnih_set_device_id(nullptr);
}

PROMISE(choices, "wdu_json_get_alloc_funcs", "the platform's allocator")
{
    oxnih_memory_fail(1, 0);
    HOLDS(json_object() == nullptr);
    json_t *value = json_object();
    HOLDS(memory_stats().live_blocks > 0);
    json_decref(value);
}

PROMISE(choices, "oxni_subscriber_delete",
        "excess calls are counted, cause a complaint and free nothing")
{
    const oxni_subscriber_attr attr = {"ns", "a", nullptr};
    const uint64_t before = oxnih_core_excess_deletes();
    oxni_subscriber *a = oxni_subscriber_new(&attr);
    oxni_subscriber_subscribe(a, "none", json_of("{}"),
                              [](oxni_subscriber *, uint32_t, void *, json_t *) {});
    oxni_subscriber_delete(a);
    SAME(0, oxnih_subscriber_references(a));
    SAME("ns", oxni_subscriber_get_attr(a)->ns); /* the platform holds a reference */
    SAME("", complaints());
    oxni_subscriber_delete(a);
    SAME(0, complaints().find("oxni_subscriber_delete: no reference of subscriber ns/a "));
    deliver();
    HOLDS(oxni_subscriber_get_attr(a) == nullptr); /* now it is freed */
    SAME(0, complaints().find("oxni_subscriber_get_attr: "));
    oxni_subscriber_delete(a);
    SAME(0, complaints().find("oxni_subscriber_delete: "));
    SAME(before + 2, oxnih_core_excess_deletes());
}

PROMISE(choices, "oxnir_rsp_get_errno", "the transport error")
{
    oxni_res_deliver(
        "/none", json_string("m"), nullptr,
        [](oxnir_rsp *response, void *) { note(std::to_string(oxnir_rsp_get_errno(response))); },
        0);
    deliver();
    SAME(static_cast<int>(OXNIH_ERROR_UNREACHABLE), atoi(notes().c_str()));
}

PROMISE(choices, "oxni_timer_start",
        "at the same due time, queued deliveries run first, then timers in the order of arming")
{
    const auto fire = [](void *, void *arg) { note(static_cast<const char *>(arg)); };
    const auto run = [](void *arg) { note(static_cast<const char *>(arg)); };
    simulate();
    oxni_timer_start(100, fire, const_cast<char *>("t100a"));
    oxni_timer_start(50, fire, const_cast<char *>("t50"));
    oxnih_core_post(100, run, const_cast<char *>("p100a"));
    oxni_timer_start(0, fire, const_cast<char *>("t0"));
    oxni_timer_start(100, fire, const_cast<char *>("t100b"));
    oxnih_core_post(100, run, const_cast<char *>("p100b"));
    oxnih_core_post(0, run, const_cast<char *>("p0"));
    deliver(100);
    SAME("p0 t0 t50 p100a p100b t100a t100b", notes());
}
