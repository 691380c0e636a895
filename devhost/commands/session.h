/* One scenario from its opening to its end: the folder of the run, the boots, the result. Host's one
 * thread. */
#ifndef DEVHOST_SESSION_H
#define DEVHOST_SESSION_H

#include <string>

#include "../base/run_folder.h"

/* Plays all boots of a file. Result: enum devhost_exit. Throws devhost_error. */
int session_run(const std::string &file, const struct run_options &options);

/* Lets a person play a file: reads commands from the standard input until "quit" or end of file. */
int session_console(const std::string &file, const struct run_options &options);

#endif
