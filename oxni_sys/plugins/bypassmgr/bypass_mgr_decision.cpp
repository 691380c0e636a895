/*
 * The decision on the verdict of a boot: who is blamed for a blue screen, whose count a power loss
 * lowers, and when a bypassed product is reported. Host's timer callbacks.
 */
#include "bypass_mgr_decision.h"

#include <string_view>

#include <windows.h>

#include <oxni/base/str.h>
#include <oxni/base/time.h>

#include "bypass_log.h"
#include "bypass_mgr_command.h"
#include "bypass_mgr_recover.h"
#include "bypass_mgr_report.h"
#include "bypass_mgr_store.h"
#include "bypass_mgr_table.h"
#include "driver_update.h"
#include "exception_boundary.h"
#include "recover_tag.h"
#include "time_text.h"

/* The first registered module, in the order of registration, that is on the crashed stack; borrowed
 * from its product's record. NULL when there is none. */
static const char *match_crash_module(const crash_module_set &modules)
{
    const oxni_xhash_entry *entry, *module;

    for (entry = bypass_mgr_table_first(); entry != NULL; entry = bypass_mgr_table_next(entry)) {
        oxni_xhash *names = bypass_mgr_table_record(entry)->driver_modules;

        for (module = oxni_xhash_first(names); module != NULL;
             module = oxni_xhash_next(names, module)) {
            const char *name = (const char *)module->key;

            if (modules.find(std::string_view(name)) != modules.end()) {
                LOG_INFO("find [%s] crach!", name);
                return name;
            }
        }
    }
    LOG_INFO("not found quorvel crash module!");
    for (const std::string &name : modules)
        LOG_INFO("crash module[%s]", name.c_str());
    return NULL;
}

/* Seconds since 1970 UTC; 0 when the file cannot be opened or queried. path: 8-bit characters. */
static int64_t file_creation_time(const char *path)
{
    FILETIME created;
    HANDLE file;
    int64_t seconds = 0;

    file = CreateFileA(path, GENERIC_READ, FILE_SHARE_READ, NULL, OPEN_EXISTING,
                       FILE_ATTRIBUTE_NORMAL, NULL);
    if (file == INVALID_HANDLE_VALUE) {
        LOG_WARN("Failed to CreateFile [%s]", path);
        return 0;
    }
    if (GetFileTime(file, &created, NULL, NULL))
        seconds = oxni_filetime_to_timet(&created);
    else
        LOG_WARN("Failed to GetFileTime [%s]", path);
    CloseHandle(file);
    return seconds;
}

static void report_if_bypassed(struct suber_set *record)
{
    if (record->status != STATUS_BYPASS)
        return;
    record->parsed = 1;
    (void)bypass_mgr_report_trigger(record);
}

/* Every registered product, not only the owner of the module: how their drivers affect each other
 * in the kernel is unknown. */
static void bypass_all_products(const char *module_name)
{
    struct bypass_cmd request = {"bypass", module_name, 0};
    const oxni_xhash_entry *entry;

    for (entry = bypass_mgr_table_first(); entry != NULL; entry = bypass_mgr_table_next(entry))
        (void)bypass_mgr_send(bypass_mgr_table_subscriber(entry), &request);
}

static void decide_blue_screen(struct suber_set *record, const crash_module_set &modules,
                               const char *dump_path)
{
    char create_time[TIME_TEXT_CHARS];
    const char *matched;

    LOG_INFO("It is necessary to delete the tag when encountering a blue screen.dump path[%s]",
             dump_path);
    recover_tag_delete();
    if (driver_update_check()) {
        LOG_INFO("Upgraded without notification");
        return;
    }
    LOG_INFO("There is a module crash!");
    matched = match_crash_module(modules);
    time_text_local(file_creation_time(dump_path), create_time, sizeof(create_time));
    if (matched != NULL) {
        bypass_mgr_store_crash(dump_path, create_time, matched);
        bypass_all_products(matched);
        return;
    }
    (void)oxni_strlcpy(record->crash.crash_path, dump_path, sizeof(record->crash.crash_path));
    (void)oxni_strlcpy(record->crash.crash_create_time, create_time,
                       sizeof(record->crash.crash_create_time));
    record->crash.crash_module[0] = '\0';
    report_if_bypassed(record);
    bypass_mgr_store_product(record);
}

static void lower_count(oxni_subscriber *subscriber, struct suber_set *record)
{
    struct bypass_cmd request = {"set_count", NULL, 0};

    if (recover_tag_check() || driver_update_check()) {
        LOG_INFO("Manually restored or upgraded, no longer sending count calibration");
        bypass_mgr_store_product(record);
        return;
    }
    record->count--;
    request.count = record->count;
    (void)bypass_mgr_send(subscriber, &request);
    bypass_mgr_store_product(record);
}

static void decide_abnormal_shutdown(oxni_subscriber *subscriber, struct suber_set *record)
{
    LOG_INFO("It is necessary to delete the tag when encountering a nonormal shutdown!");
    recover_tag_delete();
    if (record->status == STATUS_BYPASS) {
        LOG_INFO("The product (%s) has already passed and does not need to set a count",
                 suber_set_name(record));
        report_if_bypassed(record);
        bypass_mgr_store_product(record);
    } else if (record->count > 1) {
        lower_count(subscriber, record);
    } else {
        LOG_INFO("find normal shutdown event, but count[%d] <= 1, nothing to do!",
                 (int)record->count);
    }
}

static void decide(int32_t kind, const crash_module_set &modules, const char *dump_path,
                   oxni_subscriber *subscriber)
{
    struct suber_set *record = bypass_mgr_table_find(subscriber);

    if (record == NULL) {
        LOG_INFO("The subscriber may have lost contact");
        return;
    }
    switch (kind) {
    case STATUS_CHECK_FAILED:
        LOG_WARN("Failed to query abnormal shutdown information");
        report_if_bypassed(record);
        bypass_mgr_store_product(record);
        break;
    case STATUS_CHECK_CRASH: decide_blue_screen(record, modules, dump_path); break;
    case STATUS_CHECK_UNEXPECTED_SHUTDOWN: decide_abnormal_shutdown(subscriber, record); break;
    default:
        LOG_INFO("The previous shutdown was not due to an abnormal poweroff or blue screen, start "
                 "check recover file!");
        bypass_mgr_watch_recover_tag();
        break;
    }
    record->parsed = 1;
}

int bypass_mgr_check_cb(int32_t kind, const crash_module_set &modules, const std::string &dump_path,
                        const event_info &event, void *user)
{
    oxni_subscriber *subscriber = (oxni_subscriber *)user;

    (void)event; /* always empty */
    exception_boundary("decision", [&] { decide(kind, modules, dump_path.c_str(), subscriber); });
    oxni_subscriber_delete(subscriber);
    return 0;
}
