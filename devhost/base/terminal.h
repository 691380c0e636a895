/*
 * The program at a terminal: colours, progress, and the end by Ctrl-C. The script that starts the
 * program under Wine keeps the terminal to itself and describes it by environment variables:
 *
 *   BYPASS_COLOUR    set: the output is shown in a terminal with colours
 *   BYPASS_PROGRESS  seconds until a command shows progress; set: the errors are shown in a terminal
 *   BYPASS_COMMAND   what the script is called, for commands to paste
 *   BYPASS_PLACE     folder in which the folders of runs are made (run_folder.h)
 */
#ifndef DEVHOST_TERMINAL_H
#define DEVHOST_TERMINAL_H

#include <mutex>
#include <string>

/* Prepares the standard output: LF ends a line, and a console shows UTF-8 and colours. Called once,
 * first. */
void terminal_open(void);

/* Whether the standard output shows colours. Never with NO_COLOR. */
bool terminal_has_colours(void);

/* Replaces the progress line by this text, when the work has taken two seconds (or
 * BYPASS_PROGRESS) and a person watches. terminal_progress_end removes the line. */
void terminal_progress(const std::string &text);
/* The same for work that consists of others, whose own progress is not shown until the end. */
void terminal_progress_whole(const std::string &text);
void terminal_progress_end(void);

/* Handles Ctrl-C from here on: prints what was reached last, and ends the program with
 * EXIT_INTERRUPTED. */
void terminal_watch_interrupt(void);
/* Ctrl-C waits while it is held. Held during the start of another process: if the start is
 * interrupted, Wine leaves a process running. */
std::mutex &terminal_interrupt_mutex(void);
/* What Ctrl-C prints. Any thread. */
void terminal_reached(const std::string &what);

/* Writes to the standard output, flushed. A reader that has gone is no error. Throws devhost_error
 * with EXIT_BAD_CALL otherwise. */
void terminal_write(const std::string &text);
/* Flushes the standard output. Result: the reason why it cannot be written; empty: it can, or its
 * reader has gone. */
std::string terminal_flush(void);

/* A command to paste, "./dev run 'a b.json'" or "oxni_devhost run ...": quotes the arguments where
 * that is necessary. */
std::string terminal_command(const std::string &command, const std::string &argument);

#endif
