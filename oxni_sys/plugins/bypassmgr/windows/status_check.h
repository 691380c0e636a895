/* The timed check after boot: how did the previous run of Windows end? Runs on the host's timer
 * thread. */
#ifndef STATUS_CHECK_H
#define STATUS_CHECK_H

#include <string>

#include <stdint.h>

#include "crash_info.h"

struct event_info;

enum status_check_result {
    STATUS_CHECK_NORMAL = 0,              /* neither crash nor unexpected shutdown */
    STATUS_CHECK_FAILED = 1,              /* the check could not go on */
    STATUS_CHECK_CRASH = 2,               /* a blue screen was recorded since the last start */
    STATUS_CHECK_UNEXPECTED_SHUTDOWN = 3, /* power loss or reset, and no blue screen */
};

/*
 * The verdict of a check; called exactly once per check, everything but user borrowed for the call.
 *
 * result              enum status_check_result.
 * modules, dump_path  As of find_new_crash_dump; empty unless result is STATUS_CHECK_CRASH.
 * event               Always empty.
 * Result              Ignored. An exception is logged and ignored, too.
 */
typedef int (*status_check_cb)(int32_t result, const crash_module_set &modules,
                               const std::string &dump_path, const event_info &event, void *user);

/* Starts a check: a poll every 30 s, by timers, until the log has the answer or the polls are used
 * up. Several checks may run side by side; none can be stopped. Result: 1 started; 0 callback is
 * NULL, or was already called with STATUS_CHECK_FAILED. Throws nothing. */
int32_t start_bypass_status_check(status_check_cb callback, void *user);

#endif
