/* The agent's clock, conversions and sleeps. */
#ifndef OXNI_BASE_TIME_H
#define OXNI_BASE_TIME_H

#include <time.h>
#include <windows.h>

#include <oxni/base/api.h>

/* Returns the current time in seconds since 1970-01-01 00:00 UTC. */
OXNI_API int64_t oxni_time(void);

/* Returns the milliseconds since Windows started. (The platform spells the name this way.) */
OXNI_API uint64_t oxni_time_get_tick_cout(void);

/*
 * Converts a time to local time by the zone's rules for that date. Times in and before 1970 are
 * valid.
 *
 * seconds  Since 1970-01-01 00:00 UTC.
 * local    The C library's struct tm; all zero on failure.
 * Result   0; -1 for a null argument or a date outside the years 1601 to 30827, inclusive.
 */
OXNI_API int oxni_time_stamp_to_local(int64_t seconds, struct tm *local);

/* Converts a time to a *local* file time: FileTimeToLocalFileTime of its UTC file time, which uses
 * the current bias. A date that FILETIME cannot represent gives 0. */
OXNI_API void oxni_timet_to_filetime(int64_t seconds, FILETIME *local);

/* Returns a *UTC* file time in seconds since 1970, rounded toward the past; 0 for NULL. */
OXNI_API int64_t oxni_filetime_to_timet(const FILETIME *utc);

/* Sleep. Nothing is delivered to the plug-in meanwhile. */
OXNI_API void oxni_msleep(unsigned milliseconds);
OXNI_API void oxni_sleep(unsigned seconds);

#endif
