/*
 * Comparing what was expected with what happened.
 *
 * An object is expected as a part: each expected member must be there and fit, others may be too.
 * An array must have as many elements, each fitting its place. {"exactly": value} accepts only the
 * same value, members in the same order. A text also fits a number with these digits; {"text": T}
 * accepts only a text, {"number": N} only a number. In a text, * stands for any characters, and
 *   {star}        one *
 *   {local:T}     local date and time of T, "%d-%02d-%02d %02d:%02d:%02d"
 *   {event:T}     the same as event-log times are shown, with the bias of now,
 *                 "%d/%d/%d %.2d:%.2d:%.2d"
 *   {filetime:T}  T in 100 ns since 1601
 *   {unix:T}      T in seconds since 1970
 * with T as ISO 8601 in UTC.
 */
#ifndef DEVHOST_MATCH_H
#define DEVHOST_MATCH_H

#include <string>

#include "scenario.h"

/* Whether a pattern fits a whole text, and whether it fits a part of it. */
bool match_text(const std::string &text, const std::string &pattern);
bool match_part(const std::string &text, const std::string &pattern);
/* Returns a pattern with its times replaced, for messages. */
std::string match_expand(const std::string &pattern);

/* Returns empty when it fits, else where and why not. where: the name of the place. */
std::string match_json(const json_value &expected, const json_value &actual,
                       const std::string &where);

#endif
