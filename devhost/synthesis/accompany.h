/* Records that only accompany the runs of Windows in a System log. */
#ifndef DEVHOST_ACCOMPANY_H
#define DEVHOST_ACCOMPANY_H

#include <cstdint>

#include <string>
#include <vector>

#include "../base/event_record.h"

struct accompanied_boot {
    uint64_t from_100ns, to_100ns; /* start, and end or export, by the clock as it is set then */
    std::string
        ended_before; /* how the previous run ended; empty: the boot's start is not in the log */
    std::string ends; /* how this one ends; empty: it goes on */
    unsigned noise;   /* number of records of services */
    uint64_t seed;
};

/* Adds records to those of a boot, in the order of time up to a change of the clock: the event log and
 * the session begin and end, and services, some with names in other scripts, change their state. */
void accompany_boot(const accompanied_boot &boot, std::vector<event_record> *events);

#endif
