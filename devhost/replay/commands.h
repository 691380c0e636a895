/* The command line of replay and what belongs to it. */
#ifndef DEVHOST_REPLAY_COMMANDS_H
#define DEVHOST_REPLAY_COMMANDS_H

namespace CLI
{
class App;
}

/* Adds "replay", "diff", "doctor", "redact" and "events". Each runs while the line is parsed and
 * leaves its enum devhost_exit in *status; they throw devhost_error. */
void replay_add_commands(CLI::App &app, int *status);

#endif
