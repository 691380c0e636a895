/* What load_driver keeps of its crashes: the count in its record file, the error time and the
 * threshold under its service key, and the key that marks it as bypassed until Windows restarts.
 * No state is kept; any thread of the host, one call at a time. */
#ifndef BYPASS_DRIVER_H
#define BYPASS_DRIVER_H

#include <stdint.h>

#include <windows.h>

#include "crash_config.h"

#define CRASHFLAG_KEY L"crashflag"

/* The record file beside the agent's executable. As read_crash_config and write_crash_config. */
int read_load_driver_crash_config(crash_config_record *record);
int write_load_driver_crash_config(crash_config_record *record);

/* Reads a decimal number that the service key holds as text of at most 30 characters; no digits
 * give 0. Result: 0, also when it is no text: value is untouched then; otherwise the Windows error
 * code. */
uint32_t read_load_driver_value(const wchar_t *name, uint32_t *value);

/* The crash count from which on the driver counts as crashing; 3 unless the service key says
 * otherwise. */
uint32_t get_load_driver_crash_threshold(void);

/* 1 when the driver has reached its threshold and its service is stopped, otherwise 0. wait_count
 * as for is_service_stopped. */
int check_load_driver_bypass(uint32_t wait_count);

/* Whether a service is stopped; one that starts or stops is asked at most wait_count times, once a
 * second. Result: 1 stopped, not installed, or its state cannot be queried; 0 any other state, also
 * when the service manager or the service cannot be opened. */
int is_service_stopped(int32_t wait_count, const wchar_t *service);

/* Time of a driver's last error, a UTC file time, from its service key. Written on success. */
bool query_errortime(uint64_t *errortime, const wchar_t *path);

/* The same as UTC text "%d-%02d-%02d %02d:%02d:%02d", cut to size characters with the terminator.
 * buffer is written on success only. */
bool get_errortime_string(char *buffer, int32_t size, const wchar_t *path);
bool get_load_driver_errortime(char *buffer, int32_t size);

/* Marks load_driver as bypassed. Result 0 or the Windows error code. */
uint32_t set_load_driver_crashflag(void);

/* The mark of any driver under its service key. Result 0 or the Windows error code;
 * ERROR_INVALID_PARAMETER for NULL. Deleting tries three times: a missing key is an error all the
 * same, unless Windows says ERROR_NOT_FOUND. */
uint32_t create_service_crashflag(const wchar_t *service);
uint32_t delete_service_crashflag(const wchar_t *service);

/* Removes the mark and the record file of load_driver. Result as of delete_crash_record. */
uint32_t recover_load_driver(void);

/* Shared with oxnisp_driver: */

/* Creates the mark below an open key, volatile. Result 0 or the Windows error code. */
uint32_t create_crashflag_below(HKEY parent);

/* Deletes a key of HKEY_LOCAL_MACHINE in at most three tries, 10 ms apart. Result 0, also for
 * ERROR_NOT_FOUND; otherwise the last error. */
uint32_t delete_crashflag_key(const wchar_t *path);

/* Deletes a driver's record file in at most three tries, 10 ms apart. Result: 0 deleted at once or
 * not there; the error of the try before when a later one succeeds; otherwise the last error. */
uint32_t delete_crash_record(const wchar_t *path, const char *driver);

#endif
