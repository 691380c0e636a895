/* Reading a scenario, checked against its schema and for mistakes beyond it. */
#ifndef DEVHOST_LOAD_H
#define DEVHOST_LOAD_H

#include <map>
#include <string>

#include "../scenario/scenario.h"

/* Reads and checks a file. Throws devhost_error: a line for each mistake, with its place. */
void scenario_load(struct scenario &scenario, const std::string &file,
                   const std::map<std::string, std::string> &defines);

/* Checks a document as scenario_load does. Throws devhost_error. */
void scenario_check(const struct scenario &scenario);

#endif
