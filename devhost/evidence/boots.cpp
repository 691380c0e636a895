/* Runs of Windows. Other providers use the kernel's event ids too, so the source counts. */
#include "boots.h"

#include "../base/text.h"

/* The string of a start record that contains the time of the start. */
static constexpr int START_TIME_STRING = 6;

bool evidence_is_start(const event_record &event)
{
    return event.is(RECORD_START);
}

bool evidence_is_bug_check(const event_record &event)
{
    return event.is(RECORD_BUG_CHECK);
}

const event_filter &evidence_run_records(void)
{
    static const event_filter records = {
        {RECORD_START, RECORD_SHUTDOWN, RECORD_CLOCK_CHANGE, RECORD_TIME_ZONE, RECORD_UNEXPECTED,
         RECORD_BUG_CHECK}
    };

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
        if (log.events[i].is(RECORD_SHUTDOWN)) {
            run->ending = RUN_ENDED_CLEAN;
            run->told_by = i;
        }
    for (size_t i = next != nullptr ? next->begin : 0; next != nullptr && i < next->end; i++) {
        if (evidence_is_bug_check(log.events[i])) {
            run->ending = RUN_ENDED_BLUE_SCREEN;
            run->told_by = i;
            return;
        }
        if (log.events[i].is(RECORD_UNEXPECTED) &&
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
