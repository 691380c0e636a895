/* Expectations: what a scenario says of the journal and of the machine. */
#ifndef DEVHOST_EXPECT_H
#define DEVHOST_EXPECT_H

#include <string>
#include <vector>

#include "../scenario/scenario.h"

/* Checks an "expect" against the events since the start of the boot or its previous "expect". */
void expect_check(const node &expect, std::vector<std::string> &failures);
/* Begins a boot. */
void expect_start_boot(void);
/* Ends a boot: a complaint of the platform after the last "expect" fails it too, and so does what the
 * plug-in left open. */
void expect_no_complaints(const node &boot, std::vector<std::string> &failures);

#endif
