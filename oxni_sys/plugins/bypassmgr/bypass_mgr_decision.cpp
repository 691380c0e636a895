/*
 * The decision on the verdict of a boot: who is blamed for a blue screen, whose count a power loss
 * lowers, and when a bypassed product is handed to the report. Host's timer callbacks.
 */
#include "bypass_mgr_internal.h"

#include <bitset>
#include <string_view>

#include <oxni/base/memory.h>
#include <oxni/base/str.h>

#include "bypass_log.h"
#include "time_text.h"

/*
 * Names by their hashes: tells most names that are not among them without a look-up, which compares
 * text with text. Many products of many modules are asked for, and hardly any name is on a stack.
 */
class name_filter
{
  public:
    explicit name_filter(const crash_module_set &names)
    {
        for (const std::string &name : names)
            bits_[bit_of(name)] = true;
    }

    bool may_hold(std::string_view name) const
    {
        return bits_[bit_of(name)];
    }

  private:
    /* A stack has a hundred names at most: one in forty others gets past. */
    static constexpr size_t BITS = 4096;

    static size_t bit_of(std::string_view name)
    {
        return std::hash<std::string_view>()(name) % BITS;
    }

    std::bitset<BITS> bits_;
};

/* The first registered module, in the order of registration, that is on the crashed stack. Result 1
 * with its name, borrowed from its product's record; 0 with NULL. */
static int match_crash_module(const crash_module_set &modules, const char **matched)
{
    const name_filter filter(modules);
    const oxni_xhash_entry *entry, *module;

    for (entry = bypass_mgr_first_product(); entry != NULL;
         entry = bypass_mgr_next_product(entry)) {
        oxni_xhash *names = bypass_mgr_entry_record(entry)->driver_modules;

        for (module = oxni_xhash_first(names); module != NULL;
             module = oxni_xhash_next(names, module)) {
            /* The key's length counts its NUL. */
            const std::string_view name((const char *)module->key, module->key_length - 1);

            if (filter.may_hold(name) && modules.find(name) != modules.end()) {
                LOG_INFO("find [%s] crach!", name.data());
                *matched = name.data();
                return 1;
            }
        }
    }
    *matched = NULL;
    LOG_INFO("not found quorvel crash module!");
    for (const std::string &name : modules)
        LOG_INFO("crash module[%s]", name.c_str());
    return 0;
}

/* Copies of the module names, count of them; NULL when memory runs out. Freed with
 * free_module_names. */
static char **copy_module_names(oxni_xhash *names, size_t count)
{
    char **copies = (char **)oxni_zero_malloc_(count * sizeof(*copies));
    const oxni_xhash_entry *module = oxni_xhash_first(names);

    for (size_t index = 0; copies != NULL && index < count && module != NULL; index++) {
        copies[index] = oxni_strdup((const char *)module->key);
        module = oxni_xhash_next(names, module);
    }
    return copies;
}

static void free_module_names(char **copies, size_t count)
{
    for (size_t index = 0; index < count; index++)
        oxni_free_(copies[index]);
    oxni_free_(copies);
}

static void report_if_bypassed(struct suber_set *record)
{
    if (record->status != STATUS_BYPASS)
        return;
    record->parsed = 1;
    (void)bypass_mgr_report_trigger(record);
}

/* Every registered product, not only the owner of the module: nobody knows what they do to each
 * other in the kernel. */
static void bypass_everybody(const char *module_name)
{
    struct bypass_cmd request = {"bypass", module_name, 0};
    const oxni_xhash_entry *entry;

    for (entry = bypass_mgr_first_product(); entry != NULL; entry = bypass_mgr_next_product(entry))
        (void)bypass_mgr_send(bypass_mgr_entry_subscriber(entry), &request);
}

static void decide_blue_screen(struct suber_set *record, const crash_module_set &modules,
                               const char *dump_path)
{
    char create_time[TIME_TEXT_CHARS];
    const char *matched;
    int found;

    LOG_INFO("It is necessary to delete the tag when encountering a blue screen.dump path[%s]",
             dump_path);
    bypass_mgr_delete_recover_tag();
    if (bypass_mgr_check_driver_update() != 0) {
        LOG_INFO("Upgraded without notification");
        return;
    }
    LOG_INFO("There is a module crash!");
    found = match_crash_module(modules, &matched);
    time_text_local(bypass_mgr_file_creation_time(dump_path), create_time, sizeof(create_time));
    if (found != 0) {
        bypass_mgr_store_crash(dump_path, create_time, matched);
        bypass_everybody(matched);
        return;
    }
    (void)oxni_strlcpy(record->crash.crash_path, dump_path, sizeof(record->crash.crash_path));
    (void)oxni_strlcpy(record->crash.crash_create_time, create_time,
                       sizeof(record->crash.crash_create_time));
    record->crash.crash_module[0] = '\0';
    report_if_bypassed(record);
    (void)bypass_mgr_store_product(record);
}

static void lower_count(oxni_subscriber *subscriber, struct suber_set *record)
{
    struct bypass_cmd request = {"set_count", NULL, 0};

    if (bypass_mgr_check_recover_tag() != 0 || bypass_mgr_check_driver_update() != 0) {
        LOG_INFO("Manually restored or upgraded, no longer sending count calibration");
        (void)bypass_mgr_store_product(record);
        return;
    }
    record->count--;
    request.count = record->count;
    (void)bypass_mgr_send(subscriber, &request);
    (void)bypass_mgr_store_product(record);
}

static void decide_abnormal_shutdown(oxni_subscriber *subscriber, struct suber_set *record)
{
    LOG_INFO("It is necessary to delete the tag when encountering a nonormal shutdown!");
    bypass_mgr_delete_recover_tag();
    if (record->status == STATUS_BYPASS) {
        LOG_INFO("The product (%s) has already passed and does not need to set a count",
                 suber_set_name(record));
        report_if_bypassed(record);
        (void)bypass_mgr_store_product(record);
    } else if (record->count > 1) {
        lower_count(subscriber, record);
    } else {
        LOG_INFO("find normal shutdown event, but count[%d] <= 1, nothing to do!",
                 (int)record->count);
    }
}

int bypass_mgr_check_cb(int32_t kind, const crash_module_set &modules, const std::string &dump_path,
                        const event_info &event, void *user)
{
    oxni_subscriber *subscriber = (oxni_subscriber *)user;
    struct suber_set *record = bypass_mgr_find(subscriber);

    (void)event; /* always empty */
    if (record == NULL) {
        LOG_INFO("The subscriber may have lost contact");
        oxni_subscriber_delete(subscriber);
        return 0;
    }
    switch (kind) {
    case STATUS_CHECK_FAILED:
        LOG_WARN("Failed to query abnormal shutdown information");
        report_if_bypassed(record);
        (void)bypass_mgr_store_product(record);
        break;
    case STATUS_CHECK_CRASH: decide_blue_screen(record, modules, dump_path.c_str()); break;
    case STATUS_CHECK_UNEXPECTED_SHUTDOWN: decide_abnormal_shutdown(subscriber, record); break;
    default:
        LOG_INFO("The previous shutdown was not due to an abnormal poweroff or blue screen, start "
                 "check recover file!");
        bypass_mgr_watch_recover_tag();
        break;
    }
    record->parsed = 1;
    oxni_subscriber_delete(subscriber);
    return 0;
}

int bypass_mgr_report_trigger(const struct suber_set *record)
{
    char **modules;
    size_t count;

    if (record == NULL || record->product_name == NULL) {
        LOG_WARN("Failed to report invalid parameters");
        return -1;
    }
    if (record->status != STATUS_BYPASS) {
        LOG_INFO("Not bypassing, no need to report.");
        return -2;
    }
    if (record->parsed == 0) {
        LOG_INFO("Need to wait for the parsing to be completed before reporting.");
        return -2;
    }
    LOG_INFO("Start create reporting bypass task");
    count = oxni_xhash_count(record->driver_modules);
    modules = copy_module_names(record->driver_modules, count);
    if (modules == NULL) {
        LOG_WARN("expr[modules] false! zero_malloc fail");
        return -1;
    }
    LOG_INFO("crash_info module [%s] time [%s]  path[%s]", record->crash.crash_module,
             record->crash.crash_create_time, record->crash.crash_path);
    (void)report_abnormal_crash(modules, (int32_t)count, record->product_name, &record->crash);
    free_module_names(modules, count);
    return 0;
}
