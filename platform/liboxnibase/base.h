/* Declarations that the files of this library share. Other libraries never include this header. */
#ifndef OXNIBASE_BASE_H
#define OXNIBASE_BASE_H

#include <cstdarg>
#include <string>

#include <windows.h>

#include <liboxnibase/host.h>

/* FILETIME: the offset from 1601 to 1970, one second and one millisecond, all in units of 100
 * ns. */
static constexpr uint64_t BASE_EPOCH_100NS = 116444736000000000ULL;
static constexpr uint64_t BASE_SECOND_100NS = 10000000ULL;
static constexpr uint64_t BASE_MS_100NS = 10000ULL;

/* The return address of a public function, to which allocations are attributed. */
#define BASE_CALLER() __builtin_return_address(0)

/* Same as oxni_zero_malloc_ and oxni_free_, attributed to that address. */
void *memory_allocate(size_t size, const void *caller);
void memory_free(void *block, const void *caller);

/* Converts UTF-8 to UTF-16. Returns false for NULL and for invalid UTF-8: wide is then empty. */
bool str_to_wide(const char *text, std::wstring *wide);
/* Converts UTF-16 to UTF-8; lone surrogates become U+FFFD. */
std::string str_to_utf8(const wchar_t *text);
/* Copies text if it fits completely. Returns false when it does not: buffer is then empty, unless
 * its size is 0. */
bool str_fit(const std::string &text, char *buffer, size_t size);

/* oxni_dirutils_path_transform without a buffer. Returns false for an invalid path. */
bool path_resolve(const char *path, std::string *resolved);

/* Returns the time zone that the host set; NULL for the process's own, as
 * SystemTimeToTzSpecificLocalTime expects. */
const TIME_ZONE_INFORMATION *clock_zone();

/* Returns the current local time in the format of the agent's log: "2026-01-31 23:59:59". */
std::string time_text_now();

/* Formats a line as the C runtime's printf does, including the %I64d of plug-ins, but with wide
 * text as UTF-8. Precisions of wide text count UTF-16 units; widths count bytes. */
std::string log_format(const char *format, va_list arguments);

/* Ends the agent's process: closes the log, then calls the host's function or
 * ExitProcess(exit_code). */
[[noreturn]] void log_end_process(unsigned exit_code);

#endif
