/*
 * A kernel driver of the platform and what it records of its crashes: the count in its record file,
 * the time of its last error under its service key, and a volatile key that marks it as bypassed
 * until Windows restarts.
 *
 * No state is kept; any thread of the host, one call at a time.
 */
#ifndef PLATFORM_DRIVER_H
#define PLATFORM_DRIVER_H

#include <stdint.h>

#include "crash_config.h"

#define SERVICES_KEY  L"SYSTEM\\CurrentControlSet\\Services\\"
#define CRASHFLAG_KEY L"crashflag"

/* What differs between the drivers. */
struct platform_driver {
    const char *name; /* in log lines */
    const wchar_t *service;
    const wchar_t *service_key;
    /* Path of the record file. size: of buffer in characters, at least 1. Result: whether the path
     * is known and fits; buffer is empty and the failure is logged when it is not. */
    bool (*record_path)(wchar_t *buffer, int32_t size);
    /* The crash count from which on the driver counts as crashing. */
    uint32_t (*crash_threshold)(void);
    /* Result as of delete_crashflag_key. */
    uint32_t (*delete_crashflag)(void);
};

/* The record file, as read_crash_config and write_crash_config; without a path it cannot be
 * opened. */
int read_driver_record(const platform_driver &driver, crash_config_record *record);
int write_driver_record(const platform_driver &driver, crash_config_record *record);

/* Whether the driver has reached its threshold and its service is stopped. wait_count as for
 * is_service_stopped. */
bool check_driver_bypass(const platform_driver &driver, uint32_t wait_count);

/* Removes the mark and the record file. Result: 0 deleted at the first attempt or missing; the error
 * of the attempt before when a later one succeeds; otherwise the last error. */
uint32_t recover_driver(const platform_driver &driver);

/* Time of a driver's last error, a UTC file time, from its service key. Written on success. */
bool query_errortime(uint64_t *errortime, const wchar_t *path);

/* The same as UTC text "%d-%02d-%02d %02d:%02d:%02d", truncated to size characters with the
 * terminator. buffer is written on success only. */
bool get_errortime_string(char *buffer, int32_t size, const wchar_t *path);

/* Creates the mark below a key of HKEY_LOCAL_MACHINE. create_parent: whether a key that is missing
 * is created, volatile like the mark. Result 0 or the Windows error code. */
uint32_t create_crashflag_key(const wchar_t *parent, bool create_parent);

/* Deletes a mark by its path below HKEY_LOCAL_MACHINE in at most three attempts, 10 ms apart. Result
 * 0, also for ERROR_NOT_FOUND; otherwise the last error. A missing key is an error all the same,
 * unless Windows reports ERROR_NOT_FOUND. */
uint32_t delete_crashflag_key(const wchar_t *path);

/* A UTF-8 path as UTF-16. Result: whether it is UTF-8 and fits into size characters; buffer is empty
 * and the failure is logged when it does not: a truncated path would name another file. */
bool driver_path_utf16(const char *path, wchar_t *buffer, int32_t size);

#endif
