/* Names the modules on the crashed stack of a dump, which the debugger engine of Windows prints. The
 * host's timer thread, one analysis at a time. Functions that fill a set throw std::bad_alloc. */
#ifndef ANALYZE_DMP_H
#define ANALYZE_DMP_H

#include <string>

#include <stdint.h>

#include "crash_info.h"

/* Collects the modules of a dump's crashed stack; timeout_ms limits the loading of the dump. modules
 * is emptied and filled once there is a stack text. Result: whether there is at least one module; a
 * log line gives the reason when there is none (a NULL or empty path too). */
bool analyze_dmp_file(const wchar_t *path, uint32_t timeout_ms, crash_module_set *modules);

/* What the engine prints as the stack of a dump. Result: whether every call of the engine
 * succeeded and the whole text was received; a failure is logged, and text is untouched then. */
bool get_dmp_info(const wchar_t *path, uint32_t timeout_ms, std::string *text);

/* Cuts the module names out of a printed stack: the part of a line before its first '!', or else
 * before its first '+', of all lines after the first one with "Call Site" or "Stack unwind".
 * modules is emptied first. Result: whether there is at least one module. */
bool get_module_set_from_dmp_info(const std::string &text, crash_module_set *modules);

#endif
