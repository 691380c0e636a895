/*
 * Reporting: one "Driver Bypass" alarm for each product and bypass, sent to the management side once
 * that is connected. Host's callbacks, one at a time.
 */
#ifndef REPORT_ABNORMAL_CRASH_H
#define REPORT_ABNORMAL_CRASH_H

#include <stdint.h>

#include "crash_info.h"

/*
 * Reports a product that is in bypass, unless it was reported before or is pending.
 *
 * names    driver_count names of the product's modules; copied.
 * crash    Copied; may be NULL.
 * Result   0 reported, pending, or nothing to do; -1 a missing argument, no modules, or the upload
 *          could not be built.
 */
int report_abnormal_crash(char *const *names, int32_t driver_count, const char *product,
                          const struct crash_info *crash);

#endif
