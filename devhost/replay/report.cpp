/* What a replay prints: a text for a person, and the same as JSON. */
#include "replay.h"

#include <algorithm>

#include <oxni/base/algo.h>

#include "../evidence/file.h"
#include "../scenario/journal.h"
#include "../scenario/scenario.h"
#include "../base/text.h"
#include "../view/view.h"

#define MOST_DAMAGE_LINES 5

static std::string count_text(size_t number)
{
    std::string text = std::to_string(number);

    for (size_t at = text.size(); at > 3; at -= 3)
        text.insert(at - 3, ",");
    return text;
}

static const char *many(size_t number)
{
    return number == 1 ? "" : "s";
}

static std::string ending_text(const evidence_run &run, const evidence_log &log)
{
    if (run.told_by == NO_RECORD)
        return evidence_ending_name(run.ending);
    return std::string(evidence_ending_name(run.ending)) +
           text_format(", record %u", log.events[run.told_by].number);
}

std::string replay_boots_text(const std::vector<evidence_run> &runs, const evidence_log &log,
                              const evidence_run *played)
{
    std::string text = "  boot  started               records        its run ended\n";

    for (const evidence_run &run : runs)
        text +=
            text_format("%s %4s  %-20s  %6u-%-6u  %s\n", &run == played ? ">" : " ",
                        run.number != 0 ? std::to_string(run.number).c_str() : "-",
                        run.number != 0 ? time_iso(run.started_100ns).c_str() : "before the log",
                        log.events[run.begin].number, log.events[run.end - 1].number,
                        ending_text(run, log).c_str());
    return text;
}

static std::string evidence_text(const replay_evidence &evidence)
{
    std::string text = evidence.events_file + ": " + count_text(evidence.records) + " record" +
                       many(evidence.records) + "\n";

    for (const std::string &line : evidence_log_damage(evidence.log, MOST_DAMAGE_LINES))
        text += "  " + line + "\n";
    for (const replay_dump &placed : evidence.dumps) {
        text += placed.dump.path + ": " + evidence_dump_kind(placed.dump) +
                text_format(" dump, bug check 0x%x at ", placed.dump.facts.bug_check) +
                time_iso(placed.dump.facts.crash_time_100ns) + "\n";
        for (const std::string &gap : placed.dump.facts.gaps)
            text += "  " + gap + "\n";
    }
    if (!evidence.registry_file.empty())
        text += evidence.registry_file + ": " + count_text(evidence.registry.values.size()) +
                " values below HKEY_LOCAL_MACHINE\n";
    return text;
}

/* "00:01:10.000  3 times until 00:01:15.000  ..." */
static std::string reason_text(const replay_reason &reason)
{
    std::string text = "  " + time_span(reason.ms) + "  " + reason.text;

    if (reason.times > 1)
        text +=
            text_format(" (%u times, last at %s)", reason.times, time_span(reason.last_ms).c_str());
    return text + "\n";
}

static std::string reasons_text(const replay_story &story, enum reason_topic topic,
                                const char *heading)
{
    std::string text;

    for (const replay_reason &reason : story.reasons)
        if (reason.topic == topic)
            text += reason_text(reason);
    return text.empty() ? "" : std::string("\n") + heading + ", the plug-in\n" + text;
}

/* What the plug-in did with a dump that was handed in. */
static std::string dump_fate(const replay_evidence &evidence, const replay_dump &placed,
                             const replay_story &story)
{
    const bool chosen = !story.dump.empty() && text_lower(story.dump) == text_lower(placed.place);

    if (!placed.there)
        return "is not on the machine: " + placed.why;
    if (chosen)
        return "was given to the debugger engine";
    if (story.dump.empty())
        return "was not given to the debugger engine; Windows started at " +
               time_iso(evidence.boot->started_100ns, true);
    for (const replay_dump &other : evidence.dumps)
        if (other.there && text_lower(story.dump) == text_lower(other.place))
            return "was passed over for " + other.place + ", written " +
                   time_iso(other.written_100ns, true);
    return "was passed over for " + story.dump;
}

static std::string dumps_text(const replay_evidence &evidence, const replay_story &story)
{
    std::string text;

    for (const replay_dump &placed : evidence.dumps)
        text += "  " +
                (placed.there ? placed.place + ", written " + time_iso(placed.written_100ns, true) +
                                    " (" + placed.why + "),\n    "
                              : placed.dump.file_name + " ") +
                dump_fate(evidence, placed, story) + "\n";
    return text;
}

static std::string stack_text(const replay_story &story)
{
    std::string text;
    bool any = false;

    for (const replay_frame &frame : story.stack) {
        const bool blamed = !story.blamed.empty() && frame.module == story.blamed;

        any = any || blamed;
        text += std::string(blamed ? "  > " : "    ") + frame.text + "\n";
    }
    if (text.empty())
        return "";
    return "\nThe stack as the engine gave it" +
           std::string(any ? "; > marks the module that is blamed" : "") + "\n" + text;
}

/* The answer to a command: the first one of its product behind it. */
static std::string reply_to(const std::vector<happening> &all, size_t command)
{
    size_t before = 0; /* commands to the product that are not answered yet */

    for (size_t i = 0; i < all.size(); i++) {
        const bool answer =
            all[i].kind == HAPPENED_REPLY && all[i].who == all[command].whom && before > 0;

        if (all[i].kind == HAPPENED_COMMAND && all[i].whom == all[command].whom && i <= command)
            before++;
        if (answer && --before == 0 && i > command)
            return "which " + all[i].text;
    }
    return "which nobody answered";
}

static std::string commands_text(void)
{
    const std::vector<happening> &all = journal_all();
    std::string text;

    for (size_t i = 0; i < all.size(); i++)
        if (all[i].kind == HAPPENED_COMMAND)
            text +=
                "  " + time_span(all[i].ms) + "  " + all[i].text + ", " + reply_to(all, i) + "\n";
    return "\nCommands\n" + (text.empty() ? "  none\n" : text);
}

/* The alarms by what tells them apart; the whole messages are in the JSON and the page. */
static std::string alarms_text(void)
{
    std::string text;

    for (const happening &what : journal_all()) {
        rapidjson::Document message;

        if (what.kind != HAPPENED_UPLOAD)
            continue;
        message.Parse(what.json.c_str());
        const json_value *content = node_member(node_member(&message, "data"), "content");

        text += "  " + time_span(what.ms) + "  " + what.text + "\n                " +
                node_text_of(node_member(content, "data"), "alarmResultDetail", "") + "\n";
    }
    return "\nAlarms\n" + (text.empty() ? "  none\n" : text);
}

static std::string products_text(const replay_evidence &evidence)
{
    std::string text = "\nProducts at the end\n";

    for (size_t i = 0; i < evidence.products.size(); i++) {
        rapidjson::Document state;

        state.Parse(evidence.states[i].c_str());
        text += text_format("  %-12s %s, count %lld\n", evidence.products[i].name.c_str(),
                            node_text_of(&state, "status", "").c_str(),
                            static_cast<long long>(node_integer_of(&state, "count", 0)));
    }
    return evidence.products.empty() ? "" : text;
}

/* The verdict in one sentence, made of what the plug-in said and ordered. */
static std::string verdict_text(const replay_story &story)
{
    size_t bypasses = 0;

    for (const happening &what : journal_all())
        if (what.kind == HAPPENED_COMMAND &&
            what.json.find("\"type\": \"bypass\"") != std::string::npos)
            bypasses++;
    std::string text = "Verdict: " + std::string(explain_verdict_name(story.verdict));

    if (!story.blamed.empty())
        text += ", bypass by " + story.blamed;
    else if (story.verdict == VERDICT_CRASH)
        text += ", nobody is blamed";
    return text +
           text_format("; %u bypass command%s", static_cast<unsigned>(bypasses), many(bypasses)) +
           "\n";
}

std::string replay_text(const replay_evidence &evidence, const replay_story &story)
{
    return evidence_text(evidence) + "\n" +
           replay_boots_text(evidence.runs, evidence.log, evidence.boot) + "\n" +
           verdict_text(story) + reasons_text(story, REASON_LOG, "Asking the event log") +
           reasons_text(story, REASON_DUMP, "Looking for a dump") + dumps_text(evidence, story) +
           reasons_text(story, REASON_STACK, "Reading the stack") + stack_text(story) +
           reasons_text(story, REASON_VERDICT, "Deciding") + commands_text() + alarms_text() +
           products_text(evidence);
}

/* JSON: members in the order of docs/replay.md. */

static std::string array(const std::vector<std::string> &elements, const char *separator = ", ")
{
    std::string text = "[";

    for (const std::string &element : elements)
        text += (text.size() > 1 ? separator : "") + element;
    return text + "]";
}

static std::string texts(const std::vector<std::string> &values)
{
    std::vector<std::string> quoted;

    for (const std::string &value : values)
        quoted.push_back(text_quoted(value));
    return array(quoted);
}

static std::string run_json(const evidence_run &run, const evidence_log &log)
{
    return text_format("{\"boot\": %u, \"started\": ", static_cast<unsigned>(run.number)) +
           (run.number != 0 ? text_quoted(time_iso(run.started_100ns, true)) : "null") +
           text_format(", \"first_record\": %u, \"last_record\": %u, \"ended\": \"%s\", "
                       "\"told_by\": %s}",
                       log.events[run.begin].number, log.events[run.end - 1].number,
                       evidence_ending_name(run.ending),
                       run.told_by != NO_RECORD
                           ? std::to_string(log.events[run.told_by].number).c_str()
                           : "null");
}

static std::string runs_json(const std::vector<evidence_run> &runs, const evidence_log &log)
{
    std::vector<std::string> rows;

    for (const evidence_run &run : runs)
        rows.push_back(run_json(run, log));
    return array(rows, ",\n  ");
}

std::string replay_boots_json(const std::vector<evidence_run> &runs, const evidence_log &log)
{
    return "{\"schema\": \"" REPLAY_BOOTS_SCHEMA "\", \"version\": 1, \"boots\": " +
           runs_json(runs, log) + "}\n";
}

static std::string log_json(const replay_evidence &evidence)
{
    return text_format("{\"file\": %s, \"records\": %u, \"lost_records\": %llu, ",
                       text_quoted(evidence.events_file).c_str(),
                       static_cast<unsigned>(evidence.records),
                       static_cast<unsigned long long>(evidence.log.lost_records)) +
           "\"cut_off\": " +
           (evidence.log.cut_off.empty() ? "null" : text_quoted(evidence.log.cut_off)) +
           ", \"damage\": " + texts(evidence.log.damage) + "}";
}

static std::string dump_json(const replay_evidence &evidence, const replay_dump &placed,
                             const replay_story &story)
{
    const evidence_dump &dump = placed.dump;
    std::string parameters;

    for (const uint64_t parameter : dump.facts.parameters)
        parameters += text_format("%s\"0x%llx\"", parameters.empty() ? "" : ", ",
                                  static_cast<unsigned long long>(parameter));
    return "{\"file\": " + text_quoted(dump.path) + ", \"kind\": \"" + evidence_dump_kind(dump) +
           text_format("\", \"bytes\": %llu, \"bug_check\": \"0x%x\", \"parameters\": [%s], ",
                       static_cast<unsigned long long>(dump.bytes), dump.facts.bug_check,
                       parameters.c_str()) +
           "\"crashed\": \"" + time_iso(dump.facts.crash_time_100ns, true) +
           "\", \"gaps\": " + texts(dump.facts.gaps) +
           ", \"place\": " + (placed.there ? text_quoted(placed.place) : "null") +
           ", \"written\": " +
           (placed.there ? text_quoted(time_iso(placed.written_100ns, true)) : "null") +
           ", \"why_there\": " + text_quoted(placed.why) +
           ", \"fate\": " + text_quoted(dump_fate(evidence, placed, story)) + "}";
}

static std::string product_json(const replay_product &product, const std::string &state)
{
    return "{\"name\": " + text_quoted(product.name) + ", \"modules\": " + texts(product.modules) +
           text_format(", \"count\": %lld, \"status\": \"%s\", \"at_the_end\": %s}",
                       static_cast<long long>(product.count), product.status.c_str(),
                       state.c_str());
}

static std::string record_json(const event_record &event)
{
    std::vector<std::string> strings;

    for (size_t i = 0; i < event.strings.count(); i++)
        strings.push_back(text_narrow(event.strings.at(i)));
    return text_format("{\"record\": %u, \"source\": %s, \"id\": %u, \"time\": \"%s\", "
                       "\"strings\": %s}",
                       event.number, text_quoted(text_narrow(event.source)).c_str(), event.id,
                       time_iso(time_of_unix(event.time)).c_str(), texts(strings).c_str());
}

static std::string indexes(const std::vector<size_t> &values)
{
    std::vector<std::string> numbers;

    for (const size_t value : values)
        numbers.push_back(std::to_string(value));
    return array(numbers);
}

static std::string reason_json(const replay_reason &reason)
{
    static const char *const topics[REASON_TOPICS] = {"log", "dump", "stack", "verdict"};

    return text_format("{\"topic\": \"%s\", \"ms\": %llu, \"last_ms\": %llu, \"times\": %u, ",
                       topics[reason.topic], static_cast<unsigned long long>(reason.ms),
                       static_cast<unsigned long long>(reason.last_ms), reason.times) +
           "\"text\": " + text_quoted(reason.text) + ", \"because\": " + indexes(reason.because) +
           "}";
}

static std::string frame_json(const replay_frame &frame)
{
    return "{\"text\": " + text_quoted(frame.text) +
           ", \"module\": " + (frame.module.empty() ? "null" : text_quoted(frame.module)) + "}";
}

/* What the plug-in sent, of one kind. */
static std::string sent_json(enum happening_kind kind)
{
    std::vector<std::string> rows;

    for (const happening &what : journal_all())
        if (what.kind == kind)
            rows.push_back(
                text_format("{\"ms\": %llu, ", static_cast<unsigned long long>(what.ms)) +
                (what.whom.empty() ? "" : "\"to\": " + text_quoted(what.whom) + ", ") +
                "\"message\": " + (what.json.empty() ? "null" : what.json) + "}");
    return array(rows, ",\n  ");
}

template <typename value, typename function>
static std::string rows(const std::vector<value> &values, function row)
{
    std::vector<std::string> texts;

    for (const value &one : values)
        texts.push_back(row(one));
    return array(texts, ",\n  ");
}

static std::string plugin_json(const std::string &path)
{
    const evidence_file file(path, UINT64_MAX);

    return text_format("{\"bytes\": %llu, \"crc32\": \"%08x\"}",
                       static_cast<unsigned long long>(file.bytes()),
                       oxni_crc32_calc(file.data(), static_cast<size_t>(file.bytes())));
}

std::string replay_json(const replay_evidence &evidence, const replay_story &story,
                        const std::string &plugin)
{
    std::vector<std::string> products;

    for (size_t i = 0; i < evidence.products.size(); i++)
        products.push_back(product_json(evidence.products[i], evidence.states[i]));
    return "{\"schema\": \"" REPLAY_SCHEMA "\", \"version\": 1,\n \"plugin\": " +
           plugin_json(plugin) + ",\n \"events\": " + log_json(evidence) + ",\n \"registry\": " +
           (evidence.registry_file.empty() ? "null" : text_quoted(evidence.registry_file)) +
           ",\n \"boots\": " + runs_json(evidence.runs, evidence.log) +
           ",\n \"boot\": " + std::to_string(evidence.boot->number) +
           ",\n \"verdict\": " + text_quoted(explain_verdict_name(story.verdict)) +
           ",\n \"blamed\": " + (story.blamed.empty() ? "null" : text_quoted(story.blamed)) +
           ",\n \"records\": " + rows(story.records, record_json) + ",\n \"dumps\": " +
           rows(evidence.dumps,
                [&](const replay_dump &placed) { return dump_json(evidence, placed, story); }) +
           ",\n \"stack\": " + rows(story.stack, frame_json) +
           ",\n \"commands\": " + sent_json(HAPPENED_COMMAND) +
           ",\n \"alarms\": " + sent_json(HAPPENED_UPLOAD) +
           ",\n \"products\": " + array(products, ",\n  ") +
           ",\n \"reasons\": " + rows(story.reasons, reason_json) +
           ",\n \"decisions\": " + indexes(story.decisions) +
           ",\n \"timeline\": " + rows(journal_all(), view_json) + "}\n";
}
