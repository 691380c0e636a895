/*
 * Cut power: the agent's process is really ended at every file operation of plug-in and platform,
 * and goes on with the files that it left. docs/faults.md tells what is required.
 */
#ifndef CRASH_POINTS_H
#define CRASH_POINTS_H

#include <stddef.h>
#include <stdint.h>

#include <string>
#include <vector>

struct crash_point_options {
    std::vector<std::string> files;
    std::string plugin_path;
    std::string place;
    std::string keep;    /* of the process that is ended: its run's folder */
    uint64_t at = 0;     /* the operation before which it ends; 0: shares the work out */
    bool torn = false;   /* in the middle of a write: half of the bytes are there */
    size_t every = 1;    /* only each so many'th operation */
    size_t from = 0;     /* first operation */
    bool worker = false; /* does all cuts of one file */
};

/* Makes the cuts, and prints violations and a table. Result: enum devhost_exit. Throws
 * devhost_error. Host's one thread. */
int crash_points_of(const struct crash_point_options &options);

#endif
