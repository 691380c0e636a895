/* Timers that could not be armed, until they are. Host's callbacks. */
#include "watch_timer.h"

#include "bypass_log.h"

/* One timer function each: tag, uptime, link poll, deferred upload, platform drivers. */
#define MISSED_TIMERS 5

struct missed_timer {
    const char *name;
    uint32_t milliseconds;
    oxni_timer_fn fn; /* NULL: the row is free */
    uint64_t *slot;
    bool if_empty; /* another timer in the slot is not replaced */
};

/* Timers to be armed at the next opportunity; a function has one row at most. */
static struct missed_timer s_missed[MISSED_TIMERS];

/* Frees the row of fn. */
static void forget_missed(oxni_timer_fn fn)
{
    for (struct missed_timer &missed : s_missed)
        if (missed.fn == fn)
            missed = {};
}

static void remember_missed(const struct missed_timer &timer)
{
    LOG_WARN("timer of %s cannot be armed", timer.name);
    forget_missed(timer.fn);
    for (struct missed_timer &missed : s_missed) {
        if (missed.fn == NULL) {
            missed = timer;
            return;
        }
    }
}

static void start(const struct missed_timer &timer)
{
    uint64_t handle;

    if (timer.if_empty && *timer.slot != 0) {
        forget_missed(timer.fn);
        return;
    }
    handle = oxni_timer_start(timer.milliseconds, timer.fn, NULL);
    if (timer.slot != NULL)
        *timer.slot = handle;
    if (handle != 0)
        forget_missed(timer.fn);
    else
        remember_missed(timer);
}

void watch_timer_start(const char *name, uint32_t milliseconds, oxni_timer_fn fn, uint64_t *slot)
{
    start({name, milliseconds, fn, slot, false});
}

void watch_timer_start_if_empty(const char *name, uint32_t milliseconds, oxni_timer_fn fn,
                                uint64_t *slot)
{
    start({name, milliseconds, fn, slot, true});
}

void watch_timer_stop(uint64_t *slot, oxni_timer_fn fn)
{
    forget_missed(fn);
    if (*slot == 0)
        return;
    oxni_timer_stop(*slot);
    *slot = 0;
}

void watch_timer_resume(void)
{
    for (const struct missed_timer &missed : s_missed) {
        const struct missed_timer timer = missed;

        if (timer.fn != NULL)
            start(timer);
    }
}
