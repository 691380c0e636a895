/*
 * An invariant for random machines and fault runs: after an initialisation of the agent in a new
 * boot, nothing of the previous boot is in force. On disk, an initialisation that changes the
 * store's "start_time" leaves its "data" empty. In memory, no "bypass" is ordered in a boot before a
 * blue screen of that boot was read from the event log, unless the store named a crash of that boot
 * when the agent started. Host's one thread.
 */
#ifndef PREVIOUS_BOOT_H
#define PREVIOUS_BOOT_H

#include <string>
#include <vector>

#include "scenario/journal.h"

/* Forgets what was noted, and watches the plug-in's calls; or does so no longer. */
void previous_boot_open(void);
void previous_boot_close(void);

/* Notes a happening of the run. Neither this nor the next function allocates from the platform:
 * its allocations may be failing. */
void previous_boot_note(const happening &what);
/* The agent's initialisation is over: called before each delivery to it, and at its end. */
void previous_boot_initialised(void);

/* The JSON text in the bytes of an .ejs file; empty: they are damaged. */
std::string ejs_text(const std::string &bytes);

/* The violations since the last call. Called when no allocation is made to fail. */
std::vector<std::string> previous_boot_violations(void);

#endif
