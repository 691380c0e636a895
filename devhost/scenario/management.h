/* The management side of a scenario: the other end of the link. */
#ifndef DEVHOST_MANAGEMENT_H
#define DEVHOST_MANAGEMENT_H

#include "scenario.h"

void management_open(const struct scenario &scenario);
void management_agent_started(void);
void management_change(const json_value &changes);

#endif
