/*
 * Cut power: the agent's process is really ended at every file operation of plug-in and platform,
 * and goes on with the files that it left. docs/faults.md tells what is required.
 */
#ifndef DEVHOST_CUT_H
#define DEVHOST_CUT_H

namespace CLI
{
class App;
}

/* Its subcommand, as those of sweep.h. */
void cut_add_command(CLI::App &app, int *status);

#endif
