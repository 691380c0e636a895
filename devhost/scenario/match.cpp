/* Comparing expected and actual JSON. Stateless. */
#include "match.h"

#include <oxni/base/time.h>

#include "../../platform/liboxnibase/host.h"
#include "../base/text.h"

/* A "*" that is none, in patterns and in texts compared with them. */
static constexpr char STAR = '\001';

static std::string local_text(uint64_t filetime)
{
    struct tm local;

    if (oxni_time_stamp_to_local(time_unix(filetime), &local) != 0)
        return "(no date)";
    return text_format("%d-%02d-%02d %02d:%02d:%02d", local.tm_year + 1900, local.tm_mon + 1,
                       local.tm_mday, local.tm_hour, local.tm_min, local.tm_sec);
}

/* Windows' conversion of a file time takes the bias of now, not that of the time. */
static std::string event_text(uint64_t filetime)
{
    const FILETIME utc = {static_cast<DWORD>(filetime), static_cast<DWORD>(filetime >> 32)};
    FILETIME local;
    SYSTEMTIME date;

    if (!oxnih_filetime_to_local(&utc, &local) || !FileTimeToSystemTime(&local, &date))
        return "(no date)";
    return text_format("%d/%d/%d %.2d:%.2d:%.2d", date.wMonth, date.wDay, date.wYear, date.wHour,
                       date.wMinute, date.wSecond);
}

/* Replaces a placeholder of a time. Result: false when it is none. */
static bool expand_one(const std::string &inside, std::string *text)
{
    size_t colon = inside.find(':');
    std::string word = inside.substr(0, colon);
    uint64_t time;

    if (colon == std::string::npos || !time_parse(inside.substr(colon + 1), &time))
        return false;
    if (word == "local")
        *text = local_text(time);
    else if (word == "event")
        *text = event_text(time);
    else if (word == "filetime")
        *text = std::to_string(time);
    else if (word == "unix")
        *text = std::to_string(time_unix(time));
    else
        return false;
    return true;
}

std::string match_expand(const std::string &text)
{
    std::string expanded = text, replacement;
    size_t open = 0, end;

    while ((open = expanded.find('{', open)) != std::string::npos &&
           (end = expanded.find('}', open)) != std::string::npos) {
        if (expand_one(expanded.substr(open + 1, end - open - 1), &replacement)) {
            expanded.replace(open, end - open + 1, replacement);
            open += replacement.size();
        } else {
            open++;
        }
    }
    return expanded;
}

bool match_text(const std::string &text, const std::string &pattern)
{
    std::string expanded = text_replace(match_expand(pattern), "{star}", std::string(1, STAR));

    if (expanded.find(STAR) == std::string::npos)
        return text_fits(text, expanded);
    return text_fits(text_replace(text, "*", std::string(1, STAR)), expanded);
}

bool match_part(const std::string &text, const std::string &pattern)
{
    return match_text(text, "*" + pattern + "*");
}

static std::string differs(const json_value &expected, const json_value &actual,
                           const std::string &where)
{
    return where + " is " + node_to_text(actual) + ", expected " + node_to_text(expected);
}

/* A text that fits a text, or the digits of a number. */
static bool text_is(const json_value &expected, const json_value &actual)
{
    return match_text(actual.IsString() ? actual.GetString() : node_to_text(actual),
                      expected.GetString());
}

/* Whether an expectation is {"text": ...} or {"number": ...} and means the type of a plain value:
 * for an object it means a member. */
static bool names_type(const json_value &expected, const json_value &actual)
{
    return expected.IsObject() && expected.MemberCount() == 1 && !actual.IsObject() &&
           (expected.HasMember("text") || expected.HasMember("number"));
}

static bool has_type_and_value(const json_value &expected, const json_value &actual)
{
    const json_value &value = expected.MemberBegin()->value;

    if (expected.HasMember("text") ? !actual.IsString() : !actual.IsNumber())
        return false;
    return value.IsString() ? text_is(value, actual) : value == actual;
}

/* The same members in the same order, texts as patterns. */
static bool is_exactly(const json_value &expected, const json_value &actual)
{
    if (names_type(expected, actual))
        return has_type_and_value(expected, actual);
    if (expected.IsString())
        return !actual.IsObject() && !actual.IsArray() && text_is(expected, actual);
    if (expected.IsObject()) {
        if (!actual.IsObject() || actual.MemberCount() != expected.MemberCount())
            return false;
        auto other = actual.MemberBegin();
        for (const auto &member : expected.GetObject()) {
            if (member.name != other->name || !is_exactly(member.value, other->value))
                return false;
            ++other;
        }
        return true;
    }
    if (expected.IsArray()) {
        if (!actual.IsArray() || actual.Size() != expected.Size())
            return false;
        for (rapidjson::SizeType i = 0; i < expected.Size(); i++)
            if (!is_exactly(expected[i], actual[i]))
                return false;
        return true;
    }
    return expected == actual;
}

static std::string match_object(const json_value &expected, const json_value &actual,
                                const std::string &where)
{
    if (!actual.IsObject())
        return differs(expected, actual, where);
    for (const auto &member : expected.GetObject()) {
        const char *name = member.name.GetString();
        const json_value *found = node_member(&actual, name);
        std::string place = where + "." + name;
        std::string why;

        if (found == nullptr)
            return place + " is missing, expected " + node_to_text(member.value);
        why = match_json(member.value, *found, place);
        if (!why.empty())
            return why;
    }
    return "";
}

static std::string match_array(const json_value &expected, const json_value &actual,
                               const std::string &where)
{
    if (!actual.IsArray() || actual.Size() != expected.Size())
        return differs(expected, actual, where);
    for (rapidjson::SizeType i = 0; i < expected.Size(); i++) {
        std::string why = match_json(expected[i], actual[i], where + "[" + std::to_string(i) + "]");

        if (!why.empty())
            return why;
    }
    return "";
}

std::string match_json(const json_value &expected, const json_value &actual,
                       const std::string &where)
{
    const json_value *exactly = node_member(&expected, "exactly");

    if (exactly != nullptr && expected.MemberCount() == 1)
        return is_exactly(*exactly, actual)
                   ? ""
                   : where + " is " + node_to_text(actual) + ", expected exactly " +
                         match_expand(node_to_text(*exactly));
    if (names_type(expected, actual))
        return has_type_and_value(expected, actual) ? "" : differs(expected, actual, where);
    if (expected.IsObject())
        return match_object(expected, actual, where);
    if (expected.IsArray())
        return match_array(expected, actual, where);
    if (!expected.IsString())
        return expected == actual ? "" : differs(expected, actual, where);
    if (text_is(expected, actual))
        return "";
    return where + " is " + node_to_text(actual) + ", expected \"" +
           match_expand(expected.GetString()) + "\"";
}
