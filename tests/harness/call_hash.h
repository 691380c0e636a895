/*
 * A hash of what a plug-in does: its calls with arguments and results, and whatever else is added, in
 * their order. Left out are the path of the run's folder, and calls that a person cannot observe: of
 * memory, of clocks for log lines, of conversions, whose results depend on the path's length. Timers, whose handles are never used again, are numbered from 1. Host's one
 * thread.
 */
#ifndef CALL_HASH_H
#define CALL_HASH_H

#include <cstdint>

#include <string>

/* Begins anew; from here on the calls of the plug-in are added. folder: without a backslash at the end.
 * printed: each text is printed, too. */
void call_hash_begin(const std::string &folder, bool printed);
void call_hash_add(const std::string &text);
/* Of all that was added since the beginning. */
uint64_t call_hash_value(void);

#endif
