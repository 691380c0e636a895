/*
 * Names the modules on the crashed stack of a dump, by having the debugger engine of Windows print
 * that stack.
 *
 * Runs on the host's timer thread, one analysis at a time.
 */
#ifndef ANALYZE_DMP_H
#define ANALYZE_DMP_H

#include <set>
#include <string>

#include <stdint.h>

/* Module names as the engine prints them ("nt", "mydriver"), in ascending byte order. */
typedef std::set<std::string> crash_module_set;

/*
 * Opens a dump and collects the modules of its crashed stack.
 *
 * path        Borrowed; NULL and empty are refused.
 * timeout_ms  How long the engine may take to load the dump.
 * modules     Emptied and filled once there is a stack text; untouched otherwise.
 * Result      1 at least one module was found; 0 not, a log line says why.
 */
int32_t analyze_dmp_file(const wchar_t *path, uint32_t timeout_ms, crash_module_set *modules);

/*
 * What the engine prints as the stack of a dump.
 *
 * text     Receives it on success; untouched otherwise.
 * Result   Whether every call of the engine succeeded; the one that did not is logged.
 */
bool get_dmp_info(const wchar_t *path, uint32_t timeout_ms, std::string *text);

/*
 * Cuts the module names out of a printed stack: what stands before the first '!' of a line, or else
 * before its first '+', on the lines behind the first one with "Call Site" or "Stack unwind".
 *
 * modules  Emptied first.
 * Result   Whether there is at least one.
 */
bool get_module_set_from_dmp_info(const std::string &text, crash_module_set *modules);

#endif
