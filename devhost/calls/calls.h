/*
 * The plug-in's calls of Windows and of the platform (those of calls_table.h): its import table is
 * redirected to one function, which counts, traces and fails them, and passes them to the stand-ins
 * of the machine or to the real function.
 */
#ifndef DEVHOST_CALLS_H
#define DEVHOST_CALLS_H

#include <cstdint>
#include <windows.h>

#include <string>
#include <string_view>
#include <vector>

/* text: one call with its arguments and result, without a line feed. */
typedef void (*calls_trace_fn)(const std::string &text);

/* Redirects the imports of a loaded plug-in to here. stand_in: returns the stand-in of a call; NULL:
 * the real function is called. */
void calls_patch(HMODULE plugin, void *(*stand_in)(const char *name));

/* nullptr, the initial state: no tracing. wanted: whether calls of that name are traced, nullptr: all are.
 * Making the text of a call takes far longer than the call. */
void calls_set_trace(calls_trace_fn fn, bool (*wanted)(const char *name) = nullptr);
/* Traces a call that does not pass here. */
void calls_trace(const std::string &text);

/* arguments: as passed, as many as the call has; result as the plug-in gets it. */
typedef void (*calls_watch_fn)(const uint64_t *arguments, uint64_t result);
/* fn is called after each call of a name that the table has; nullptr ends it. */
void calls_set_watch(std::string_view name, calls_watch_fn fn);

/* Whether a call of that name is counted. */
bool calls_known(std::string_view name);
/* Whether a call of that name is known and can fail with that error: calls that set an error cannot
 * fail with 0. */
bool calls_can_fail(std::string_view name, uint32_t error);
/* The calls that can fail, and the errors that Windows documents for one: 0 alone for a call that
 * sets none. */
std::vector<std::string> calls_failing(void);
std::vector<uint32_t> calls_errors(const std::string &name);
/* The nth call from now on (1 is the next) of a name fails with that error, and so do the following
 * ones, times altogether; 0: persistently. with: only calls with these arguments count, as traces
 * print them, * for any characters; empty: all. A name that cannot fail is ignored. */
void calls_fail(const std::string &name, uint64_t nth, uint64_t times, uint32_t error,
                const std::string &with = "");
void calls_clear_failures(void);

/* Calls of a name since the start or the last reset. */
uint64_t calls_count(std::string_view name);
/* Number of calls of a name that were made to fail. */
uint64_t calls_failed(std::string_view name);
void calls_reset_counts(void);

/* What the plug-in opened and did not close since the last call of this function, "2 registry keys";
 * negative when it closed more. Empty: everything was closed. */
std::string calls_left_open(void);

#endif
