/* What accompanies the runs of Windows in its log. */
#include "history.h"

#include <algorithm>
#include <random>

#include "../base/text.h"
#include "../base/system_events.h"

static const wchar_t *const s_services[] = {
    L"Windows Update",
    L"Background Intelligent Transfer Service",
    L"Служба времени Windows",
    L"Windows フォント キャッシュ サービス",
    L"Anwendungsüberwachung",
    L"打印后台处理程序",
    L"Notes \U0001F642 & \"Tags\" <sync>",
    L"שירות מיקום",
};
static const wchar_t *const s_states[] = {L"running", L"stopped", L"実行中", L"остановлена"};

static event_record of_service(uint64_t at, std::mt19937_64 &random)
{
    const wchar_t *service = s_services[random() % ARRAYSIZE(s_services)];

    if (random() % 8 == 0)
        return event_at(at, SOURCE_SERVICES, SERVICE_FAILED_EVENT_ID, EVENTLOG_ERROR_TYPE,
                        {service, s_services[random() % ARRAYSIZE(s_services)], L"%%1058"});
    return event_at(at, SOURCE_SERVICES, SERVICE_STATE_EVENT_ID, EVENTLOG_INFORMATION_TYPE,
                    {service, s_states[random() % ARRAYSIZE(s_states)]});
}

/* The log of a run that ended unexpectedly has no end, so its last time is in the next run's. */
static event_record of_unexpected_end(uint64_t at)
{
    const std::string time = time_iso(at - 75 * TICKS_PER_SECOND);

    return event_at(at, SOURCE_EVENT_LOG, LOG_UNEXPECTED_EVENT_ID, EVENTLOG_ERROR_TYPE,
                    {text_wide(time.substr(11, 8)), text_wide(time.substr(0, 10)), L"", L"",
                     L"3610", L"60", L""});
}

/* The time of the first change of the clock, as it was before; none: that of the end. */
static uint64_t first_change(const std::vector<event_record> &events, uint64_t end, size_t *index)
{
    uint64_t old = end;

    for (*index = 0; *index < events.size(); ++*index)
        if (events[*index].is(RECORD_CLOCK_CHANGE) &&
            time_parse(text_narrow(events[*index].strings.at(1)), &old))
            return old;
    return end;
}

/* Adds records, in the order of time, before that index. */
static void merge(const std::vector<event_record> &added, size_t before,
                  std::vector<event_record> *events)
{
    const auto end = events->begin() + static_cast<ptrdiff_t>(before);
    std::vector<event_record> merged;
    size_t next = 0;

    for (auto event = events->begin(); event != end; ++event) {
        for (; next < added.size() && added[next].time <= event->time; next++)
            merged.push_back(added[next]);
        merged.push_back(*event);
    }
    merged.insert(merged.end(), added.begin() + static_cast<ptrdiff_t>(next), added.end());
    merged.insert(merged.end(), end, events->end());
    *events = std::move(merged);
}

/* What comes with the start, and services up to an end. */
static std::vector<event_record> at_start(const accompanied_boot &boot, uint64_t end,
                                          std::mt19937_64 &random)
{
    const uint64_t begins = std::min(boot.from_100ns + 4 * TICKS_PER_SECOND, end);
    std::vector<event_record> added;

    if (!boot.ended_before.empty() && boot.ended_before != "clean")
        added.push_back(of_unexpected_end(begins));
    if (!boot.ended_before.empty())
        added.push_back(
            event_at(begins, SOURCE_EVENT_LOG, LOG_BEGINS_EVENT_ID, EVENTLOG_INFORMATION_TYPE, {}));
    for (unsigned i = 0; i < boot.noise; i++)
        added.push_back(of_service(begins + (end - begins) / (boot.noise + 1) * (i + 1), random));
    return added;
}

void accompany_boot(const accompanied_boot &boot, std::vector<event_record> *events)
{
    const uint64_t end = std::max(boot.to_100ns, boot.from_100ns);
    std::mt19937_64 random(boot.seed);
    size_t change;
    const uint64_t until = std::max(first_change(*events, end, &change), boot.from_100ns);
    const bool shuts_down = !events->empty() && events->back().is(RECORD_SHUTDOWN);
    std::vector<event_record> last;

    merge(at_start(boot, until, random), std::min(change, events->size() - shuts_down), events);
    if (boot.ends == "clean")
        last = {event_at(boot.to_100ns, SOURCE_WINLOGON, EVENT_LOGOFF, EVENTLOG_INFORMATION_TYPE,
                         {L"1", L"S-1-5-21-1-2-3-1001"}),
                event_at(boot.to_100ns, SOURCE_EVENT_LOG, LOG_ENDS_EVENT_ID,
                         EVENTLOG_INFORMATION_TYPE, {})};
    else
        last = {of_service(boot.to_100ns, random)};
    events->insert(events->end() - shuts_down, last.begin(), last.end());
}
