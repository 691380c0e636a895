#include "platform_test.h"

#include <stdexcept>

#include <oxni/base/memory.h>
#include <oxni/base/timer.h>

namespace
{
class dispatcher : public platform_test
{
  protected:
    /* Arms a timer, or queues a post, that records its name. */
    static uint64_t arm(uint32_t ms, const char *name)
    {
        return oxni_timer_start(
            ms, [](void *, void *arg) { note(static_cast<const char *>(arg)); },
            const_cast<char *>(name));
    }
    static void post(uint64_t ms, const char *name)
    {
        oxnih_core_post(
            ms, [](void *arg) { note(static_cast<const char *>(arg)); }, const_cast<char *>(name));
    }
    /* Arms a timer that runs code. */
    static uint64_t at(uint32_t ms, void (*code)())
    {
        return oxni_timer_start(
            ms, [](void *, void *arg) { reinterpret_cast<void (*)()>(arg)(); },
            reinterpret_cast<void *>(code));
    }
};

TEST_F(dispatcher, order_is_due_time_then_deliveries_then_timers_then_fifo)
{
    at(100, [] {
        note("t100a");
        arm(0, "queued");
        post(0, "p100c");
    });
    arm(50, "t50");
    post(100, "p100a");
    arm(0, "t0");
    arm(100, "t100b");
    post(100, "p100b");
    post(0, "p0");
    post(UINT64_MAX, "beyond all time");
    EXPECT_EQ("", notes()); /* never inside the call that arms it */
    EXPECT_EQ(1, oxnih_core_run_one());
    EXPECT_EQ(1, oxnih_core_run_one());
    EXPECT_EQ(0, oxnih_core_run_one()); /* nothing else is due, and time does not advance */
    EXPECT_EQ("p0 t0", notes());
    run(99);
    EXPECT_EQ("t50", notes());
    run(1);
    EXPECT_EQ("p100a p100b t100a p100c t100b queued", notes());
}

TEST_F(dispatcher, clock_stops_at_each_event_and_sleeping_delivers_nothing)
{
    at(390000, [] {
        note(std::to_string(oxni_time_get_tick_cout()));
        oxni_msleep(100);
        note("woke");
    });
    arm(390050, "t50");
    run(390060);
    EXPECT_EQ("391000 woke t50", notes());
    EXPECT_EQ(391100U, oxni_time_get_tick_cout()); /* run(390060) does not set it back */
}

TEST_F(dispatcher, stopped_timers_do_not_fire)
{
    static uint64_t s_own, s_other;
    uint64_t a = arm(10, "a"), b = arm(10, "b");

    oxni_timer_stop(a);
    oxni_timer_stop(a);
    s_own = at(20, [] {
        oxni_timer_stop(s_own); /* has fired */
        oxni_timer_stop(s_other);
        note("own");
    });
    run(10);
    EXPECT_EQ("b", notes());
    oxni_timer_stop(b);
    s_other = arm(10, "same instant");
    arm(11, "c");
    run(100);
    EXPECT_EQ("own c", notes());
    arm(5, "forgotten");
    oxnih_core_reset();
    EXPECT_EQ(UINT64_MAX, oxnih_core_next_due());
    EXPECT_GT(arm(5, "t"), s_other); /* handles are not reused */
}

TEST_F(dispatcher, nested_calls_are_rejected)
{
    at(0, [] {
        post(0, "queued");
        note(std::to_string(oxnih_core_run_until(5000)));
        note(std::to_string(oxnih_core_run_one()));
        oxnih_core_reset();
    });
    run(0);
    EXPECT_EQ("-1 -1 queued", notes());
    std::string said = complaints();
    EXPECT_EQ(0U, said.find("oxnih_core_run_until was called from inside a callback: refused\n"));
    EXPECT_EQ(2, std::count(said.begin(), said.end(), '\n')) << said;
}

/* The exceptions are thrown in this program or in liboxnibase. They unwind frames of several
 * modules, each with its own C++ runtime, before the dispatcher catches them. */
TEST_F(dispatcher, exceptions_end_the_run)
{
    struct frame {
        ~frame()
        {
            note("unwound");
        }
    };
    /* clang-format off */
    const struct {
        void (*code)();
        const char *said;
    } rows[] = {
        {[] { frame f; throw std::range_error("bad conversion"); },
         "an exception of type std::range_error left a callback: bad conversion"},
        {[] { frame f; oxni_out_of_memory_("x.cpp", 1); }, ""},
    };
    /* clang-format on */

    for (const auto &row : rows) {
        at(0, row.code);
        arm(0, "behind");
        EXPECT_EQ(-1, oxnih_core_run_until(UINT64_MAX));
        EXPECT_EQ(row.said, complaints());
        EXPECT_EQ("unwound", notes());
        run(0);
        EXPECT_EQ("behind", notes());
    }
}
} // namespace
