/* Random machines and the invariants that they are checked against. Host's one thread. */
#ifndef SIMULATION_MACHINES_H
#define SIMULATION_MACHINES_H

#include <stdint.h>

#include <string>
#include <vector>

#include "liboxnibase/host.h"
#include "scenario/play.h"
#include "scenario/scenario.h"

/* generate.cpp */

/* A random machine as a scenario; the same one for the same seed. */
void machine_generate(rapidjson::Document &document, uint64_t seed);
/* Adds what must leave no trace to each boot: messages and commands without effect. */
void machine_add_noise(rapidjson::Document &document, uint64_t seed);
/* invariants.cpp */

struct simulate_finding {
    std::string rule; /* its short name in docs/simulation.md; empty: none is broken */
    std::string what;
    uint64_t ms; /* since the start of Windows */
    int boot;    /* from 1 */
};

/* Looks on from here; called between play_open and the first boot. */
void rules_open(void);
/* The first rule that was broken. */
const simulate_finding &rules_finding(void);
/* Live blocks at each end of the agent's process so far. */
const std::vector<uint64_t> &rules_blocks(void);
void rules_close(void);

#endif
