/* The scenario of fault runs: another scenario up to one of its boots, and two undisturbed boots.
 * Host's one thread. */
#ifndef FAULT_SCENARIO_H
#define FAULT_SCENARIO_H

#include <cstddef>

#include "scenario/scenario.h"

/* Removes what a scenario expects, and the allocations that it makes fail itself: they would undo
 * ours. */
void fault_scenario_strip(struct scenario &scenario);

/* Fills a new scenario: whole's boots up to one (from 0), which ends with a power loss, and two
 * undisturbed boots, of which the first one ends with a blue screen. */
void fault_scenario_prepare(const struct scenario &whole, size_t boot, struct scenario &scenario);

#endif
