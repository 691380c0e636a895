/*
 * What the platform promises, as rows: a sentence of docs/platform.md and the function that checks
 * it. Needs the headers and import libraries of a platform's SDK, and a driver.
 */
#ifndef PLATFORM_CHECK_H
#define PLATFORM_CHECK_H

#include <string>
#include <type_traits>
#include <windows.h>

#include <oxni/base/json.h>
#include <oxni/base/subscriber.h>

#include "driver.h"

/* Registers itself. */
struct promise {
    const char *area;
    const char *operation; /* of the document's table, or the heading above the sentence */
    const char *sentence;
    void (*run)(void);
    bool ends_process; /* kept when run does not return and the exit code is 0 */

    promise(const char *where, const char *what, const char *quoted, void (*code)(void), bool ends);
};

/* A row: PROMISE(area, operation, sentence) { body } */
#define PROMISE(area, operation, sentence) PROMISE_AT(area, operation, sentence, false, __LINE__)
#define PROMISE_ENDS(area, operation, sentence)                                                    \
    PROMISE_AT(area, operation, sentence, true, __LINE__)
#define PROMISE_AT(area, operation, sentence, ends, line)                                          \
    PROMISE_NAMED(area, operation, sentence, ends, line)
#define PROMISE_NAMED(area, operation, sentence, ends, line)                                       \
    static void promise_##line();                                                                  \
    static const promise s_promise_##line(#area, operation, sentence, promise_##line, ends);       \
    static void promise_##line()

/* A row whose body is that of a function that several rows have. */
#define PROMISE_BY(function, area, operation, sentence)                                            \
    PROMISE_BY_AT(function, area, operation, sentence, __LINE__)
#define PROMISE_BY_AT(function, area, operation, sentence, line)                                   \
    PROMISE_BY_NAMED(function, area, operation, sentence, line)
#define PROMISE_BY_NAMED(function, area, operation, sentence, line)                                \
    static const promise s_promise_##line(#area, operation, sentence, function, false);

/* Runs the rows of an area that do not end the process, inside another row. */
void check_area(const char *area);

/* Compares, and notes the first difference of a row. */
#define SAME(expected, seen) check_same(text_of(expected), text_of(seen), #seen)
#define HOLDS(condition)     check_same("true", (condition) ? "true" : "false", #condition)
void check_same(const std::string &expected, const std::string &seen, const char *what);

/* Names the case of the following comparisons. */
void check_case(const std::string &name);

std::string text_of(const char *text);
std::string text_of(const wchar_t *text);
inline std::string text_of(const std::string &text)
{
    return text;
}
template <class number> std::enable_if_t<std::is_integral_v<number>, std::string> text_of(number n)
{
    return std::to_string(n);
}
inline std::string text_of(const void *address)
{
    return address == nullptr ? "NULL" : std::to_string(reinterpret_cast<uintptr_t>(address));
}

/* Records an event of a callback. notes() returns them in order, joined by blanks, and clears
 * them. */
void note(const std::string &text);
std::string notes();

/* Delivers what is due within the next milliseconds; the row ends when the driver cannot. */
void deliver(unsigned ms = 0);
/* Returns a member of the driver; the row ends unchecked when it is NULL. */
#define ABLE(member) (check_able(g_driver.member != nullptr, #member), g_driver.member)
void check_able(bool able, const char *member);

/* Returns a path below this row's directory; UTF-8, with forward slashes. */
std::string path_of(const std::string &name);
std::wstring wide_of(const std::string &text);
/* Returns a file's bytes; "(none)" when it cannot be opened. */
std::string file_bytes(const std::string &path);
void file_write(const std::string &path, const std::string &bytes);
/* Returns a JSON value that lives until the end of the row. */
json_t *json_of(const std::string &text);
/* Returns a name that no other row uses, which lives until the process ends. */
const char *unique(const char *name);

#endif
