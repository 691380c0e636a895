/* One-shot timers. */
#ifndef OXNI_BASE_TIMER_H
#define OXNI_BASE_TIMER_H

#include <oxni/base/api.h>

/* timer: the handle that oxni_timer_start gave, as a pointer. arg: as given there. */
typedef void (*oxni_timer_fn)(void *timer, void *arg);

/*
 * Arms a timer that fires once, never from inside this call.
 *
 * Result   Its handle: never 0 and never used again in this process. 0 when it cannot be armed.
 */
OXNI_API uint64_t oxni_timer_start(uint32_t milliseconds, oxni_timer_fn fn, void *arg);

/* Disarms a timer. One that has fired or never was is harmless. */
OXNI_API void oxni_timer_stop(uint64_t timer);

#endif
