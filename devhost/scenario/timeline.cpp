/* The timeline of a boot. */
#include "timeline.h"

#include <cmath>

#include <map>
#include <utility>

#include "../../platform/liboxnibase/host.h"
#include "../machine/machine.h"
#include "../base/text.h"

/* The actions of this boot, by their moment; of one moment, steps with "before" have key false. */
static std::multimap<std::pair<uint64_t, bool>, planned_action> s_plan;

void timeline_at(uint64_t ms, std::function<void()> run, bool before)
{
    s_plan.emplace(std::make_pair(ms, !before), planned_action{ms, before, std::move(run)});
}

bool timeline_take(uint64_t end_ms, planned_action *action)
{
    auto first = s_plan.begin();

    if (first == s_plan.end() || first->second.ms > end_ms)
        return false;
    *action = std::move(first->second);
    s_plan.erase(first);
    return true;
}

void timeline_clear(void)
{
    s_plan.clear();
}

uint64_t timeline_now_ms(void)
{
    return oxnih_clock_tick_ms();
}

double timeline_seconds(const node &step)
{
    return step.number("at", 0);
}

uint64_t timeline_ms(double seconds)
{
    return static_cast<uint64_t>(llround(seconds * 1000.0));
}

uint64_t timeline_time(const node &value, uint64_t missing)
{
    uint64_t time;

    if (!value)
        return missing;
    if (value->IsNumber()) {
        int64_t ticks = static_cast<int64_t>(value->GetDouble() * TICKS_PER_SECOND);

        return machine_get().boot_100ns + static_cast<uint64_t>(ticks);
    }
    if (!value->IsString() || !time_parse(value->GetString(), &time))
        value.bad("expected a time such as 2024-03-07T09:05:41Z, or seconds");
    return time;
}
