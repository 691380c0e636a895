/* The steps of a boot. */
#ifndef DEVHOST_STEPS_H
#define DEVHOST_STEPS_H

#include <string>
#include <vector>

#include "../scenario/scenario.h"

/* Returns why a step cannot be done; empty: it has exactly one possible action. */
std::string step_problem(const node &step);
/* Does one step of a boot. failures receives the failed expectations in it. */
void step_run(const node &step, std::vector<std::string> &failures);

#endif
