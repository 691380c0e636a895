/* The content of a "Driver Bypass" alarm. Host's callbacks. */
#ifndef REPORT_ALARM_H
#define REPORT_ALARM_H

#include <stdint.h>

#include <oxni/base/json.h>

#include "crash_info.h"

/*
 * Builds the content of an alarm.
 *
 * names    driver_count names of the product's modules.
 * crash    May be NULL.
 * Result   A new object; NULL when memory runs out: an alarm that lacks a member would count as a
 *          complete one.
 */
json_t *build_alarm_content(char *const *names, int32_t driver_count, const char *product,
                            const struct crash_info *crash);

#endif
