/*
 * Playing a scenario: its boots one after the other, each with its timeline of Windows' own events,
 * the agent's life and the scenario's steps.
 */
#ifndef DEVHOST_PLAY_H
#define DEVHOST_PLAY_H

#include <stdint.h>

#include <string>
#include <vector>

#include "scenario.h"

struct play_options {
    std::string run_folder;  /* exists, empty; UTF-8, with backslashes */
    std::string plugin_path; /* the DLL to load */
    bool real_time;
    bool skip_impossible; /* a step that cannot be done at its moment is left out, no error */
};

/* Opens machine and agent for a scenario, which must live until play_close. Throws devhost_error,
 * as do all others that play: the run cannot go on then, and only play_close may follow. */
void play_open(const struct scenario &scenario, const struct play_options &options);

/* Windows starts for the next boot of the scenario. Result: false when there is none. */
bool play_begin_boot(void);
/* Plays on to a moment of the present boot. */
void play_run_until(uint64_t ms);
/* Where the scenario ends the present boot. */
uint64_t play_boot_end_ms(void);
/* The boot's expectations are checked, and Windows ends as the scenario says. */
void play_end_boot(void);

/* Result: what did not hold, one text each; empty when everything did. */
std::vector<std::string> play_close(void);

#endif
