/* The pending reports: accepted and not forgotten. Host's callbacks. */
#ifndef REPORT_PENDING_H
#define REPORT_PENDING_H

#include <stdint.h>

#include <oxni/base/xhash.h>

#include "crash_info.h"

/* One report. Everything in it is owned. */
struct drv_info {
    char *product;
    char **driver_names;
    int32_t driver_count;
    struct crash_info *crash_info; /* NULL when the caller had none */
};

/* Creates the tables of pending reports and devices, and watches the link to the management
 * side. */
void report_init(void);

/*
 * Forgets a product that works again: its next bypass is reported anew.
 *
 * product  NULL is harmless.
 */
void report_forget(const char *product);

/* Whether an argument is missing that a report needs: no modules, or no product. */
bool drv_info_is_bad(char *const *names, int32_t driver_count, const char *product);

/* Whether a report of the product is pending. */
bool report_pending_has(const char *product);

/* Makes a report pending; without memory it is dropped and logged, and the next call tries again.
 * Everything is copied; crash may be NULL. */
void drv_info_add(char *const *names, int32_t driver_count, const char *product,
                  const struct crash_info *crash);

/* Pending reports in the order in which they were added, borrowed; NULL ends. */
const oxni_xhash_entry *report_pending_first(void);
const oxni_xhash_entry *report_pending_next(const oxni_xhash_entry *entry);

#endif
