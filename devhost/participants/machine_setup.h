/* The machine of a scenario: settings, event records, files, registry values. */
#ifndef DEVHOST_MACHINE_SETUP_H
#define DEVHOST_MACHINE_SETUP_H

#include <cstdint>
#include <windows.h>

#include <string>

#include "../scenario/scenario.h"

/* Begins a scenario. */
void machine_setup_open(void);
/* Sets the level of the agent's log. */
void machine_setup_log_level(const std::string &name);
/* Apply the members of a "machine", and add an event record, a file and a registry value. */
void machine_setup_apply(const node &machine);
void machine_setup_event(const node &event);
void machine_setup_file(const node &file);
void machine_setup_value(const node &value);
/* Returns what is wrong with the data of a registry value; empty: nothing. */
std::string machine_setup_value_problem(const node &value);
/* A path of the machine in which "{base}", "{bin}" and "{data}" are replaced. */
std::wstring machine_setup_path(const std::string &path);
/* The rules of a member "time_zone". Result: whether they are known. */
bool machine_setup_zone(const node &said, TIME_ZONE_INFORMATION *zone);
/* Returns the count in the bytes of a driver's crash record; -1 for another size. */
int64_t machine_setup_record_count(const std::string &bytes);

/* Returns the engine's output for a scripted dump: its "stack", then its "frames". */
std::string machine_setup_stack(const node &said);

#endif
