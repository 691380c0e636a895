/*
 * Comparing what was expected with what happened.
 *
 * An object is expected as a part: each expected member must be there and fit, others may be too.
 * An array must have as many elements, each fitting its place. {"exactly": value} holds only for
 * the same value, members in the same order. In a text, * stands for any characters, and
 *   {local:T}     local date and time of T, "%d-%02d-%02d %02d:%02d:%02d"
 *   {event:T}     the same as event-log times are shown, "%d/%d/%d %.2d:%.2d:%.2d"
 *   {filetime:T}  T in 100 ns since 1601
 *   {unix:T}      T in seconds since 1970
 * with T as ISO 8601 in UTC. A text also fits a number whose digits it gives.
 */
#ifndef DEVHOST_MATCH_H
#define DEVHOST_MATCH_H

#include <string>

#include "scenario.h"

/* A text with its placeholders replaced. */
std::string match_expand(const std::string &text);

/* Result: empty when it fits, else where and why not. where: how the place is called. */
std::string match_json(const json_value &expected, const json_value &actual,
                       const std::string &where);

#endif
