/* The agent's clock, conversions and sleeps. */
#ifndef OXNI_BASE_TIME_H
#define OXNI_BASE_TIME_H

#include <time.h>
#include <windows.h>

#include <oxni/base/api.h>

/* Now, in seconds since 1970-01-01 00:00 UTC. */
OXNI_API int64_t oxni_time(void);

/* Milliseconds since Windows started. (The name is the platform's.) */
OXNI_API uint64_t oxni_time_get_tick_cout(void);

/*
 * Breaks a moment down into local time by the zone's rules for that date; moments at and before
 * 1970 are fine.
 *
 * seconds  Since 1970-01-01 00:00 UTC.
 * local    Members as of the C library's struct tm; all zero on failure.
 * Result   0 done; -1 a null argument or a date outside the years 1601 to 30827.
 */
OXNI_API int oxni_time_stamp_to_local(int64_t seconds, struct tm *local);

/* The moment as a *local* file time: its UTC file time through FileTimeToLocalFileTime, which uses
 * the bias in force now. A date that FILETIME cannot hold gives 0. */
OXNI_API void oxni_timet_to_filetime(int64_t seconds, FILETIME *local);

/* A *UTC* file time in seconds since 1970, truncated toward the past; 0 for NULL. */
OXNI_API int64_t oxni_filetime_to_timet(const FILETIME *utc);

/* Waits; nothing is delivered to the plug-in meanwhile. */
OXNI_API void oxni_msleep(unsigned milliseconds);
OXNI_API void oxni_sleep(unsigned seconds);

#endif
