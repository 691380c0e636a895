/* The crash state of oxnisp_driver, the self-protection driver. No state is kept; any thread of the
 * host, one call at a time. */
#ifndef BYPASS_SP_DRIVER_H
#define BYPASS_SP_DRIVER_H

#include <stdint.h>

#include "crash_config.h"

/*
 * Path of the record file in the platform's configuration.
 *
 * size     Of buffer in characters, at least 1; the path as UTF-8 must fit, too.
 * Result   Whether the path is known and fits; a failure is logged, and buffer is empty then, or
 *          untouched when an argument is bad.
 */
bool get_oxnisp_crash_config_path(wchar_t *buffer, int32_t size);

/* As read_crash_config and write_crash_config; without a path the file cannot be opened. */
int read_oxnisp_crash_config(crash_config_record *record);
int write_oxnisp_crash_config(crash_config_record *record);

/* The crash count from which on the driver counts as crashing; fixed. */
uint32_t get_oxnisp_driver_crash_threshold(void);

/* As check_driver_bypass. */
bool check_oxnisp_driver_bypass(uint32_t wait_count);

/* As get_errortime_string. */
bool get_oxnisp_driver_errortime(char *buffer, int32_t size);

/* Marks the driver as bypassed until Windows restarts. Result 0 or the Windows error code. */
uint32_t set_oxnisp_driver_crashflag(void);

/* Removes the mark, as delete_crashflag_key. */
uint32_t delete_oxnisp_crashflag(void);

/* As recover_driver. */
uint32_t recover_oxnisp_driver(void);

#endif
