/*
 * Playing a scenario: its boots in order, each with a timeline of Windows' own events, the agent's
 * process and the steps.
 */
#ifndef DEVHOST_PLAY_H
#define DEVHOST_PLAY_H

#include <cstdint>

#include <string>
#include <vector>

#include "../scenario/scenario.h"

struct play_options {
    std::string run_folder;  /* exists, empty; UTF-8, with backslashes */
    std::string plugin_path; /* the DLL to load */
    bool real_time;
    bool skip_impossible; /* a step that is impossible at its moment is skipped, no error */
};

/* Opens machine and agent for a scenario, which must exist until play_close. All functions here throw
 * devhost_error when the run cannot go on; then only play_close may follow. */
void play_open(const struct scenario &scenario, const struct play_options &options);

/* Starts Windows for the next boot of the scenario. Result: false when there is none. */
bool play_begin_boot(void);
/* Plays on to a moment of the present boot. */
void play_run_until(uint64_t ms);
/* Returns the end of the present boot. */
uint64_t play_boot_end_ms(void);
/* Checks the boot's expectations and ends Windows as the scenario states. */
void play_end_boot(void);

/* Returns the failed expectations, one text each. */
std::vector<std::string> play_close(void);

#endif
