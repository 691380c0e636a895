/*
 * Timers of long watches. One that cannot be armed is logged, remembered, and armed at the next
 * opportunity, so that no watch ends silently. Of several chains of one function that miss, one is
 * armed again.
 *
 * Thread  Host's callbacks, one at a time.
 */
#ifndef WATCH_TIMER_H
#define WATCH_TIMER_H

#include <stdint.h>

#include <oxni/base/timer.h>

/*
 * Arms a one-shot timer.
 *
 * name     For the log.
 * slot     Receives the handle, 0 when it cannot be armed; may be NULL. Lives as long as the
 *          process: a later attempt writes it, too.
 */
void watch_timer_start(const char *name, uint32_t milliseconds, oxni_timer_fn fn, uint64_t *slot);

/* The same, unless the slot holds a timer: then, or when it does at a later attempt, nothing is
 * armed. */
void watch_timer_start_if_empty(const char *name, uint32_t milliseconds, oxni_timer_fn fn,
                                uint64_t *slot);

/* Stops the timer in a slot, if any, empties the slot, and forgets a timer of fn that could not be
 * armed. */
void watch_timer_stop(uint64_t *slot, oxni_timer_fn fn);

/* Arms the timers that could not be armed before. Called at each event of a subscriber, and by the
 * uptime timer. */
void watch_timer_resume(void);

#endif
