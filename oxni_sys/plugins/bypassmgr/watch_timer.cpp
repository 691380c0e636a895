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

void watch_timer_start(const char *name, uint32_t milliseconds, oxni_timer_fn fn, uint64_t *slot)
{
    const uint64_t handle = oxni_timer_start(milliseconds, fn, NULL);

    if (slot != NULL)
        *slot = handle;
    if (handle != 0)
        forget_missed(fn);
    else
        remember_missed({name, milliseconds, fn, slot});
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
            watch_timer_start(timer.name, timer.milliseconds, timer.fn, timer.slot);
    }
}
