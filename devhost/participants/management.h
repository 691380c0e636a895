/* The management side of a scenario: the other end of the link. */
#ifndef DEVHOST_MANAGEMENT_H
#define DEVHOST_MANAGEMENT_H

#include "../scenario/scenario.h"

/* Starts with the defaults and the scenario's "management", which may be missing. */
void management_open(const node &said);
/* Restores its handlers and the link in a new agent process. */
void management_agent_started(void);
/* Changes the members that are given. */
void management_change(const node &changes);
void management_set_link(const node &state);
/* Reports a state of the link to the plug-in, even if it is the present one. */
void management_report_link(const node &state);

#endif
