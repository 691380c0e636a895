/* What Windows leaves of a run and writes in the next one: log records and crash dumps. */
#ifndef DEVHOST_WINDOWS_TRACES_H
#define DEVHOST_WINDOWS_TRACES_H

#include <stdint.h>

#include <string>

#include "scenario.h"

/* Plans the records and dumps that Windows writes in this boot. ended: how the last run ended;
 * crash: of that run, or NULL. */
void windows_traces_plan(const struct scenario &scenario, const json_value *boot,
                         const std::string &ended, const json_value *crash, uint64_t crashed_100ns);
/* The record of a clean shutdown. */
void windows_traces_shutdown(void);

#endif
