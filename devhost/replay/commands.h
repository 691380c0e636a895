/* The commands that read a machine's evidence, as the command line has them. "diff" and "doctor"
 * need nothing else and are called as they are. */
#ifndef DEVHOST_REPLAY_COMMANDS_H
#define DEVHOST_REPLAY_COMMANDS_H

#include <stdint.h>

#include <string>

#include "replay.h"

/* What the line can say. */
struct replay_arguments {
    struct replay_options options = {};
    bool boots = false; /* lists the boots, and plays none */
    bool strict = false;
    bool lenient = false;
    std::string memory = BYPASS_USUAL_MEMORY; /* "plain" or "guard" */
    std::string folder;                       /* new one, for a redacted scenario */
    std::string log, output;                  /* of "events": read, and written; empty: stdout */
    uint64_t from = 0, to = UINT64_MAX;
};

/* "replay", "redact" and "events". Result: enum devhost_exit. They throw devhost_error. Host's one
 * thread. */
int replay_command(struct replay_arguments &arguments);
int replay_command_redact(struct replay_arguments &arguments);
int replay_command_events(const struct replay_arguments &arguments);

#endif
