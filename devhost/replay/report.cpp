/* The result of a replay as text for a person: the answer first, then its reasons. */
#include "replay.h"

#include <algorithm>

#include "../base/terminal.h"
#include "../base/text.h"
#include "../kernel_dump/bug_check.h"
#include "../scenario/journal.h"
#include "../scenario/scenario.h"

static constexpr int MOST_DAMAGE_LINES = 5;

static std::string ending_text(const evidence_run &run, const evidence_log &log)
{
    if (run.told_by == NO_RECORD)
        return evidence_ending_name(run.ending);
    return std::string(evidence_ending_name(run.ending)) +
           text_format(", record %u", log.events[run.told_by].number);
}

/* Result: NULL when the run was not played. */
static const replay_row *row_of(const std::vector<replay_row> &rows, const evidence_run &run)
{
    for (const replay_row &row : rows)
        if (row.run == &run)
            return &row;
    return nullptr;
}

static std::string boot_text(const replay_evidence &evidence, const std::vector<replay_row> &rows,
                             const evidence_run &run)
{
    const evidence_log &log = evidence.log;
    const replay_row *row = row_of(rows, run);
    std::string text =
        text_format("%s %4s  %-20s  %6u-%-6u  ", &run == evidence.boot ? ">" : " ",
                    run.number != 0 ? std::to_string(run.number).c_str() : "-",
                    run.number != 0 ? time_iso(run.started_100ns).c_str() : "before the log",
                    run.first_record, run.last_record);

    if (row == nullptr)
        return text + ending_text(run, log) + "\n";
    return text + text_format("%-24s  %-11s  %-16s  %s\n", ending_text(run, log).c_str(),
                              replay_answer_name(row->answer.kind),
                              row->blamed.empty() ? "-" : row->blamed.c_str(),
                              row->answer.kind == ANSWER_BYPASS
                                  ? text_count(row->answer.ordered, "product").c_str()
                                  : "-");
}

std::string replay_boots_text(const replay_evidence &evidence, const std::vector<replay_row> &rows)
{
    std::string text = "  boot  started               records        its run ended";

    text += rows.empty() ? "\n" : "             answer       blamed            ordered\n";
    for (const evidence_run &run : evidence.runs)
        text += boot_text(evidence, rows, run);
    if (evidence.boot != nullptr)
        return text;
    for (const std::string &line : evidence_log_damage(evidence.log, MOST_DAMAGE_LINES))
        text += evidence.events_file + ": " + line + "\n";
    return text;
}

static std::string evidence_text(const replay_evidence &evidence)
{
    std::string text = "\nEvidence\n  " + evidence.events_file + ": " +
                       text_count(evidence.log.records, "record") + "\n";

    for (const std::string &line : evidence_log_damage(evidence.log, MOST_DAMAGE_LINES))
        text += "    " + line + "\n";
    for (const replay_dump &placed : evidence.dumps) {
        const kernel_dump &facts = placed.dump.facts;

        text += "  " + placed.dump.shown + ": " + evidence_dump_kind(placed.dump) +
                " dump, bug check " + bug_check_title(facts.bug_check) + ", crashed " +
                time_iso(facts.crash_time_100ns) + "\n";
        for (const std::string &gap : facts.gaps)
            text += "    incomplete: " + gap + "\n";
    }
    text += images_text(evidence.image_uses);
    for (const std::string &file : evidence.registry_files)
        text += "  " + file + ": registry export\n";
    text += "  time zone: " + evidence.zone.name +
            (evidence.zone.source.empty() ? ", assumed: no evidence contains it (--time-zone)"
                                          : ", from " + evidence.zone.source) +
            "\n";
    for (const replay_ignored &ignored : evidence.ignored)
        text += "  not used: " + ignored.file + ": " + ignored.why + "\n";
    return text;
}

/* "00:01:10.000  ... (3 times, last at 00:01:15.000)" */
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

static std::string dumps_text(const replay_evidence &evidence, const replay_story &story)
{
    std::string text;

    for (const replay_dump &placed : evidence.dumps)
        text += "  " +
                (placed.there ? placed.place + ", written " + time_iso(placed.written_100ns, true) +
                                    " (" + placed.why + "),\n    "
                              : placed.dump.file_name + " ") +
                replay_dump_fate(evidence, placed, story) + "\n";
    return text;
}

static std::string stack_text(const replay_story &story)
{
    std::string text;
    bool any = false;

    for (const replay_frame &frame : story.stack) {
        const bool blamed = !story.blamed.empty() && frame.module == story.blamed;

        any = any || blamed;
        text += std::string(blamed ? "  > " : "    ") + frame.text +
                (frame.found.empty() ? "" : "  (" + frame.found + ")") + "\n";
    }
    if (text.empty())
        return "";
    return "\nThe stack as the engine printed it" +
           std::string(any ? "; > marks the blamed module" : "") + "\n" + text;
}

/* The reply to a command: the first one of its product that answers no earlier command. */
static std::string delivery_of(const std::vector<happening> &all, size_t command)
{
    size_t before = 0; /* commands to the product without a reply so far */

    for (size_t i = 0; i < all.size(); i++) {
        const bool reply =
            all[i].kind == HAPPENED_REPLY && all[i].who == all[command].whom && before > 0;

        if (all[i].kind == HAPPENED_COMMAND && all[i].whom == all[command].whom && i <= command)
            before++;
        if (reply && --before == 0 && i > command)
            return all[i].number == 0 ? "delivered"
                                      : text_format("not delivered, error %d", all[i].number);
    }
    return "without a reply";
}

/* "orders guard into bypass (blamed driver: guard_flt), delivered" */
static std::string command_text(const std::vector<happening> &all, size_t index)
{
    rapidjson::Document message;

    message.Parse(all[index].json.c_str());
    const std::string type = node_text_of(&message, "type", ""), &whom = all[index].whom,
                      reason = node_text_of(&message, "reason", "");
    std::string text = all[index].text;

    if (type == "bypass")
        text = "orders " + whom + " into bypass (blamed driver: " + reason + ")";
    else if (type == "recover")
        text = "orders " + whom + " to recover";
    else if (type == "set_count")
        text = "orders " + whom +
               text_format(" to set its count to %lld", node_integer_of(&message, "count", 0));
    return "  " + time_span(all[index].ms) + "  " + text + ", " + delivery_of(all, index) + "\n";
}

static std::string commands_text(void)
{
    const std::vector<happening> &all = journal_all();
    std::string text;

    for (size_t i = 0; i < all.size(); i++)
        if (all[i].kind == HAPPENED_COMMAND)
            text += command_text(all, i);
    return "\nCommands\n" + (text.empty() ? "  none\n" : text);
}

/* The alarms in short; the JSON and the page contain the messages. */
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
                            node_integer_of(&state, "count", 0));
    }
    return evidence.products.empty() ? "" : text;
}

/* The plug-in's conclusion, and the bypass commands of all products, the platform's own included. */
static std::string verdict_text(const replay_story &story)
{
    size_t bypasses = 0;

    for (const happening &what : journal_all())
        if (what.kind == HAPPENED_COMMAND &&
            what.json.find("\"type\": \"bypass\"") != std::string::npos)
            bypasses++;
    return "\nVerdict of the plug-in: " + std::string(explain_verdict_name(story.verdict)) +
           (story.blamed.empty() ? "" : ", blames " + story.blamed) + "; " +
           text_count(bypasses, "bypass command") + "\n";
}

static std::string answer_text(const replay_answer &answer)
{
    static const char *const colours[] = {"\x1b[1;31m", "\x1b[1;32m", "\x1b[1;33m"};
    const bool colour = terminal_has_colours();
    std::string text =
        (colour ? colours[answer.kind] : "") + answer.sentence + (colour ? "\x1b[0m" : "") + "\n";

    if (!answer.doubts.empty())
        text += "\nWhat would change the answer\n";
    for (const std::string &doubt : answer.doubts)
        text += "  - " + doubt + "\n";
    return text;
}

std::string replay_text(const replay_evidence &evidence, const replay_story &story,
                        const replay_answer &answer, const std::vector<replay_row> &rows)
{
    return answer_text(answer) + evidence_text(evidence) + "\nBoots; > marks the one below" +
           (rows.empty() ? "" : ", and an answer judges how the previous run ended") + "\n" +
           replay_boots_text(evidence, rows) + verdict_text(story) +
           reasons_text(story, REASON_LOG, "Querying the event log") +
           reasons_text(story, REASON_DUMP, "Looking for a dump") + dumps_text(evidence, story) +
           reasons_text(story, REASON_STACK, "Reading the stack") + stack_text(story) +
           reasons_text(story, REASON_VERDICT, "Deciding") + commands_text() + alarms_text() +
           products_text(evidence);
}
