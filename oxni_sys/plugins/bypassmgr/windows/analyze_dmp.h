/* Names the modules on the crashed stack of a dump, by having the debugger engine of Windows print
 * it. The host's timer thread, one analysis at a time. */
#ifndef ANALYZE_DMP_H
#define ANALYZE_DMP_H

#include <functional>
#include <set>
#include <string>

#include <stdint.h>

/* Module names as the engine prints them ("nt", "mydriver"), in ascending byte order. */
typedef std::set<std::string, std::less<>> crash_module_set;

/* Collects the modules of a dump's crashed stack; timeout_ms is for loading it. modules is emptied
 * and filled once there is a stack text. Result: 1 at least one module; 0 none, a log line says why
 * (a NULL or empty path too). */
int32_t analyze_dmp_file(const wchar_t *path, uint32_t timeout_ms, crash_module_set *modules);

/* What the engine prints as the stack of a dump. Result: whether every call of the engine
 * succeeded; the one that did not is logged, and text is untouched. */
bool get_dmp_info(const wchar_t *path, uint32_t timeout_ms, std::string *text);

/* Cuts the module names out of a printed stack: what stands before the first '!' of a line, or else
 * before its first '+', on the lines behind the first one with "Call Site" or "Stack unwind".
 * modules is emptied first. Result: whether there is at least one. */
bool get_module_set_from_dmp_info(const std::string &text, crash_module_set *modules);

#endif
