/*
 * Expectations of events: each member of an "expect" looks at one kind of event since the start of
 * the boot or its previous "expect".
 */
#include "expect_internal.h"

#include <oxni/base/log.h>

#include "../agent/agent.h"
#include "../base/text.h"
#include "../calls/calls.h"
#include "../scenario/match.h"

/* The first journal entry that the next expectation covers. */
static size_t s_from;

static std::vector<const happening *> happenings(enum happening_kind kind)
{
    const std::vector<happening> &all = journal_all();
    std::vector<const happening *> found;

    for (size_t i = s_from; i < all.size(); i++)
        if (all[i].kind == kind && all[i].boot == journal_boot())
            found.push_back(&all[i]);
    return found;
}

/* An event with a message as JSON: the members of the message, "at" in seconds, and "to" for a
 * command, else "from". */
static void message_json(const happening &what, rapidjson::Document &json)
{
    const bool command = what.kind == HAPPENED_COMMAND;
    json_value at(static_cast<double>(what.ms) / 1000.0), name;

    json.Parse(what.json.empty() ? "{}" : what.json.c_str());
    if (what.kind == HAPPENED_UPLOAD)
        return;
    if (!json.IsObject())
        json.SetObject();
    auto &memory = json.GetAllocator();
    name.SetString((command ? what.whom : what.who).c_str(), memory);
    json.AddMember("at", at, memory);
    json.AddMember(rapidjson::StringRef(command ? "to" : "from"), name, memory);
}

static std::string place_of(size_t index)
{
    return "[" + std::to_string(index) + "]";
}

/* Adds a failure for more than was expected. */
static void check_rest(const expect_context &context, const std::vector<const happening *> &found,
                       const char *what)
{
    const unsigned expected = context.value->Size();

    if (expected < found.size())
        expect_fail(context,
                    text_format("%u %s, expected %u; the next is ",
                                static_cast<unsigned>(found.size()), what, expected) +
                        found[expected]->text +
                        (found[expected]->kind == HAPPENED_LOG ? "" : " " + found[expected]->json));
}

/* Messages of a kind, in order, as many as expected and each fitting. */
static void check_messages(const expect_context &context)
{
    std::vector<const happening *> found = happenings(context.kind);
    size_t index = 0;

    for (const node &expected : context.value.elements()) {
        rapidjson::Document actual;
        const std::string place = place_of(index);

        if (index == found.size()) {
            expect_fail(context, place + " is missing, expected " + node_to_text(*expected));
            return;
        }
        message_json(*found[index++], actual);
        expect_fail(context, match_json(*expected, actual, place));
    }
    check_rest(context, found, "events");
}

/* A log line that contains a text, or has a level, a file and a part of its text. */
static bool log_fits(const node &expected, const std::string &line, int level)
{
    static const char *const levels[] = {"error", "warn", "info", "debug"};
    log_line parts = text_log_line(line);
    std::string file = parts.place.substr(0, parts.place.rfind(':'));

    if (expected->IsString())
        return match_part(line, expected->GetString());
    if (expected["level"] && (level < 0 || level > 3 || expected.text("level") != levels[level] ||
                              expected.text("level") != parts.level))
        return false;
    return match_text(file, expected.text("file", "*")) &&
           match_part(parts.message, expected.text("text"));
}

static bool event_fits(const node &expected, const happening &what)
{
    rapidjson::Document actual;

    if (what.kind == HAPPENED_LOG)
        return log_fits(expected, what.text, what.number);
    if (expected->IsString())
        return match_part(what.text, expected->GetString());
    message_json(what, actual);
    return match_json(*expected, actual, "").empty();
}

struct expected_event {
    enum happening_kind kind;
    node value;
};

/* The events in this order; others may be between them. */
static void check_order(const expect_context &context, const std::vector<expected_event> &expected)
{
    const std::vector<happening> &all = journal_all();
    size_t at = s_from, found = 0;

    for (; found < expected.size() && at < all.size(); at++)
        if (all[at].kind == expected[found].kind && all[at].boot == journal_boot() &&
            event_fits(expected[found].value, all[at]))
            found++;
    if (found < expected.size())
        expect_fail(context,
                    "no " + node_to_text(*expected[found].value) +
                        (found == 0 ? std::string()
                                    : " after " + node_to_text(*expected[found - 1].value)));
}

static void check_in_order(const expect_context &context)
{
    std::vector<expected_event> expected;

    for (const node &element : context.value.elements())
        expected.push_back({context.kind, element});
    check_order(context, expected);
}

/* Events of several kinds in one order; each names its kind. */
static void check_sequence(const expect_context &context)
{
    std::vector<expected_event> expected;

    for (const node &element : context.value.elements())
        for (const auto &[kind, value] : element.members())
            expected.push_back({journal_kind(kind), value});
    check_order(context, expected);
}

static void check_none(const expect_context &context)
{
    for (const node &unexpected : context.value.elements())
        for (const happening *what : happenings(context.kind))
            if (event_fits(unexpected, *what)) {
                expect_fail(context, "not expected: " + what->text);
                return;
            }
}

/* As many as expected, each fitting. */
static void check_list(const expect_context &context)
{
    std::vector<const happening *> found = happenings(context.kind);

    if (found.size() != context.value->Size()) {
        expect_fail(context,
                    text_format("%u events, expected %u%s%s", static_cast<unsigned>(found.size()),
                                context.value->Size(), found.empty() ? "" : "; the first is ",
                                found.empty() ? "" : found[0]->text.c_str()));
        return;
    }
    for (size_t i = 0; i < found.size(); i++) {
        const json_value *expected = &(*context.value)[static_cast<rapidjson::SizeType>(i)];

        if (!match_text(found[i]->text, expected->GetString()))
            expect_fail(context, place_of(i) + " is \"" + found[i]->text + "\", expected \"" +
                                     match_expand(expected->GetString()) + "\"");
    }
}

/* All lines of level warn and error, in order, and no others. */
static void check_warnings(const expect_context &context)
{
    std::vector<const happening *> found;
    size_t index = 0;

    for (const happening *what : happenings(context.kind))
        if (what->number <= OXNI_LOG_WARN)
            found.push_back(what);
    for (const node &expected : context.value.elements()) {
        if (index == found.size() || !event_fits(expected, *found[index])) {
            expect_fail(context, place_of(index) + " is " +
                                     (index == found.size() ? "missing" : found[index]->text) +
                                     ", expected " + node_to_text(*expected));
            return;
        }
        index++;
    }
    check_rest(context, found, "lines");
}

static void check_log_counts(const expect_context &context)
{
    for (const auto &[name, value] : context.value.members()) {
        int64_t count = 0;

        for (const happening *what : happenings(context.kind))
            count += match_part(what->text, name) ? 1 : 0;
        if (count != value->GetInt64())
            expect_fail(context, text_format("\"%s\" occurs %lld times, expected %lld",
                                             name.c_str(), count, value->GetInt64()));
    }
}

/* A name counts all its calls; a text with "(" the traced calls that contain it. */
static void check_call_counts(const expect_context &context)
{
    for (const auto &[name, value] : context.value.members()) {
        bool traced = name.find('(') != std::string::npos;
        uint64_t count = traced ? 0 : calls_count(name);

        for (const happening *what : happenings(context.kind))
            count += traced && match_part(what->text, name) ? 1u : 0u;
        if (!traced && !calls_known(name))
            expect_fail(context, name + " is not a call that is counted");
        if (count != value->GetUint64())
            expect_fail(context, text_format("%s was called %llu times, expected %llu",
                                             name.c_str(), count, value->GetUint64()));
    }
}

static const expect_member s_members[] = {
    {"commands",    check_messages,    HAPPENED_COMMAND  },
    {"messages",    check_messages,    HAPPENED_MESSAGE  },
    {"uploads",     check_messages,    HAPPENED_UPLOAD   },
    {"sequence",    check_sequence,    HAPPENED_BOOT     },
    {"log",         check_in_order,    HAPPENED_LOG      },
    {"no_log",      check_none,        HAPPENED_LOG      },
    {"warnings",    check_warnings,    HAPPENED_LOG      },
    {"log_counts",  check_log_counts,  HAPPENED_LOG      },
    {"echo",        check_list,        HAPPENED_ECHO     },
    {"refused",     check_list,        HAPPENED_REFUSED  },
    {"complaints",  check_list,        HAPPENED_COMPLAINT},
    {"calls",       check_in_order,    HAPPENED_CALL     },
    {"no_calls",    check_none,        HAPPENED_CALL     },
    {"call_counts", check_call_counts, HAPPENED_CALL     },
};

static void check_unexpected(const node &where, enum happening_kind kind,
                             std::vector<std::string> &failures)
{
    for (const happening *what : happenings(kind))
        failures.push_back(where.place() + ": not expected: " + what->text);
}

void expect_check(const node &expect, std::vector<std::string> &failures)
{
    for (const auto &[name, value] : expect.members()) {
        if (expect_state(name, {value, failures, HAPPENED_BOOT}))
            continue;
        for (const expect_member &member : s_members)
            if (name == member.name)
                member.check({value, failures, member.kind});
    }
    if (!expect["complaints"])
        check_unexpected(expect, HAPPENED_COMPLAINT, failures);
    if (!expect["refused"])
        check_unexpected(expect, HAPPENED_REFUSED, failures);
    expect_start_boot();
}

void expect_no_complaints(const node &boot, std::vector<std::string> &failures)
{
    const std::string open = calls_left_open();

    check_unexpected(boot, HAPPENED_COMPLAINT, failures);
    if (!open.empty() && agent_state_get() != AGENT_EXITED)
        failures.push_back(boot.place() + ": the plug-in leaves " + open + " open");
    s_from = journal_all().size();
}

void expect_start_boot(void)
{
    s_from = journal_all().size();
    calls_reset_counts();
}
