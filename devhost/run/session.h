/*
 * One scenario from opening to closing: the folder of the run, the playing, and what is left to say
 * at the end. Host's one thread.
 */
#ifndef DEVHOST_SESSION_H
#define DEVHOST_SESSION_H

#include <string>

#include "../base/run_folder.h"

/* Plays a file from its first boot to its last. Result: enum devhost_exit. Throws devhost_error. */
int session_run(const std::string &file, const struct run_options &options);

/* Lets a person play a file: reads commands from the standard input until "quit" or its end. */
int session_console(const std::string &file, const struct run_options &options);

#endif
