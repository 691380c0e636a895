#include "platform_test.h"

#include <stdexcept>

#include <oxni/base/memory.h>
#include <oxni/base/time.h>
#include <oxni/base/timer.h>

namespace
{
class dispatcher : public platform_test
{
  protected:
    /* Timers and posts of a test carry their name as argument. */
    static void fired(void *, void *arg)
    {
        note(static_cast<const char *>(arg));
    }
    static void posted(void *arg)
    {
        note(static_cast<const char *>(arg));
    }
    static uint64_t arm(uint32_t ms, const char *name)
    {
        return oxni_timer_start(ms, fired, const_cast<char *>(name));
    }
    static void post(uint64_t ms, const char *name)
    {
        oxnih_core_post(ms, posted, const_cast<char *>(name));
    }
};

TEST_F(dispatcher, due_time_then_deliveries_then_timers_then_first_come)
{
    arm(100, "t100a");
    arm(50, "t50");
    post(100, "p100a");
    arm(0, "t0");
    arm(100, "t100b");
    post(100, "p100b");
    post(0, "p0");
    EXPECT_EQ("", notes()); /* never inside the call that arms it */
    EXPECT_EQ(1000U, oxnih_core_next_due());
    EXPECT_EQ(0, oxnih_core_run_until(1099));
    EXPECT_EQ("p0 t0 t50", notes());
    EXPECT_EQ(1099U, oxni_time_get_tick_cout());
    EXPECT_EQ(0, oxnih_core_run_until(1100));
    EXPECT_EQ("p100a p100b t100a t100b", notes());
    EXPECT_EQ(UINT64_MAX, oxnih_core_next_due());
}

TEST_F(dispatcher, what_a_timer_queues_goes_before_the_other_timers_of_the_instant)
{
    oxni_timer_start(
        10,
        [](void *, void *) {
            note("t1");
            arm(0, "t0");
            post(0, "p");
        },
        NULL);
    arm(10, "t2");
    oxnih_core_run_until(1010);
    EXPECT_EQ("t1 p t2 t0", notes());
}

TEST_F(dispatcher, time_stands_at_each_event_and_then_at_the_end)
{
    oxni_timer_start(
        390000, [](void *, void *) { note(std::to_string(oxni_time_get_tick_cout())); }, NULL);
    EXPECT_EQ(0, oxnih_core_run_one()); /* nothing is due, and time does not move */
    EXPECT_EQ(1000U, oxni_time_get_tick_cout());
    oxnih_core_run_until(400000);
    EXPECT_EQ("391000", notes());
    EXPECT_EQ(400000U, oxni_time_get_tick_cout());
    EXPECT_EQ(1772366799, oxni_time());
}

TEST_F(dispatcher, sleeping_delivers_nothing_and_time_never_goes_back)
{
    oxni_timer_start(
        10,
        [](void *, void *) {
            note("sleeps");
            oxni_msleep(100);
            note("woke");
        },
        NULL);
    arm(50, "t50");
    arm(200, "t200");
    oxnih_core_run_until(1060);
    EXPECT_EQ("sleeps woke t50", notes());
    EXPECT_EQ(1110U, oxni_time_get_tick_cout());
}

TEST_F(dispatcher, one_at_a_time)
{
    arm(0, "a");
    arm(0, "b");
    EXPECT_EQ(1, oxnih_core_run_one());
    EXPECT_EQ("a", notes());
    EXPECT_EQ(1, oxnih_core_run_one());
    EXPECT_EQ("b", notes());
    EXPECT_EQ(0, oxnih_core_run_one());
}

TEST_F(dispatcher, stopping)
{
    uint64_t a = arm(10, "a"), b = arm(10, "b");
    static uint64_t s_c;

    s_c = arm(20, "c");
    oxni_timer_stop(a);
    oxni_timer_stop(a);
    oxni_timer_stop(0);
    oxni_timer_stop(12345678);
    oxni_timer_start(
        20,
        [](void *timer, void *) {
            oxni_timer_stop(reinterpret_cast<uintptr_t>(timer)); /* itself, that has fired */
            oxni_timer_stop(s_c);
        },
        NULL);
    oxnih_core_run_until(1010);
    EXPECT_EQ("b", notes());
    oxni_timer_stop(b);
    s_c = arm(11, "d"); /* due at 1021, behind the one at 1020 that stops it */
    oxnih_core_run_until(2000);
    EXPECT_EQ("c", notes());
}

TEST_F(dispatcher, handles_are_never_used_again)
{
    uint64_t last = 0;

    EXPECT_EQ(0U, oxni_timer_start(0, NULL, NULL));
    for (int i = 0; i < 3; i++) {
        uint64_t first = arm(5, "t"), second = arm(5, "t");
        EXPECT_GT(first, last);
        EXPECT_GT(second, first);
        oxni_timer_stop(second);
        last = second;
        oxnih_core_reset();
        EXPECT_EQ(UINT64_MAX, oxnih_core_next_due());
    }
}

TEST_F(dispatcher, a_due_time_beyond_all_time_saturates)
{
    oxnih_clock_simulate(utc_100ns(2026, 1, 1, 0, 0, 0), UINT64_MAX - 10);
    arm(0xffffffff, "late");
    arm(5, "soon");
    post(UINT64_MAX, "last");
    oxnih_core_run_until(UINT64_MAX - 1);
    EXPECT_EQ("soon", notes());
    oxnih_core_run_until(UINT64_MAX);
    EXPECT_EQ("last late", notes());
}

TEST_F(dispatcher, nested_calls_are_refused)
{
    oxni_timer_start(
        0,
        [](void *, void *) {
            post(0, "queued");
            note(std::to_string(oxnih_core_run_until(5000)));
            note(std::to_string(oxnih_core_run_one()));
            oxnih_core_reset();
        },
        NULL);
    EXPECT_EQ(0, oxnih_core_run_until(1000));
    EXPECT_EQ("-1 -1 queued", notes());
    EXPECT_EQ("oxnih_core_run_until was called from inside a callback: refused\n"
              "oxnih_core_run_one was called from inside a callback: refused\n"
              "oxnih_core_reset was called from inside a callback: refused",
              complaints());
}

TEST_F(dispatcher, real_time_is_waited_for)
{
    DWORD begin = GetTickCount();

    oxnih_clock_real(1000);
    arm(60, "t60");
    oxnih_core_run_until(1030);
    EXPECT_EQ("", notes());
    oxnih_core_run_until(1080);
    EXPECT_EQ("t60", notes());
    EXPECT_GE(GetTickCount() - begin, 70U);
}

/* The exception starts in this program, or in liboxnibase at the end of the process, and leaves
 * frames of both on its way to the dispatcher, each module with a C++ runtime of its own. */
TEST_F(dispatcher, exceptions_end_the_run_at_its_border)
{
    static int s_unwound;
    struct frame {
        ~frame()
        {
            s_unwound++;
        }
    };
    const struct {
        oxni_timer_fn fn;
        const char *said;
    } rows[] = {
        {[](void *, void *) {
             frame f;
             throw std::range_error("bad conversion");
         }, "an exception of type std::range_error left a callback: bad conversion"},
        {[](void *, void *) {
             frame f;
             oxni_out_of_memory_("x.cpp", 1);
         }, ""                                                                     },
        {[](void *, void *) {
             frame f;
             throw 5;
         }, "an exception of type int left a callback"                             },
    };

    for (const auto &row : rows) {
        s_unwound = 0;
        oxni_timer_start(0, row.fn, NULL);
        arm(0, "behind");
        EXPECT_EQ(-1, oxnih_core_run_until(oxni_time_get_tick_cout() + 10));
        EXPECT_EQ(row.said, complaints());
        EXPECT_EQ(1, s_unwound);
        EXPECT_EQ("", notes());
        EXPECT_EQ(0, oxnih_core_run_until(oxni_time_get_tick_cout() + 10));
        EXPECT_EQ("behind", notes());
    }
}
} // namespace
