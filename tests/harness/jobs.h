/*
 * Work that is done by processes of this program, several at a time: each does one part and may
 * crash without the others, and is started again behind the trial that it ended in.
 */
#ifndef JOBS_H
#define JOBS_H

#include <string>
#include <vector>

/* What all of them need, before the first one starts: the scenarios load, and so does the plug-in.
 * Throws devhost_error with EXIT_BAD_CALL or EXIT_NO_PLUGIN. */
void jobs_check(const std::vector<std::string> &files, const std::string &plugin_path);

/* Runs this program with those arguments (UTF-8) and waits for its end. output: what it wrote to
 * its standard output; its errors go where ours do. Result: its exit status; 259 when it cannot be
 * started. */
unsigned jobs_run_process(const std::vector<std::string> &arguments, std::string *output);

/* Runs it for every list of arguments, as many at a time as there are processors. A process that
 * crashed or hung goes on with "--from N" added. Result: the lines that they wrote, without those
 * by which the watch tells where to go on; a process that cannot be started, or ends
 * without a line of "figures", leaves a line of "violation". */
std::vector<std::string> jobs_run(const std::vector<std::vector<std::string>> &jobs);

#endif
