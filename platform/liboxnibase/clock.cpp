/* The clock of the whole process, and its time zone. The host's thread. */
#include "base.h"

#include <algorithm>

#include <oxni/base/time.h>

struct clock_state {
    bool simulated;
    uint64_t now_100ns, tick_ms;         /* simulated */
    uint64_t base_tick_ms, real_base_ms; /* real: our tick and the machine's tick at the start */
    bool zone_set;
    TIME_ZONE_INFORMATION zone;
};

static clock_state s_clock;

void oxnih_clock_simulate(uint64_t now_100ns, uint64_t tick_ms)
{
    s_clock.simulated = true;
    s_clock.now_100ns = now_100ns;
    s_clock.tick_ms = tick_ms;
}

void oxnih_clock_real(uint64_t tick_base_ms)
{
    s_clock.simulated = false;
    s_clock.base_tick_ms = tick_base_ms;
    s_clock.real_base_ms = GetTickCount64();
}

int oxnih_clock_is_simulated(void)
{
    return s_clock.simulated;
}

uint64_t oxnih_clock_now_100ns(void)
{
    FILETIME now;

    if (s_clock.simulated)
        return s_clock.now_100ns;
    GetSystemTimeAsFileTime(&now);
    return static_cast<uint64_t>(now.dwHighDateTime) << 32 | now.dwLowDateTime;
}

uint64_t oxnih_clock_tick_ms(void)
{
    if (s_clock.simulated)
        return s_clock.tick_ms;
    return s_clock.base_tick_ms + (GetTickCount64() - s_clock.real_base_ms);
}

static uint64_t add_saturating(uint64_t a, uint64_t b)
{
    return a > UINT64_MAX - b ? UINT64_MAX : a + b;
}

void oxnih_clock_advance(uint64_t ms)
{
    if (s_clock.simulated) {
        uint64_t most = UINT64_MAX / BASE_MS_100NS;
        s_clock.tick_ms = add_saturating(s_clock.tick_ms, ms);
        s_clock.now_100ns = add_saturating(s_clock.now_100ns, std::min(ms, most) * BASE_MS_100NS);
        return;
    }
    while (ms > 0) {
        /* INFINITE would sleep forever. */
        DWORD part = static_cast<DWORD>(std::min<uint64_t>(ms, INFINITE - 1));
        Sleep(part);
        ms -= part;
    }
}

void oxnih_clock_set_wall(uint64_t now_100ns)
{
    if (s_clock.simulated)
        s_clock.now_100ns = now_100ns;
}

void oxnih_clock_set_zone(const TIME_ZONE_INFORMATION *zone)
{
    s_clock.zone_set = zone != nullptr;
    if (zone != nullptr)
        s_clock.zone = *zone;
}

const TIME_ZONE_INFORMATION *clock_zone()
{
    return s_clock.zone_set ? &s_clock.zone : nullptr;
}

int64_t oxni_time(void)
{
    FILETIME now;
    uint64_t now_100ns = oxnih_clock_now_100ns();

    now.dwLowDateTime = static_cast<DWORD>(now_100ns);
    now.dwHighDateTime = static_cast<DWORD>(now_100ns >> 32);
    return oxni_filetime_to_timet(&now);
}

uint64_t oxni_time_get_tick_cout(void)
{
    return oxnih_clock_tick_ms();
}

void oxni_msleep(unsigned milliseconds)
{
    oxnih_clock_advance(milliseconds);
}

void oxni_sleep(unsigned seconds)
{
    oxnih_clock_advance(static_cast<uint64_t>(seconds) * 1000);
}
