/* Runs of Windows. The record of a start is the kernel's own: other providers use its number
 * too. */
#include "boots.h"

#include "../base/text.h"
#include "system_events.h"

/* The place of the boot's moment among the strings of a start record. */
#define START_TIME_STRING 6

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

/* The boot's moment is in the record itself; the record is written a little later. */
static uint64_t started(const event_record &event)
{
    uint64_t time;

    if (time_parse(text_narrow(event.strings.at(START_TIME_STRING)), &time))
        return time;
    return time_of_unix(event.time);
}

/* The record of an unexpected shutdown has the code of the blue screen that it came by; 0, or none
 * in older Windows, says that there was none. */
static enum run_ending unexpected_ending(const event_record &event)
{
    const std::wstring code = event.strings.at(0);

    return code.empty() || wcstoul(code.c_str(), NULL, 0) == 0 ? RUN_ENDED_POWER_LOSS
                                                               : RUN_ENDED_BLUE_SCREEN;
}

/* The records of the next start tell of a crash or a loss of power; a shutdown stands in the run
 * itself. A run that began to shut down and crashed then did not end clean. */
static void find_ending(const evidence_log &log, evidence_run *run, const evidence_run *next)
{
    for (size_t i = run->begin; i < run->end; i++)
        if (is(log.events[i], SOURCE_KERNEL_GENERAL, EVENT_CLEAN_SHUTDOWN)) {
            run->ending = RUN_ENDED_CLEAN;
            run->told_by = i;
        }
    for (size_t i = next != NULL ? next->begin : 0; next != NULL && i < next->end; i++) {
        if (evidence_is_bug_check(log.events[i])) {
            run->ending = RUN_ENDED_BLUE_SCREEN;
            run->told_by = i;
            return;
        }
        if (is(log.events[i], SOURCE_KERNEL_POWER, EVENT_UNEXPECTED_SHUTDOWN) &&
            (run->told_by == NO_RECORD || run->told_by < next->begin)) {
            run->ending = unexpected_ending(log.events[i]);
            run->told_by = i;
        }
    }
}

std::vector<evidence_run> evidence_runs(const evidence_log &log)
{
    std::vector<evidence_run> runs;
    size_t number = 0;

    for (size_t i = 0; i < log.events.size(); i++) {
        const bool start = evidence_is_start(log.events[i]);

        if (start || i == 0) {
            number += start ? 1 : 0;
            if (!runs.empty())
                runs.back().end = i;
            runs.push_back({number, i, log.events.size(), start ? started(log.events[i]) : 0,
                            RUN_ENDED_UNKNOWN, NO_RECORD});
        }
    }
    for (size_t i = 0; i < runs.size(); i++)
        find_ending(log, &runs[i], i + 1 < runs.size() ? &runs[i + 1] : NULL);
    return runs;
}

const char *evidence_ending_name(enum run_ending ending)
{
    static const char *const names[] = {"unknown", "clean", "blue screen", "power loss"};

    return names[ending];
}
