/* The traces that Windows leaves of a run: event records and crash dumps. */
#ifndef DEVHOST_WINDOWS_TRACES_H
#define DEVHOST_WINDOWS_TRACES_H

#include <cstdint>

#include <string>

#include "../scenario/scenario.h"

/* Plans the records and dumps that Windows writes in this boot. ended: how the previous run ended;
 * crash: of that run, may be missing. */
void windows_traces_plan(const node &boot, const std::string &ended, const node &crash,
                         uint64_t crashed_100ns);
/* Writes the record of a clean shutdown. */
void windows_traces_shutdown(void);

#endif
