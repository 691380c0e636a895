/* The events of the System log that describe starts and ends of Windows: ids and providers. */
#ifndef SYSTEM_EVENTS_H
#define SYSTEM_EVENTS_H

enum system_event_id {
    EVENT_WINDOWS_START = 12,
    EVENT_UNEXPECTED_SHUTDOWN = 41, /* a power loss or a reset; a blue screen logs it, too */
    EVENT_BUGCHECK = 1001,          /* a blue screen */
    EVENT_WINLOGON = 7001,          /* a user logged on */
};

/* Source names of the records. Other providers use the same ids. */
#define PROVIDER_WINDOWS_START       L"Microsoft-Windows-Kernel-General"
#define PROVIDER_UNEXPECTED_SHUTDOWN L"Microsoft-Windows-Kernel-Power"
#define PROVIDER_BUGCHECK            L"BugCheck"
#define PROVIDER_WINLOGON            L"Microsoft-Windows-Winlogon"

#endif
