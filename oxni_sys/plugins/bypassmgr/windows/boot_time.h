/*
 * When Windows started: the creation time of the kernel's System process, or an estimate from the
 * tick count.
 *
 * A boot_time_filetime counts 100 ns since 1601-01-01 00:00 UTC. Nothing here keeps state: each call
 * reads the system afresh, on the caller's thread.
 */
#ifndef BOOT_TIME_H
#define BOOT_TIME_H

#include <stdint.h>

typedef uint64_t boot_time_filetime;

/*
 * Finds the System process in a snapshot of all processes.
 *
 * process_id  Written when it is found.
 * Result      0 found; ERROR_NOT_FOUND no such process; ERROR_INVALID_PARAMETER for NULL; otherwise
 *             the error of the call that failed.
 */
uint32_t find_system_process_id(uint32_t *process_id);

/*
 * Creation time of the System process.
 *
 * start_time  Written whenever the time could be read, also when the result is not 0.
 * Result      0 only when the process was found and its time read and not zero; ERROR_NOT_SUPPORTED
 *             for a time of zero; otherwise the error of the search or of the failing call. A time
 *             read through the usual process id after a failed search counts as a failure.
 */
uint32_t get_system_process_start_time(boot_time_filetime *start_time);

/* Milliseconds since Windows started; wraps after 49.7 days on a system without GetTickCount64. */
uint64_t get_tick_count_ms(void);

/* Now less the time since Windows started. */
boot_time_filetime estimate_boot_filetime(void);

/* The boot moment in seconds since 1970-01-01 00:00 UTC. Tries four times and sleeps 500 ms after
 * each failure, then estimates; never fails. */
uint64_t get_bootup_time(void);

/* The boot moment as a boot_time_filetime, for signed comparisons. One try, then the estimate;
 * never fails. */
int64_t get_systempro_time(void);

#endif
