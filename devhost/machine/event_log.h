/* The System log of the machine. */
#ifndef DEVHOST_MACHINE_EVENT_LOG_H
#define DEVHOST_MACHINE_EVENT_LOG_H

#include <cstdint>

#include "../base/event_record.h"

/* Adds a record to the end of the log; number is given here when it is 0. */
void machine_log(event_record record);

/* The records that the last read of the event log gave, as numbers; {0, 0} when it gave none. */
struct machine_read {
    uint32_t newest;
    uint32_t oldest;
};
machine_read machine_last_read(void);

#endif
