/* The commands that read a machine's evidence, with the arguments of the command line. */
#ifndef DEVHOST_REPLAY_COMMANDS_H
#define DEVHOST_REPLAY_COMMANDS_H

#include <cstdint>

#include <string>

#include "../replay/replay.h"

struct replay_arguments {
    struct replay_options options = {};
    bool boots = false; /* lists the boots, and plays none */
    bool strict = false;
    bool lenient = false;
    std::string memory = BYPASS_USUAL_MEMORY; /* "plain" or "guard" */
    std::vector<std::string> sources;         /* of "dump": files, folders, archives */
    std::string folder;                       /* new one, for a redacted scenario */
    std::string log, output;                  /* of "events": input and output; empty: stdout */
    bool evtx = false;                        /* of "events": a log of Windows, not JSON */
    uint64_t from = 0, to = UINT64_MAX;

    enum evidence_damage allowed() const
    {
        return strict ? EVIDENCE_STRICT : lenient ? EVIDENCE_LENIENT : EVIDENCE_STANDARD;
    }
};

/* A function for each command. Result: enum devhost_exit. Throw devhost_error. Host's one thread. */

int replay_command(struct replay_arguments &arguments);
/* Writes the evidence as a scenario without names of computers and people into a new folder. */
int replay_command_redact(struct replay_arguments &arguments);
int replay_command_events(const struct replay_arguments &arguments);
/* Prints each dump. With products, also the module that the plug-in blames on a boot after the crash.
 * Result: EXIT_BAD_EVIDENCE when a file that was named is not a readable dump. */
int replay_command_dump(struct replay_arguments &arguments);
/* Takes a case a line from the standard input and prints its result, until the input ends. */
int replay_command_serve(struct replay_arguments &arguments);
/* Prints what differs between two results of --json. Result: 0 nothing, 1 something. */
int replay_diff(const std::string &old_file, const std::string &new_file);
/* Prints what this computer offers. */
int replay_doctor(void);

/* session.cpp: one scenario from its opening to its end: the folder of the run, the boots, the result. */

/* Plays all boots of a file. Result: enum devhost_exit. Throws devhost_error. */
int session_run(const std::string &file, const struct run_options &options);

/* Lets a person play a file: reads commands from the standard input until "quit" or end of file. */
int session_console(const std::string &file, const struct run_options &options);

/* Checks and completes the options that name evidence. */
void commands_prepare(struct replay_arguments &arguments);
/* Sets the plug-in, unless it is named, and that a boot prints nothing while it is played. */
void replay_prepare(struct run_options *session);

#endif
