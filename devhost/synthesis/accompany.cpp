#include "accompany.h"

#include <windows.h>

#include <algorithm>
#include <random>

#include "../base/text.h"
#include "../evidence/system_events.h"

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

static event_record record(uint64_t at, const wchar_t *source, uint32_t id, uint16_t type,
                           event_strings strings)
{
    return {0, static_cast<uint32_t>(time_unix(at)), id, type, source, std::move(strings)};
}

static event_record of_service(uint64_t at, std::mt19937_64 &random)
{
    const wchar_t *service = s_services[random() % ARRAYSIZE(s_services)];

    if (random() % 8 == 0)
        return record(at, SOURCE_SERVICES, SERVICE_FAILED_EVENT_ID, EVENTLOG_ERROR_TYPE,
                      {service, s_services[random() % ARRAYSIZE(s_services)], L"%%1058"});
    return record(at, SOURCE_SERVICES, SERVICE_STATE_EVENT_ID, EVENTLOG_INFORMATION_TYPE,
                  {service, s_states[random() % ARRAYSIZE(s_states)]});
}

/* The log of a run that ended unexpectedly has no end, so its last time is in the next run's. */
static event_record of_unexpected_end(uint64_t at)
{
    const std::string time = time_iso(at - 75 * TICKS_PER_SECOND);

    return record(at, SOURCE_EVENT_LOG, LOG_UNEXPECTED_EVENT_ID, EVENTLOG_ERROR_TYPE,
                  {text_wide(time.substr(11, 8)), text_wide(time.substr(0, 10)), L"", L"", L"3610",
                   L"60", L""});
}

/* The time up to which records precede this one: a change of the clock has the new time. */
static uint32_t time_before(const event_record &event, bool *changes)
{
    uint64_t old;

    *changes = event.source == SOURCE_KERNEL_GENERAL && event.id == EVENT_CLOCK_CHANGE &&
               time_parse(text_narrow(event.strings.at(1)), &old);
    return *changes ? static_cast<uint32_t>(time_unix(old)) : event.time;
}

static void merge(const std::vector<event_record> &added, std::vector<event_record> *events)
{
    std::vector<event_record> merged;
    size_t next = 0;
    bool changes;

    for (const event_record &event : *events) {
        const uint32_t until = time_before(event, &changes);

        for (; next < added.size() && added[next].time <= until; next++)
            merged.push_back(added[next]);
        merged.push_back(event);
        /* Times by the old clock have no place after it. */
        for (; changes && next < added.size() && added[next].source == SOURCE_SERVICES; next++) {
        }
    }
    merged.insert(merged.end(), added.begin() + static_cast<ptrdiff_t>(next), added.end());
    *events = std::move(merged);
}

void accompany_boot(const accompanied_boot &boot, std::vector<event_record> *events)
{
    const uint64_t start = boot.from_100ns, end = std::max(boot.to_100ns, start);
    std::mt19937_64 random(boot.seed);
    std::vector<event_record> added;

    for (unsigned i = 0; i < boot.noise; i++)
        added.push_back(of_service(
            std::min(start + 5 * TICKS_PER_SECOND + (end - start) / (boot.noise + 1) * i, end),
            random));
    if (!boot.ended_before.empty())
        added.insert(added.begin(), record(start + 4 * TICKS_PER_SECOND, SOURCE_EVENT_LOG,
                                           LOG_BEGINS_EVENT_ID, EVENTLOG_INFORMATION_TYPE, {}));
    if (!boot.ended_before.empty() && boot.ended_before != "clean")
        added.insert(added.begin(), of_unexpected_end(start + 4 * TICKS_PER_SECOND));
    if (boot.ends == "clean") {
        added.push_back(record(end, SOURCE_WINLOGON, EVENT_LOGOFF, EVENTLOG_INFORMATION_TYPE,
                               {L"1", L"S-1-5-21-1-2-3-1001"}));
        added.push_back(
            record(end, SOURCE_EVENT_LOG, LOG_ENDS_EVENT_ID, EVENTLOG_INFORMATION_TYPE, {}));
    } else {
        added.push_back(of_service(end, random));
    }
    merge(added, events);
}
