/*
 * The time zone of the machine that is played. The plug-in prints and compares local times, so the
 * zone of the computer that plays must not matter.
 */
#ifndef DEVHOST_ZONE_H
#define DEVHOST_ZONE_H

#include <windows.h>

#include <string>

#include "../base/text_json.h"
#include "../evidence/boots.h"
#include "../evidence/log.h"
#include "../evidence/registry_file.h"

struct replay_zone {
    TIME_ZONE_INFORMATION rules = {};
    std::string name = "UTC"; /* "Tokyo Standard Time", "UTC+09:00" */
    /* Where the zone is from: "--time-zone", a file, a record; empty: it is assumed. */
    std::string source;
};

/* The member "time_zone" of a scenario's machine. */
void zone_put(json_lines &writer, const replay_zone &zone);
/* The zone of the computer that runs this program: "UTC+09:00 (Tokyo Standard Time)". */
std::string zone_of_this_computer(void);
/* The zone of a boot: of the option when it is not empty, else of the registry, else of the last
 * record 24 of Kernel-General up to the boot's end, else UTC. Throws devhost_error for an option that
 * is not a zone. */
replay_zone zone_of(const std::string &option, const evidence_registry &registry,
                    const evidence_log &log, const evidence_run &boot);

#endif
