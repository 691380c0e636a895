/* The crash state of load_driver. No state is kept; any thread of the host, one call at a time. */
#ifndef BYPASS_DRIVER_H
#define BYPASS_DRIVER_H

#include <stdint.h>

#include "crash_config.h"

/* The record file beside the agent's executable. As read_crash_config and write_crash_config. */
int read_load_driver_crash_config(crash_config_record *record);
int write_load_driver_crash_config(crash_config_record *record);

/* Reads a decimal number that the service key holds as text of at most 30 characters with a terminator, 31
 * without; no digits
 * give 0. Result: 0, also when it is no text: value is untouched then; otherwise the Windows error
 * code. */
uint32_t read_load_driver_value(const wchar_t *name, uint32_t *value);

/* The crash count from which on the driver counts as crashing; 3 unless the service key says
 * otherwise. */
uint32_t get_load_driver_crash_threshold(void);

/* As check_driver_bypass. */
bool check_load_driver_bypass(uint32_t wait_count);

/* As get_errortime_string. size is at least 1. */
bool get_load_driver_errortime(char *buffer, int32_t size);

/* Marks the driver as bypassed. Result 0 or the Windows error code. */
uint32_t set_load_driver_crashflag(void);

/* The mark of any driver below its service key. Result as of create_crashflag_key and
 * delete_crashflag_key; ERROR_INVALID_PARAMETER for NULL; ERROR_FILENAME_EXCED_RANGE when the path of
 * the key does not fit into 260 characters. */
uint32_t create_service_crashflag(const wchar_t *service);
uint32_t delete_service_crashflag(const wchar_t *service);

/* As recover_driver. */
uint32_t recover_load_driver(void);

#endif
