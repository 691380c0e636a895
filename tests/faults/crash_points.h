/* Crash points: the agent's process ends at every file operation of plug-in and platform, and
 * continues with the files that it left. What must hold opens crash_points.cpp. */
#ifndef CRASH_POINTS_H
#define CRASH_POINTS_H

#include <cstdint>

#include <string>

#include "harness/jobs.h"

struct crash_point_options {
    struct job_options job;
    uint64_t at = 0;   /* this process ends itself before that operation; 0: it does not */
    bool torn = false; /* in the middle of it, with half of the bytes written */
    std::string keep;  /* with at: folder of the run, which exists and is empty */
};

/* Runs the files, and prints violations and a table. Result: enum devhost_exit. Throws
 * devhost_error. Host's one thread. */
int crash_points_main(struct crash_point_options options);

#endif
