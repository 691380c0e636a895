/*
 * When Windows started: the creation time of the kernel's System process, or an estimate from the
 * tick count.
 *
 * A boot_time_filetime counts 100 ns since 1601-01-01 00:00 UTC. Nothing here keeps state: each
 * call reads the system afresh, on the caller's thread.
 */
#ifndef BOOT_TIME_H
#define BOOT_TIME_H

#include <stdint.h>

typedef uint64_t boot_time_filetime;

/* Finds the System process; its id is written when found. Result: 0; ERROR_NOT_FOUND;
 * ERROR_INVALID_PARAMETER for NULL; otherwise the error of the call that failed. */
uint32_t find_system_process_id(uint32_t *process_id);

/* Creation time of the System process, written whenever it can be read. Result: 0 only when the
 * process was found too and the time is not zero (ERROR_NOT_SUPPORTED); otherwise the error of the
 * search or of the failing call. */
uint32_t get_system_process_start_time(boot_time_filetime *start_time);

/* Milliseconds since Windows started; wraps after 49.7 days on a system without GetTickCount64. */
uint64_t get_tick_count_ms(void);

/* Now less the time since Windows started. */
boot_time_filetime estimate_boot_filetime(void);

/* The boot moment in seconds since 1970-01-01 00:00 UTC. Never fails: sleeps 500 ms after each of
 * up to four failed attempts, then estimates. */
uint64_t get_bootup_time(void);

/* The boot moment as a boot_time_filetime. Never fails: one attempt, then the estimate. */
int64_t get_systempro_time(void);

#endif
