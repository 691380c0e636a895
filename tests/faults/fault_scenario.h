/* The scenario of a run: what leads to one boot of another scenario, that boot several times, and
 * boots in which nothing is disturbed. Host's one thread. */
#ifndef FAULT_SCENARIO_H
#define FAULT_SCENARIO_H

#include <stddef.h>

#include <string>
#include <vector>

#include "scenario/scenario.h"

/* Times that the boot comes. */
#define LIVES ((size_t)8)

/* Leaves out what a scenario expects, and the allocations that it makes fail itself. */
void fault_scenario_strip(struct scenario &scenario);

/* A scenario up to one of its boots, which comes LIVES times, each time behind the same end of
 * Windows and with the same products; and two undisturbed boots, behind a power loss and a blue
 * screen. states: of the products, as product_state_text tells them. */
void fault_scenario_prepare(const struct scenario &whole, size_t boot,
                            const std::vector<std::string> &states, struct scenario &scenario);

#endif
