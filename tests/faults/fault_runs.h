/* Fault runs: every allocation and every call of a scenario fails, one a run. The fault model opens
 * fault_runs.cpp. */
#ifndef FAULT_RUNS_H
#define FAULT_RUNS_H

#include <cstdint>

#include <string>

#include "harness/jobs.h"

struct fault_options {
    struct job_options job;
    std::string kind;    /* "allocations" or "calls" */
    int64_t only = -1;   /* this run alone, printing what happens in it */
    bool reload = false; /* each start of the agent loads the DLL from its file */
};

/* Runs the files, and prints violations and a table. Result: enum devhost_exit. Throws
 * devhost_error. Host's one thread. */
int fault_runs_main(struct fault_options options);

#endif
