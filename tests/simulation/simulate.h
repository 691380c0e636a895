/*
 * Simulation: plays random machines boot after boot through the real plug-in and checks invariants.
 * docs/simulation.md lists what is random, and the invariants.
 */
#ifndef SIMULATE_H
#define SIMULATE_H

#include <cstdint>

#include <string>

struct simulate_options {
    uint64_t boots = 1000;   /* at least so many; a machine is played to its end */
    uint64_t seed = 1;       /* of the first machine; each further one has the next number */
    std::string folder;      /* where the run's files lie; empty: the temporary one */
    bool shrink = true;      /* makes a failing machine small and saves its scenario */
    std::string save = ".";  /* folder that a failing machine's scenario is written to */
    std::string file;        /* a scenario that is played in place of random machines */
    std::string plugin_path; /* the DLL to load */
    bool reload = false;     /* it is loaded from its file at each start of the agent */
    bool hash_calls = false; /* each machine's hash of its plug-in's calls is printed */
    bool trace = false;      /* each call is printed */
    bool odd = false;        /* machines without invariants, of which any call can fail */
};

/* Plays until an invariant is broken or all boots are played, and prints the progress. Result: enum
 * devhost_exit. Throws devhost_error. Host's one thread. */
int simulate_run(const struct simulate_options &options);

#endif
