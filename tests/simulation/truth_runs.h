/*
 * Truth runs: the evidence of random machines and of scenarios is made, replayed, and the answers are
 * compared with what the model predicts and the scenarios expect. docs/synthesize.md.
 */
#ifndef TRUTH_RUNS_H
#define TRUTH_RUNS_H

#include <cstdint>

#include <string>
#include <vector>

#include "synthesis/synthesis.h"

struct truth_options {
    uint64_t machines = 100;
    uint64_t seed = 1;              /* of the first machine; each further one has the next number */
    std::vector<std::string> files; /* scenarios in place of random machines */
    std::string folder;             /* of "synthesize": for a folder of each machine */
    std::string keep;               /* where the evidence of a machine that fails is kept */
    std::string plugin_path;
};

/* Makes, replays and compares. Prints each difference, and a summary. Result: enum devhost_exit. */
int truth_run(const struct truth_options &options);
/* Writes the evidence of random machines, one folder each. */
int truth_write_random(const struct truth_options &options);

/* truth_model.cpp: fills in the truth of each boot that the log shows, by the model. */
void truth_predict(const struct scenario &scenario, synthesis *made);

#endif
