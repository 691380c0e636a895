/* The event queue and the timers in it. The host's thread. */
#include "core.h"

#include <cstdlib>
#include <cxxabi.h>
#include <exception>
#include <map>
#include <typeinfo>

#include <oxni/base/timer.h>

enum event_rank {
    RANK_DELIVERY,
    RANK_TIMER
};

/* Order of events: by due time, deliveries before timers, then first in, first out. */
struct queue_key {
    uint64_t due_ms;
    event_rank rank;
    uint64_t id;

    bool operator<(const queue_key &other) const
    {
        if (due_ms != other.due_ms)
            return due_ms < other.due_ms;
        return rank != other.rank ? rank < other.rank : id < other.id;
    }
};

struct dispatcher_state {
    std::map<queue_key, std::function<void()>> queue;
    std::map<uint64_t, queue_key> timers; /* pending ones, by handle */
    uint64_t last_id = 0;
    bool running = false;
    oxnih_observer_fn observer = nullptr;
    void *observer_user = nullptr;
};

/* Never destroyed, like all state of this library: its destructors need libraries that may be
 * unloaded before this one. */
static dispatcher_state &s_dispatcher = *new dispatcher_state;

__attribute__((constructor)) static void set_up()
{
    oxnih_memory_see_through(reinterpret_cast<const void *>(&set_up));
}

uint64_t dispatcher_new_id()
{
    return ++s_dispatcher.last_id;
}

static queue_key queue_event(uint64_t delay_ms, event_rank rank, uint64_t id,
                             std::function<void()> run)
{
    uint64_t now = oxnih_clock_tick_ms();
    queue_key key = {delay_ms > UINT64_MAX - now ? UINT64_MAX : now + delay_ms, rank, id};

    s_dispatcher.queue.emplace(key, std::move(run));
    return key;
}

void dispatcher_queue(uint64_t delay_ms, std::function<void()> run)
{
    queue_event(delay_ms, RANK_DELIVERY, dispatcher_new_id(), std::move(run));
}

void dispatcher_tell(const oxnih_event &event)
{
    if (s_dispatcher.observer != nullptr)
        s_dispatcher.observer(&event, s_dispatcher.observer_user);
}

void oxnih_core_set_observer(oxnih_observer_fn fn, void *user)
{
    s_dispatcher.observer = fn;
    s_dispatcher.observer_user = user;
}

static void tell_timer(enum oxnih_event_kind kind, uint64_t timer, uint64_t delay_ms)
{
    oxnih_event event = {};

    event.kind = kind;
    event.timer = timer;
    event.delay_ms = delay_ms;
    dispatcher_tell(event);
}

static void *handle_of(uint64_t timer)
{
    return reinterpret_cast<void *>(static_cast<uintptr_t>(timer));
}

uint64_t oxni_timer_start(uint32_t milliseconds, oxni_timer_fn fn, void *arg)
{
    if (fn == nullptr)
        return 0;
    uint64_t timer = dispatcher_new_id();
    s_dispatcher.timers[timer] = queue_event(milliseconds, RANK_TIMER, timer, [timer, fn, arg] {
        s_dispatcher.timers.erase(timer);
        tell_timer(OXNIH_EVENT_TIMER_FIRED, timer, 0);
        fn(handle_of(timer), arg);
    });
    tell_timer(OXNIH_EVENT_TIMER_ARMED, timer, milliseconds);
    return timer;
}

void oxni_timer_stop(uint64_t timer)
{
    auto at = s_dispatcher.timers.find(timer);

    if (at == s_dispatcher.timers.end())
        return;
    s_dispatcher.queue.erase(at->second);
    s_dispatcher.timers.erase(at);
    tell_timer(OXNIH_EVENT_TIMER_STOPPED, timer, 0);
}

static void complain_of_exception(const char *what)
{
    if (oxnih_exit_taken())
        return;
    const std::type_info *type = abi::__cxa_current_exception_type();
    int status = -1;
    char *name =
        type == nullptr ? nullptr : abi::__cxa_demangle(type->name(), nullptr, nullptr, &status);

    oxnih_complain("an exception of type %s left a callback%s%s",
                   name != nullptr ? name : "(unknown)", what[0] == '\0' ? "" : ": ", what);
    free(name);
}

/* The boundary between plug-ins and platform: no exception crosses it. Result 1; -1 an
 * exception. */
static int run_guarded(const std::function<void()> &run)
{
    int result = 1;

    s_dispatcher.running = true;
    (void)oxnih_exit_taken(); /* clears the flag of an earlier run */
    try {
        run();
    } catch (const std::exception &thrown) {
        complain_of_exception(thrown.what());
        result = -1;
    } catch (...) {
        complain_of_exception("");
        result = -1;
    }
    s_dispatcher.running = false;
    return result;
}

static int run_first()
{
    auto first = s_dispatcher.queue.begin();
    std::function<void()> run = std::move(first->second);

    s_dispatcher.queue.erase(first);
    int result = run_guarded(run);

    tell_timer(OXNIH_EVENT_DELIVERED, 0, 0);
    return result;
}

/* Returns true and complains when a callback is running: the call must be rejected. */
static bool refuse_nested(const char *call)
{
    if (s_dispatcher.running)
        oxnih_complain("%s was called from inside a callback: refused", call);
    return s_dispatcher.running;
}

static void wait_until(uint64_t tick_ms)
{
    /* A real sleep may end slightly early. */
    for (uint64_t now = oxnih_clock_tick_ms(); now < tick_ms; now = oxnih_clock_tick_ms())
        oxnih_clock_advance(tick_ms - now);
}

int oxnih_core_run_until(uint64_t tick_ms)
{
    if (refuse_nested("oxnih_core_run_until"))
        return -1;
    while (oxnih_core_next_due() <= tick_ms && !s_dispatcher.queue.empty()) {
        wait_until(oxnih_core_next_due());
        if (run_first() < 0)
            return -1;
    }
    wait_until(tick_ms);
    return 0;
}

int oxnih_core_run_one(void)
{
    if (refuse_nested("oxnih_core_run_one"))
        return -1;
    if (s_dispatcher.queue.empty() || oxnih_core_next_due() > oxnih_clock_tick_ms())
        return 0;
    return run_first();
}

uint64_t oxnih_core_next_due(void)
{
    return s_dispatcher.queue.empty() ? UINT64_MAX : s_dispatcher.queue.begin()->first.due_ms;
}

void oxnih_core_post(uint64_t delay_ms, void (*fn)(void *user), void *user)
{
    dispatcher_queue(delay_ms, [fn, user] { fn(user); });
}

void oxnih_core_reset(void)
{
    if (refuse_nested("oxnih_core_reset"))
        return;
    s_dispatcher.queue.clear();
    s_dispatcher.timers.clear();
    console_reset();
    resource_reset();
    push_reset();
    subscriber_reset();
}
