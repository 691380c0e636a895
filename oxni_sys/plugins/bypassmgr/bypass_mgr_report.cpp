/* The report trigger. Keeps no state; host's callbacks. */
#include "bypass_mgr_report.h"

#include <oxni/base/memory.h>

#include "bypass_log.h"
#include "report_abnormal_crash.h"

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
