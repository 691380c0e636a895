/* Benchmarks of the core: a registration that writes the store, the decision, and "bypass" to all
 * products. */
#include "bypass_mgr.h"
#include "bypass_mgr_decision.h"
#include "bypass_mgr_registry.h"
#include "bypass_mgr_store.h"
#include "bypass_mgr_table.h"
#include "report_pending.h"
#include "win_event_parse.h"

#include "bench_support.h"

#include <string_view>

#include <cstring>
#include <uthash.h>
#include <windows.h>

#include <oxni/base/ejs.h>
#include <oxni/base/log.h>
#include <oxni/base/memory.h>
#include <oxni/base/path.h>
#include <oxni/base/str.h>
#include <oxni/base/time.h>

#include "../devhost/base/text.h"
#include "../platform/liboxni_core/host.h"
#include "../platform/liboxnibase/host.h"
#include "../tests/unit/import_patch.h"

static constexpr int MODULES_EACH = 32;
static constexpr int CRASH_MODULES = 99;

/* Replacements of file system calls, used during set-up and where only look-ups are measured. */
static int do_not_write(json_t *, const char *)
{
    return 0;
}

static int only_folder_exists(const char *path)
{
    return strstr(path, "driver_recover") == nullptr;
}

static HANDLE WINAPI no_such_file(const wchar_t *, DWORD, DWORD, SECURITY_ATTRIBUTES *, DWORD,
                                  DWORD, HANDLE)
{
    return INVALID_HANDLE_VALUE;
}

static HANDLE WINAPI no_such_file_a(const char *, DWORD, DWORD, SECURITY_ATTRIBUTES *, DWORD, DWORD,
                                    HANDLE)
{
    return INVALID_HANDLE_VALUE;
}

static void take_message(oxni_subscriber *, uint32_t, void *, json_t *)
{
}

static std::string product_name(size_t number)
{
    return "product_" + std::to_string(number);
}

static std::string module_name(size_t product, size_t module)
{
    return text_format("drv%u_%u", static_cast<unsigned>(product), static_cast<unsigned>(module));
}

static json_t *registration(size_t number, size_t modules, const char *status)
{
    json_t *names = json_array();

    for (size_t module = 0; module < modules; module++)
        json_array_append_new(names, json_string(module_name(number, module).c_str()));
    return json_pack("{s:s, s:s, s:s, s:i, s:{s:o}}", "product_name", product_name(number).c_str(),
                     "type", "reg", "status", status, "count", 1, "data", "driver_module", names);
}

static void deliver(void)
{
    bench_require(oxnih_core_run_until(oxnih_clock_tick_ms()) == 0, "a callback failed");
}

/* A module name of a product in a bare hash table, for the baseline. */
struct bare_name {
    UT_hash_handle hh;
    std::string name;
};

static bare_name *bare_table(size_t product, size_t modules)
{
    bare_name *head = nullptr;

    for (size_t module = 0; module < modules; module++) {
        bare_name *made = new bare_name{{}, module_name(product, module)};
        HASH_ADD_KEYPTR(hh, head, made->name.data(), made->name.size(), made);
    }
    return head;
}

static void free_table(bare_name *head)
{
    while (head != nullptr) {
        bare_name *first = head;
        HASH_DEL(head, first);
        delete first;
    }
}

/* Registered products, each with an entry in the store, for the duration of a benchmark. */
class products
{
  public:
    products(size_t count, size_t modules)
    {
        static uint64_t boot_time;
        import_patch patch("wdu_json_dump_file_ejs", do_not_write);

        if (boot_time == 0)
            bench_require(bypass_mgr_init() == 0, "the plug-in is not set up");
        bypass_mgr_store_load(++boot_time); /* a new boot empties the store */
        for (size_t number = 0; number < count; number++)
            add(number, modules);
    }

    ~products()
    {
        for (oxni_subscriber *each : handles) {
            report_forget(bypass_mgr_table_find(each)->product_name);
            oxnih_subscriber_leave(each);
            oxni_subscriber_delete(each);
        }
        for (bare_name *table : tables)
            free_table(table);
        deliver();
        bench_require(bypass_mgr_table_first() == nullptr, "a product did not leave");
    }
    products(const products &) = delete;
    products &operator=(const products &) = delete;

    std::vector<oxni_subscriber *> handles;
    /* Filled together with the plug-in's tables, so that both have the same memory layout. */
    std::vector<bare_name *> tables;

  private:
    void add(size_t number, size_t modules)
    {
        const std::string name = product_name(number);
        const oxni_subscriber_attr attr = {"bench", name.c_str(), nullptr};
        oxni_subscriber *made = oxni_subscriber_new(&attr);
        json_t *message = registration(number, modules, "working");

        oxni_subscriber_subscribe(made, "bypass_mgr", message, take_message);
        json_decref(message);
        deliver();
        bench_require(bypass_mgr_table_find(made) != nullptr, "a product is not registered");
        bypass_mgr_store_product(bypass_mgr_table_find(made));
        handles.push_back(made);
        tables.push_back(bare_table(number, modules));
    }
};

/* The baseline of storing a document: writes its text to the disk atomically. The file is in the
 * store's directory, because Wine searches each directory of a path. */
static void write_plainly(json_t *document)
{
    static const std::wstring path = text_wide(bench_folder() + "/var/bypass_mgr/plain.json");
    static const std::wstring sibling = path + L".tmp";
    char *text = json_dumps(document, JSON_COMPACT);
    DWORD written = 0;
    HANDLE file = CreateFileW(sibling.c_str(), GENERIC_WRITE, 0, nullptr, CREATE_ALWAYS,
                              FILE_ATTRIBUTE_NORMAL, nullptr);

    bench_require(WriteFile(file, text, static_cast<DWORD>(strlen(text)), &written, nullptr) &&
                      FlushFileBuffers(file) && CloseHandle(file) &&
                      MoveFileExW(sibling.c_str(), path.c_str(),
                                  MOVEFILE_REPLACE_EXISTING | MOVEFILE_WRITE_THROUGH),
                  "the document is not written");
    oxni_free_(text);
}

static json_t *s_written;

static int keep_document(json_t *document, const char *)
{
    s_written = document;
    return 0;
}

/* Returns the store's own document, borrowed. A copy would be contiguous in memory and therefore
 * faster to serialise. */
static json_t *stored_document(const products &with)
{
    import_patch patch("wdu_json_dump_file_ejs", keep_document);

    bypass_mgr_store_product(bypass_mgr_table_find(with.handles.back()));
    bench_require(json_object_size(json_object_get(s_written, "data")) >= with.handles.size(),
                  "the store lacks products");
    return s_written;
}

/* Times the registration of the nth product after a restart of the agent, with a status that
 * differs from the stored one, so that the plug-in writes the store. */
static void register_nth(benchmark::State &state)
{
    products with(static_cast<size_t>(state.range(0)), 4);
    oxni_subscriber *last = with.handles.back();
    json_t *document = stored_document(with);
    json_t *message = registration(with.handles.size() - 1, 4, "working");
    bench_pair pair(state);

    for (auto _ : state) {
        bypass_mgr_table_find(last)->status = STATUS_INITIALIZING;
        bypass_mgr_store_product(bypass_mgr_table_find(last));
        bypass_mgr_unsubscribe(last);
        const bench_moment begin = bench_now();
        write_plainly(document);
        const bench_moment middle = bench_now();
        bench_require(bypass_mgr_receive(last, message) == 0, "the registration is rejected");
        pair.add(1, middle - begin, bench_now() - middle);
    }
    bench_require(bypass_mgr_stored_status(bypass_mgr_table_find(last)->product_name) ==
                      STATUS_WORKING,
                  "the registration is not stored");
    json_decref(message);
}
BENCHMARK(register_nth)->Arg(10)->Arg(100)->Arg(1000)->UseManualTime();

static crash_module_set crashed_stack(void)
{
    crash_module_set modules = {"nt"};

    while (modules.size() < CRASH_MODULES)
        modules.insert("drv" + std::to_string(modules.size()) + "_sys");
    return modules;
}

/* Looks every module name up in the modules of the stack and returns the number of matches. As in
 * the platform's tables, a name is a C string. */
static size_t look_up(const std::vector<bare_name *> &tables, const crash_module_set &modules)
{
    size_t found = 0;

    for (const bare_name *name : tables)
        for (; name != nullptr; name = static_cast<const bare_name *>(name->hh.next))
            found += modules.find(std::string_view(name->name.c_str())) != modules.end();
    return found;
}

/* The baseline of the decision: looks every name up, asks for the log's level once per module of the
 * stack, takes the local time, composes the paths of the tag, the update, the data folder and the
 * store, and stores the product's entry. */
static size_t decide_plainly(const std::vector<bare_name *> &tables,
                             const crash_module_set &modules, json_t *data)
{
    const size_t found = look_up(tables, modules);
    char path[MAX_PATH];
    struct tm local;
    int logged = 0;

    for (size_t line = 0; line < modules.size(); line++)
        logged += oxni_log_level_get() >= OXNI_LOG_INFO;
    oxni_time_stamp_to_local(oxni_time(), &local);
    oxni_str_snprintf(path, sizeof(path), "%04d-%02d-%02d %02d:%02d:%02d", local.tm_year + 1900,
                      local.tm_mon + 1, local.tm_mday, local.tm_hour, local.tm_min, local.tm_sec);
    for (int each = 0; each < 2; each++) {
        oxni_log_dir(path, sizeof(path));
        oxni_dirutils_path_transform("@/../var/bypass_mgr/", path, sizeof(path));
    }
    json_object_set_new(data, "product_0", json_pack("{s:i, s:i}", "count", 1, "status", 0));
    benchmark::DoNotOptimize(logged);
    return found;
}

static void decide(benchmark::State &state)
{
    products with(static_cast<size_t>(state.range(0)), MODULES_EACH);
    import_patch write("wdu_json_dump_file_ejs", do_not_write);
    import_patch exists("oxni_path_is_exist_u", only_folder_exists);
    import_patch open("CreateFileW", no_such_file), open_a("CreateFileA", no_such_file_a);
    const crash_module_set modules = crashed_stack();
    json_t *data = json_object();
    bench_pair pair(state);

    for (auto _ : state)
        pair.turn(
            1,
            [&] {
                bench_require(decide_plainly(with.tables, modules, data) == 0, "a name is found");
            },
            [&] {
                oxni_subscriber_retain(with.handles[0]); /* the callback releases it */
                bypass_mgr_check_cb(STATUS_CHECK_CRASH, modules, "", {}, with.handles[0]);
            });
    json_decref(data);
}
BENCHMARK(decide)->Arg(10)->Arg(100)->Arg(1000)->UseManualTime();

/* Times a verdict that blames the last product: each product gets the order and replies, and the
 * plug-in stores it and queues its report. */
static void bypass_all(benchmark::State &state)
{
    products with(static_cast<size_t>(state.range(0)), 4);
    const crash_module_set modules = {"nt", module_name(with.handles.size() - 1, 3)};
    json_t *document = stored_document(with);
    bench_pair pair(state);

    for (auto _ : state) {
        const bench_moment begin = bench_now();
        for (size_t each = 0; each < with.handles.size() + 1; each++) /* the crash record, too */
            write_plainly(document);
        const bench_moment middle = bench_now();
        oxni_subscriber_retain(with.handles[0]);
        bypass_mgr_check_cb(STATUS_CHECK_CRASH, modules, "", {}, with.handles[0]);
        deliver();
        pair.add(1, middle - begin, bench_now() - middle);
        for (oxni_subscriber *each : with.handles) {
            suber_set *record = bypass_mgr_table_find(each);
            bench_require(bypass_mgr_stored_status(record->product_name) == STATUS_BYPASS,
                          "a product is not stored as bypassed");
            record->status = STATUS_WORKING;
            record->parsed = 0;
            report_forget(record->product_name);
        }
    }
}
BENCHMARK(bypass_all)->Arg(10)->Arg(100)->UseManualTime();
/* Few iterations: each writes 2,000 documents of 1,000 products. */
BENCHMARK(bypass_all)->Arg(1000)->Iterations(3)->UseManualTime();
