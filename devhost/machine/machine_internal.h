/* Shared by the machine's own files. */
#ifndef DEVHOST_MACHINE_INTERNAL_H
#define DEVHOST_MACHINE_INTERNAL_H

#include <windows.h>

/* Stand-ins by the name of the call; NULL for another name. */

void *machine_clock_stand_in(const char *name);
void *machine_event_log_stand_in(const char *name);
void *machine_process_stand_in(const char *name);
void *machine_service_stand_in(const char *name);
void *machine_token_stand_in(const char *name);
void *machine_registry_stand_in(const char *name);
void *machine_module_stand_in(const char *name);

/* registry.cpp: an empty registry; removes what a restart of Windows removes. */
void machine_open_registry(void);
void machine_remove_volatile_keys(void);

/* event_log.cpp: forgets the records of the previous machine. */
void machine_open_event_log(void);

/* Whether a process handle, the pseudo-handle of the own process included, has one of the rights. */
bool machine_process_grants(HANDLE handle, DWORD rights);

/* token.cpp: whether the handle was a token; it is closed then. */
bool machine_close_token(HANDLE handle);
bool machine_token_has_enabled(const char *name);

#endif
