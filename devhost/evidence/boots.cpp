/* Runs of Windows. Other providers use the kernel's event ids too, so the source counts. */
#include "boots.h"

#include "../base/text.h"
#include "../base/system_events.h"

/* The string of a start record that contains the time of the start. */
static constexpr int START_TIME_STRING = 6;

static bool is(const event_record &event, const wchar_t *source, uint32_t id)
{
    return (event.id & 0xffff) == id && event.source == source;
}

bool evidence_is_start(const event_record &event)
{
    return is(event, SOURCE_KERNEL_GENERAL, EVENT_WINDOWS_START);
}

bool evidence_is_clock_change(const event_record &event)
{
    return is(event, SOURCE_KERNEL_GENERAL, EVENT_CLOCK_CHANGE);
}

bool evidence_is_bug_check(const event_record &event)
{
    return is(event, SOURCE_BUG_CHECK, EVENT_BUG_CHECK);
}

namespace
{
class run_records final : public event_filter
{
  public:
    bool wants_id(uint32_t id) const override
    {
        for (const auto &each : RECORDS)
            if (each.id == id)
                return true;
        return false;
    }
    bool wants(uint32_t id, const std::wstring &source) const override
    {
        for (const auto &each : RECORDS)
            if (each.id == id && source == each.source)
                return true;
        return false;
    }

  private:
    struct record {
        const wchar_t *source;
        uint32_t id;
    };
    static constexpr record RECORDS[] = {
        {SOURCE_KERNEL_GENERAL, EVENT_WINDOWS_START      },
        {SOURCE_KERNEL_GENERAL, EVENT_CLEAN_SHUTDOWN     },
        {SOURCE_KERNEL_GENERAL, EVENT_CLOCK_CHANGE       },
        {SOURCE_KERNEL_GENERAL, EVENT_TIME_ZONE          },
        {SOURCE_KERNEL_POWER,   EVENT_UNEXPECTED_SHUTDOWN},
        {SOURCE_BUG_CHECK,      EVENT_BUG_CHECK          },
    };
};
} // namespace

const event_filter &evidence_run_records(void)
{
    static const run_records records;

    return records;
}

/* The record contains the time of the start; it is written a little later. */
static uint64_t started(const event_record &event)
{
    uint64_t time;

    if (time_parse(text_narrow(event.strings.at(START_TIME_STRING)), &time))
        return time;
    return time_of_unix(event.time);
}

bool evidence_is_unexpected(const event_record &event)
{
    return is(event, SOURCE_KERNEL_POWER, EVENT_UNEXPECTED_SHUTDOWN);
}

bool evidence_is_time_zone(const event_record &event)
{
    return is(event, SOURCE_KERNEL_GENERAL, EVENT_TIME_ZONE);
}

/* The code is 0 after a loss of power; older Windows writes no string. */
uint32_t evidence_unexpected_code(const event_record &event)
{
    return static_cast<uint32_t>(wcstoul(event.strings.at(0).c_str(), nullptr, 0));
}

/* The next run's records show a crash or a loss of power, the run's own records a shutdown. A run
 * that crashed while it shut down did not end clean. */
static void find_ending(const evidence_log &log, evidence_run *run, const evidence_run *next)
{
    for (size_t i = run->begin; i < run->end; i++)
        if (is(log.events[i], SOURCE_KERNEL_GENERAL, EVENT_CLEAN_SHUTDOWN)) {
            run->ending = RUN_ENDED_CLEAN;
            run->told_by = i;
        }
    for (size_t i = next != nullptr ? next->begin : 0; next != nullptr && i < next->end; i++) {
        if (evidence_is_bug_check(log.events[i])) {
            run->ending = RUN_ENDED_BLUE_SCREEN;
            run->told_by = i;
            return;
        }
        if (evidence_is_unexpected(log.events[i]) &&
            (run->told_by == NO_RECORD || run->told_by < next->begin)) {
            run->ending = evidence_unexpected_code(log.events[i]) == 0 ? RUN_ENDED_POWER_LOSS
                                                                       : RUN_ENDED_BLUE_SCREEN;
            run->told_by = i;
        }
    }
}

std::vector<evidence_run> evidence_runs(const evidence_log &log)
{
    std::vector<evidence_run> runs;
    size_t number = 0;

    if (log.records > 0 && (log.events.empty() || !evidence_is_start(log.events[0]) ||
                            log.events[0].number > log.first_number))
        runs.push_back({0, 0, log.events.size(), log.first_number, log.last_number, 0,
                        RUN_ENDED_UNKNOWN, NO_RECORD});
    for (size_t i = 0; i < log.events.size(); i++) {
        const event_record &event = log.events[i];

        if (!evidence_is_start(event))
            continue;
        if (!runs.empty()) {
            runs.back().end = i;
            runs.back().last_record = event.number - 1;
        }
        runs.push_back({++number, i, log.events.size(), event.number, log.last_number,
                        started(event), RUN_ENDED_UNKNOWN, NO_RECORD});
    }
    for (size_t i = 0; i < runs.size(); i++)
        find_ending(log, &runs[i], i + 1 < runs.size() ? &runs[i + 1] : nullptr);
    return runs;
}
const char *evidence_ending_name(enum run_ending ending)
{
    static const char *const names[] = {"unknown", "clean", "blue screen", "power loss"};

    return names[ending];
}
