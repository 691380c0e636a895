/* One-shot timers. */
#ifndef OXNI_BASE_TIMER_H
#define OXNI_BASE_TIMER_H

#include <oxni/base/api.h>

/* timer is the handle that oxni_timer_start returned, as a pointer. arg is as passed there. */
typedef void (*oxni_timer_fn)(void *timer, void *arg);

/*
 * Arms a timer that fires once, never inside this call.
 *
 * Result   Its handle, which is not reused in this process; 0 when the timer cannot be armed.
 */
OXNI_API uint64_t oxni_timer_start(uint32_t milliseconds, oxni_timer_fn fn, void *arg);

/* Disarms a timer. Ignores a handle that has fired or never existed. */
OXNI_API void oxni_timer_stop(uint64_t timer);

#endif
