/*
 * The records of the System log by which Windows reports its starts and ends: event ids and sources,
 * as their providers' manifests define them.
 */
#ifndef DEVHOST_SYSTEM_EVENTS_H
#define DEVHOST_SYSTEM_EVENTS_H

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

#endif
