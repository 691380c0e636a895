/* What a scenario does to the machine: settings, log records, files, registry values. */
#ifndef DEVHOST_MACHINE_SETUP_H
#define DEVHOST_MACHINE_SETUP_H

#include <stdint.h>

#include <string>

#include "scenario.h"

/* Applies the members of a "machine". */
void machine_setup_apply(const struct scenario &scenario, const std::string &where,
                         const json_value &machine);
void machine_setup_event(const struct scenario &scenario, const std::string &where,
                         const json_value &event);
void machine_setup_file(const struct scenario &scenario, const std::string &where,
                        const json_value &file);
void machine_setup_value(const struct scenario &scenario, const std::string &where,
                         const json_value &value);
/* A path of the machine in which "{base}" and "{bin}" are replaced. */
std::wstring machine_setup_path(const std::string &path);
/* The count in the bytes of a driver's crash record; -1 for another size. */
int64_t machine_setup_record_count(const std::string &bytes);

/* The text of a scripted stack: the frames and the text that a dump's "frames" and "stack" give. */
std::string machine_setup_stack(const json_value *said);

#endif
