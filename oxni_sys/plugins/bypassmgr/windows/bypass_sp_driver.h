/*
 * What oxnisp_driver, the self-protection driver, keeps of its crashes: as load_driver does, but
 * the record file lies in the platform's configuration and the mark under the product's own key.
 *
 * No state is kept; any thread of the host, one call at a time.
 */
#ifndef BYPASS_SP_DRIVER_H
#define BYPASS_SP_DRIVER_H

#include <stdint.h>

#include "crash_config.h"

/*
 * Path of the record file.
 *
 * size     Of buffer in characters, at least 1. A path that does not fit is cut.
 * Result   1; 0 a bad argument, or the platform's base folder is not known: buffer is untouched.
 */
int get_oxnisp_crash_config_path(wchar_t *buffer, int32_t size);

/* As read_crash_config and write_crash_config; without a path the file cannot be opened. */
int read_oxnisp_crash_config(crash_config_record *record);
int write_oxnisp_crash_config(crash_config_record *record);

/* The crash count from which on the driver counts as crashing; fixed. */
uint32_t get_oxnisp_driver_crash_threshold(void);

/* 1 when the driver has reached its threshold and its service is stopped, otherwise 0. wait_count
 * as for is_service_stopped. */
int check_oxnisp_driver_bypass(uint32_t wait_count);

/* As get_errortime_string, for this driver. */
bool get_oxnisp_driver_errortime(char *buffer, int32_t size);

/* Marks the driver as bypassed until Windows restarts. Result 0 or the Windows error code. */
uint32_t set_oxnisp_driver_crashflag(void);

/* Removes the mark, as delete_crashflag_key. */
uint32_t delete_oxnisp_crashflag(void);

/* Removes the mark and the record file. Result as of delete_crash_record. */
uint32_t recover_oxnisp_driver(void);

#endif
