/*
 * The records of the System log by which Windows reports its starts and ends: event ids and sources,
 * as their providers' manifests define them.
 */
#ifndef DEVHOST_SYSTEM_EVENTS_H
#define DEVHOST_SYSTEM_EVENTS_H

#include "event_record.h"
#include "text.h"

/* The low 16 bits of an EventID. */
enum system_event {
    EVENT_CLOCK_CHANGE = 1,
    EVENT_WINDOWS_START = 12,
    EVENT_CLEAN_SHUTDOWN = 13,
    EVENT_TIME_ZONE = 24,
    EVENT_UNEXPECTED_SHUTDOWN = 41,
    EVENT_BUG_CHECK = 1001,
    EVENT_LOGON = 7001,
    EVENT_LOGOFF = 7002,
};

/* The whole EventID of a BugCheck record, qualifiers included. */
static constexpr uint32_t BUG_CHECK_EVENT_ID = 0x400003e9u;

/* The same of the records that only accompany a start and an end: the event log begins, ends, and began
 * after an unexpected end; a service changed its state, or did not start. */
static constexpr uint32_t LOG_BEGINS_EVENT_ID = 0x80001775u;
static constexpr uint32_t LOG_ENDS_EVENT_ID = 0x80001776u;
static constexpr uint32_t LOG_UNEXPECTED_EVENT_ID = 0x80001778u;
static constexpr uint32_t SERVICE_STATE_EVENT_ID = 0x40001b7cu;
static constexpr uint32_t SERVICE_FAILED_EVENT_ID = 0xc0001b59u;

/* Sources: EventSourceName where the provider has one, otherwise its name. */
static constexpr wchar_t SOURCE_KERNEL_GENERAL[] = L"Microsoft-Windows-Kernel-General";
static constexpr wchar_t SOURCE_KERNEL_POWER[] = L"Microsoft-Windows-Kernel-Power";
static constexpr wchar_t SOURCE_WINLOGON[] = L"Microsoft-Windows-Winlogon";
static constexpr wchar_t SOURCE_BUG_CHECK[] = L"BugCheck";
static constexpr wchar_t SOURCE_EVENT_LOG[] = L"EventLog";
static constexpr wchar_t SOURCE_SERVICES[] = L"Service Control Manager";

static constexpr event_kind RECORD_CLOCK_CHANGE = {SOURCE_KERNEL_GENERAL, EVENT_CLOCK_CHANGE};
static constexpr event_kind RECORD_START = {SOURCE_KERNEL_GENERAL, EVENT_WINDOWS_START};
static constexpr event_kind RECORD_SHUTDOWN = {SOURCE_KERNEL_GENERAL, EVENT_CLEAN_SHUTDOWN};
static constexpr event_kind RECORD_TIME_ZONE = {SOURCE_KERNEL_GENERAL, EVENT_TIME_ZONE};
static constexpr event_kind RECORD_UNEXPECTED = {SOURCE_KERNEL_POWER, EVENT_UNEXPECTED_SHUTDOWN};
static constexpr event_kind RECORD_BUG_CHECK = {SOURCE_BUG_CHECK, EVENT_BUG_CHECK};
static constexpr event_kind RECORD_LOGON = {SOURCE_WINLOGON, EVENT_LOGON};

/* A new record, which has no number yet. id: with its qualifiers. */
inline event_record event_at(uint64_t time_100ns, const wchar_t *source, uint32_t id, uint16_t type,
                             event_strings strings)
{
    return {0, static_cast<uint32_t>(time_unix(time_100ns)), id, type, source, std::move(strings)};
}

#endif
