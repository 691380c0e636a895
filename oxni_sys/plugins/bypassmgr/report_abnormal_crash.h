/*
 * Reporting: one "Driver Bypass" alarm a product and bypass, sent to the management side when that
 * is connected and not before. Host's callbacks, one at a time.
 */
#ifndef REPORT_ABNORMAL_CRASH_H
#define REPORT_ABNORMAL_CRASH_H

#include <stdint.h>

#define CRASH_TEXT_CHARS 260

/* The crash that was blamed; every text is empty when there is none. */
struct crash_info {
    char crash_path[CRASH_TEXT_CHARS];        /* of the dump that was analysed */
    char crash_create_time[CRASH_TEXT_CHARS]; /* of the dump, local date and time */
    char crash_module[CRASH_TEXT_CHARS];      /* the registered module, empty for nobody's */
};

/* Makes the two tables and watches the link to the management side. */
void report_init(void);

/*
 * Reports a product that is in bypass, unless it was reported before or waits to be.
 *
 * names    driver_count names of the product's modules; copied.
 * crash    Copied; may be NULL.
 * Result   0 reported, waiting, or nothing to do; -1 a missing argument, no modules, or the upload
 *          could not be built.
 */
int report_abnormal_crash(char *const *names, int32_t driver_count, const char *product,
                          const struct crash_info *crash);

/* The product works again: its next bypass is reported anew. Result 1 a report had been accepted
 * and is forgotten; 0 there was none, product is NULL, or the history could not be written. */
int report_forget(const char *product);

#endif
