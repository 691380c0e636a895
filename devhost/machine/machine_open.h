/* The machine as a whole: opened once, started anew for each boot, reached through its stand-ins. */
#ifndef DEVHOST_MACHINE_OPEN_H
#define DEVHOST_MACHINE_OPEN_H

#include <cstdint>

#include <string>

/* A new machine: its disk lies below a folder, its registry in memory. */
void machine_open(const std::wstring &run_folder);

/* Windows starts: volatile keys are removed, and System is a process created at that time. */
void machine_boot(uint64_t now_100ns);

/* The stand-in of a call of Windows; NULL when it has none. */
void *machine_stand_in(const char *name);

#endif
