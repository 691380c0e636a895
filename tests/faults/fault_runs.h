/*
 * Sweeps: every allocation, and every call that can fail, of every boot of a scenario is made to
 * fail, once and from there on to the end of that boot; each boot of a run has one failure, and an
 * undisturbed boot follows. docs/faults.md tells what is required of a run.
 */
#ifndef FAULT_RUNS_H
#define FAULT_RUNS_H

#include <stddef.h>
#include <stdint.h>

#include <string>
#include <vector>

struct fault_options {
    std::string kind; /* "allocations" or "calls" */
    std::vector<std::string> files;
    std::string plugin_path;
    std::string place;          /* where run folders are made; empty: the temporary folder */
    size_t every = 1;           /* only each so many'th run */
    size_t part = 0, parts = 0; /* of this process; 0 parts: share them out to processes */
    size_t from = 0;            /* first run */
    int64_t only = -1;          /* this run alone, with what happens in it */
    bool reload = false;        /* the DLL is loaded from its file at each start of the agent */
};

/* Sweeps the files, and prints violations and a table. Result: enum devhost_exit. Throws
 * devhost_error. Host's one thread. */
int fault_runs_of(const struct fault_options &options);

#endif
