/* What the files of this library share. Never included from outside. */
#ifndef OXNIBASE_BASE_H
#define OXNIBASE_BASE_H

#include <cstdarg>
#include <string>

#include <windows.h>

#include <liboxnibase/host.h>

/* Between FILETIME's 1601 and 1970, in 100 ns; and its units a second and a millisecond. */
static constexpr uint64_t BASE_EPOCH_100NS = 116444736000000000ULL;
static constexpr uint64_t BASE_SECOND_100NS = 10000000ULL;
static constexpr uint64_t BASE_MS_100NS = 10000ULL;

/* The address that a public function returns to: where a block is booked. */
#define BASE_CALLER() __builtin_return_address(0)

/* oxni_zero_malloc_ and oxni_free_, booked on that address. */
void *memory_allocate(size_t size, const void *caller);
void memory_free(void *block, const void *caller);

/* UTF-16 of a UTF-8 text. Result false for NULL and for what is not UTF-8: wide is empty then. */
bool str_to_wide(const char *text, std::wstring *wide);
/* UTF-8 of a UTF-16 text; lone surrogates become U+FFFD. */
std::string str_to_utf8(const wchar_t *text);
/* Copies text whole or not at all. Result false: no room, and buffer is empty if it has any. */
bool str_fit(const std::string &text, char *buffer, size_t size);

/* The part of oxni_dirutils_path_transform that needs no buffer. Result false: no such path. */
bool path_resolve(const char *path, std::string *resolved);

/* The zone that is set, NULL for the process's own: as SystemTimeToTzSpecificLocalTime takes it. */
const TIME_ZONE_INFORMATION *clock_zone();

/* Local time now as the agent's lines carry it: "2026-01-31 23:59:59". */
std::string time_text_now();

/* A formatted line: the C runtime's printf, whose %I64d plug-ins use, but with wide texts as UTF-8.
 * Precisions of wide texts count UTF-16 units, widths count bytes. */
std::string log_format(const char *format, va_list arguments);

/* Ends the agent: the log is closed, then the host's function or ExitProcess(exit_code). */
[[noreturn]] void log_end_process(unsigned exit_code);

#endif
