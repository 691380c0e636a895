/*
 * Sweeps: every allocation, and every call that can fail, of every boot of a scenario is made to
 * fail, once and from there on to the end of that boot; each boot of a run has one failure, and an
 * undisturbed boot follows. docs/faults.md tells what is required of a run.
 */
#ifndef DEVHOST_SWEEP_H
#define DEVHOST_SWEEP_H

namespace CLI
{
class App;
}

struct scenario;

/* Leaves out what a scenario expects, and the allocations that it makes fail itself. */
void sweep_strip(struct scenario &scenario);

/* Their subcommands; a callback runs the one that the command line names and sets *status. */
void sweep_add_commands(CLI::App &app, int *status);

#endif
