/* The rooms of a long run. Host's one thread. */
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
/* How the blocks of a machine of that seed are kept: one machine in sixteen has fenced or guarded
 * blocks, of which none may be lost, and its log level: one in 16 logs at each level, the others log
 * nothing. Both cost time. */
enum oxnih_memory_mode machine_memory_mode(uint64_t seed);
int machine_log_level(uint64_t seed);

/* rules.cpp */

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
