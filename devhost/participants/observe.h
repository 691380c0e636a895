/* Observation: log lines, complaints and events of the platform become entries of the journal. */
#ifndef DEVHOST_OBSERVE_H
#define DEVHOST_OBSERVE_H

#include <cstdint>

/* Begins to record them. */
void observe_platform(void);
/* Forgets the timers of an agent that ended. */
void observe_agent_stopped(void);
/* Returns the number of pending timers with a delay. */
uint64_t observe_timers(uint64_t delay_ms);

#endif
