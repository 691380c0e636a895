/* Texts and times that every directory of the development host uses. */
#ifndef DEVHOST_TEXT_H
#define DEVHOST_TEXT_H

#include <cstdint>
#include <cstdio>

#include <string>
#include <vector>

#include <oxni/base/json.h>

#include "exit_status.h"

/* UTF-16 and UTF-8; invalid characters become U+FFFD. */
std::string text_narrow(const std::wstring &wide);
std::wstring text_wide(const std::string &utf8);

/* printf into a string. */
std::string text_format(const char *format, ...)
    __attribute__((format(__MINGW_PRINTF_FORMAT, 1, 2)));

std::wstring text_lower(const std::wstring &wide);
std::string text_lower(const std::string &ascii);

/* text with every occurrence of one part replaced. */
std::string text_replace(std::string text, const std::string &from, const std::string &to);

/* The bytes of a number or a structure, and of UTF-16 without its NUL. */
template <typename T> std::string text_bytes(const T &value)
{
    return std::string(reinterpret_cast<const char *>(&value), sizeof(value));
}
inline std::string text_bytes(const std::wstring &text)
{
    return std::string(reinterpret_cast<const char *>(text.data()), text.size() * sizeof(wchar_t));
}

/* Bytes as hexadecimal digits, "00ff", and back; half a pair at the end is left out. */
std::string text_hex(const std::string &bytes);
std::string text_of_hex(const std::string &hex);

/* "1 dump", "2,345 records": a number with its noun, which takes an s. */
std::string text_count(uint64_t number, const std::string &noun);

/* "file not found (2)": an error of Windows in words, with its code. */
std::string text_error(unsigned long error);

/* Splits at each separator: "a,,b" has three parts, "" has one. */
std::vector<std::string> text_split(const std::string &text, char separator);

/* A JSON string. text: UTF-8. */
std::string text_quoted(const std::string &text);

/* The parts of a log line of the plug-in. */
struct log_line {
    std::string level;   /* "info" */
    std::string place;   /* "file.cpp:12"; empty for a line of another form */
    std::string message; /* the whole line then */
};
log_line text_log_line(const std::string &line);

/* Whether pattern matches the whole text; * matches any characters. */
bool text_fits(const std::string &text, const std::string &pattern);

/* JSON text of a Jansson value with separators ", " and ": ", or without spaces. Allocates nothing
 * from the platform, whose allocations are counted. NULL gives "null". */
std::string text_of_json(const json_t *json, bool compact = false);

/* "2024-03-07T09:05:41Z" of a UTC FILETIME, with milliseconds if wanted. */
std::string time_iso(uint64_t filetime_100ns, bool milliseconds = false);

/* Parses "YYYY-MM-DDTHH:MM:SS[.fffffff]Z". Result: whether the text is such a time. */
bool time_parse(const std::string &iso, uint64_t *filetime_100ns);

/* "1d 02:03:04.500" of a number of milliseconds. */
std::string time_span(uint64_t ms);

/* Seconds since 1970 of a FILETIME, and back. */
int64_t time_unix(uint64_t filetime_100ns);
uint64_t time_of_unix(int64_t seconds);

/* Milliseconds of this computer's clock since an unspecified moment; for measurements only. */
double time_real_ms(void);

static constexpr uint64_t TICKS_PER_SECOND = 10000000ull;
static constexpr uint64_t TICKS_PER_MS = 10000ull;

#endif
