/* Expectations: what a scenario says of the journal and of the machine. */
#ifndef DEVHOST_EXPECT_H
#define DEVHOST_EXPECT_H

#include <string>
#include <vector>

#include "scenario.h"

/* Checks what happened in this boot since its start or its last expectation. */
void expect_check(const struct scenario &scenario, const std::string &where,
                  const json_value &expect, std::vector<std::string> &failures);
/* Begins a boot. */
void expect_start_boot(void);
/* A boot ended: a complaint of the platform after the last expectation fails it, too. */
void expect_no_complaints(const struct scenario &scenario, const std::string &where,
                          std::vector<std::string> &failures);

#endif
