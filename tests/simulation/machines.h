/* Random machines and the invariants that they are checked against. Host's one thread. */
#ifndef SIMULATION_MACHINES_H
#define SIMULATION_MACHINES_H

#include <cstdint>

#include <string>
#include <vector>

#include "liboxnibase/host.h"
#include "play/play.h"
#include "scenario/scenario.h"

/* generate.cpp */

/* A random machine as a scenario; the same one for the same seed. odd: any call of its plug-in can fail, and
 * messages, files and settings can be of any form; the invariants do not hold. */
void machine_generate(rapidjson::Document &document, uint64_t seed, bool odd);
/* Adds what must leave no trace to each boot: messages and commands without effect. */
void machine_add_noise(rapidjson::Document &document, uint64_t seed);
/* invariants.cpp */

struct simulate_finding {
    std::string invariant; /* its name in docs/simulation.md; empty: none is broken */
    std::string what;
    uint64_t ms; /* since the start of Windows */
    int boot;    /* from 1 */
};

/* Checks from here on; called between play_open and the first boot. */
void invariants_open(void);
/* The first invariant that was broken. */
const simulate_finding &invariants_finding(void);
/* Live blocks at each end of the agent's process so far. */
const std::vector<uint64_t> &invariants_blocks(void);
void invariants_close(void);

#endif
