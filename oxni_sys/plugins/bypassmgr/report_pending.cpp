/* The table of pending reports. Host's callbacks. */
#include "report_pending.h"

#include <string.h>

#include <oxni/base/memory.h>
#include <oxni/base/str.h>

#include "bypass_log.h"
#include "report_history.h"
#include "report_link.h"

/* Pending reports. Key: the product name with its NUL; value: its struct drv_info, owned. */
static oxni_xhash *s_drv_info_map;

static void drv_info_free(void *value)
{
    struct drv_info *report = (struct drv_info *)value;

    if (report == NULL)
        return;
    for (int32_t index = 0; report->driver_names != NULL && index < report->driver_count; index++)
        oxni_free_(report->driver_names[index]);
    oxni_free_(report->product);
    oxni_free_(report->driver_names);
    oxni_free_(report->crash_info);
    oxni_free_(report);
}

/* Fills a zeroed record whose name array is allocated. Result 0; -1 logged, what was copied so far
 * stays in the record. */
static int drv_info_fill(struct drv_info *report, char *const *names, const char *product,
                         const struct crash_info *crash)
{
    report->product = oxni_strdup(product);
    if (report->product == NULL) {
        LOG_WARN("Failed to strdup memory");
        return -1;
    }
    for (int32_t index = 0; index < report->driver_count; index++) {
        report->driver_names[index] = oxni_strdup(names[index]);
        if (report->driver_names[index] == NULL) {
            LOG_WARN("strdup filed!");
            return -1;
        }
    }
    if (crash == NULL)
        return 0;
    report->crash_info = (struct crash_info *)oxni_zero_malloc_(sizeof(*report->crash_info));
    if (report->crash_info == NULL) {
        LOG_WARN("expr[drv_info->crash_info] false! zero_malloc fail");
        return -1;
    }
    (void)oxni_strlcpy(report->crash_info->crash_module, crash->crash_module, CRASH_TEXT_CHARS);
    (void)oxni_strlcpy(report->crash_info->crash_path, crash->crash_path, CRASH_TEXT_CHARS);
    (void)oxni_strlcpy(report->crash_info->crash_create_time, crash->crash_create_time,
                       CRASH_TEXT_CHARS);
    return 0;
}

void report_init(void)
{
    report_link_create();
    s_drv_info_map = oxni_xhash_create(drv_info_free, 0);
    report_link_watch();
}

void report_forget(const char *product)
{
    if (product == NULL)
        return;
    (void)oxni_xhash_delete(s_drv_info_map, product, strlen(product) + 1);
    (void)upload_history_delete(product);
}

bool drv_info_is_bad(char *const *names, int32_t driver_count, const char *product)
{
    return names == NULL || driver_count < 1 || names[0] == NULL || product == NULL;
}

bool report_pending_has(const char *product)
{
    return oxni_xhash_search(s_drv_info_map, product, strlen(product) + 1, NULL) == 0;
}

void drv_info_add(char *const *names, int32_t driver_count, const char *product,
                  const struct crash_info *crash)
{
    struct drv_info *report;
    char **copies;

    if (drv_info_is_bad(names, driver_count, product) || report_pending_has(product))
        return;
    copies = (char **)oxni_zero_malloc_((size_t)driver_count * sizeof(*copies));
    if (copies == NULL) {
        LOG_WARN("Failed to zero_malloc memory");
        return;
    }
    report = (struct drv_info *)oxni_zero_malloc_(sizeof(*report));
    if (report == NULL) {
        LOG_WARN("Failed to zero_malloc memory");
        oxni_free_(copies);
        return;
    }
    report->driver_names = copies;
    report->driver_count = driver_count;
    if (drv_info_fill(report, names, product, crash) != 0) {
        drv_info_free(report);
    } else if (oxni_xhash_insert(s_drv_info_map, product, strlen(product) + 1, report) != 0) {
        LOG_WARN("Failed to zero_malloc memory");
        drv_info_free(report);
    }
}

const oxni_xhash_entry *report_pending_first(void)
{
    return oxni_xhash_first(s_drv_info_map);
}

const oxni_xhash_entry *report_pending_next(const oxni_xhash_entry *entry)
{
    return oxni_xhash_next(s_drv_info_map, entry);
}
