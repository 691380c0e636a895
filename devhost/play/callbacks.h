/* Callbacks that the plug-in gave to the platform, called as a host that breaks its contract would. */
#ifndef DEVHOST_CALLBACKS_H
#define DEVHOST_CALLBACKS_H

#include <string>

#include "../scenario/scenario.h"

/* Begins to remember the plug-in's callbacks. */
void callbacks_open(void);
/* Forgets those of an agent that ended. */
void callbacks_agent_stopped(void);

/* Queues a call of "service", "subscriber" or "console" with a scenario's arguments. Throws
 * devhost_error when the plug-in has not given such a callback, or a named handle is unknown. */
void callbacks_call(const std::string &which, const node &arguments);

#endif
