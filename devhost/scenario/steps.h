/* The steps of a boot. */
#ifndef DEVHOST_STEPS_H
#define DEVHOST_STEPS_H

#include <string>
#include <vector>

#include "scenario.h"

/* Checks that a step does exactly one thing that can be done. Throws devhost_error. */
void step_check(const struct scenario &scenario, const std::string &where, const json_value &step);
/* Does one step of a boot. failures receives what an expectation in it finds. */
void step_run(const struct scenario &scenario, const std::string &where, const json_value &step,
              std::vector<std::string> &failures);

#endif
