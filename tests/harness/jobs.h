/*
 * Runs over scenario files, shared among processes of this program, as many at a time as there are
 * processors. Each process may crash or hang without the others: another one continues with the run
 * after the one that ended it.
 */
#ifndef JOBS_H
#define JOBS_H

#include <cstddef>
#include <cstdint>

#include <string>
#include <vector>

/* Options of every command that runs jobs. */
struct job_options {
    std::vector<std::string> files;
    std::string plugin_path;    /* empty: the DLL beside this program */
    std::string place;          /* where run folders are made; empty: the temporary folder */
    size_t every = 1;           /* only every nth run */
    size_t from = 0;            /* first run */
    size_t part = 0, parts = 0; /* this process does part of parts; 0 parts: starts the processes */
};

/* Whether this process does that run of its file. */
bool jobs_is_mine(const struct job_options &options, uint64_t index);

/* Runs this program with those arguments (UTF-8) and waits for its end. output: receives its
 * standard output; its standard error is ours. Result: its exit status; 259 when it cannot be
 * started. */
unsigned jobs_run_process(const std::vector<std::string> &arguments, std::string *output);

/*
 * Runs a command for all parts of all files. Prints what the processes print, and a table of their
 * summed counts.
 *
 * command  Its words; the last one names the row of the table.
 * columns  Headings of the counts.
 *
 * Result   enum devhost_exit. Throws devhost_error for a scenario or plug-in that does not load.
 */
int jobs_run(const struct job_options &options, const std::vector<std::string> &command,
             const std::vector<std::string> &columns);

/* Ends a part: prints its counts for jobs_run. Result: its exit status. */
int jobs_end(const std::vector<uint64_t> &counts, uint64_t violations);

#endif
