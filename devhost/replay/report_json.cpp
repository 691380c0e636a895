/* The result of a replay as JSON: members in the order of docs/replay.md. */
#include "replay.h"

#include <oxni/base/algo.h>

#include "../base/text.h"
#include "../base/text_json.h"
#include "../base/file.h"
#include "../kernel_dump/bug_check.h"
#include "../scenario/journal.h"
#include "../view/view.h"

static void put_log(json_lines &writer, const char *name, const replay_evidence &evidence)
{
    writer.Key(name);
    writer.StartObject();
    json_member(writer, "file", evidence.events_file);
    json_member(writer, "records", evidence.log.records);
    json_member(writer, "lost_records", evidence.log.lost_records);
    json_member_or_null(writer, "cut_off", evidence.log.cut_off);
    json_member(writer, "damage", evidence.log.damage);
    writer.EndObject();
}

static void put_answer(json_lines &writer, const replay_row &row)
{
    json_member(writer, "answer", replay_answer_name(row.answer.kind));
    json_member(writer, "sentence", row.answer.sentence);
    json_member(writer, "doubts", row.answer.doubts);
    json_member_or_null(writer, "blamed", row.blamed);
    json_member(writer, "ordered", row.answer.ordered);
    json_member(writer, "orders", row.orders);
}

static void put_runs(json_lines &writer, const replay_evidence &evidence,
                     const std::vector<replay_row> &rows)
{
    const evidence_log &log = evidence.log;

    json_list(writer, "boots", evidence.runs, [&](const evidence_run &run) {
        writer.StartObject();
        json_member(writer, "boot", run.number);
        json_member_or_null(writer, "started",
                            run.number != 0 ? time_iso(run.started_100ns, true) : "");
        json_member(writer, "first_record", run.first_record);
        json_member(writer, "last_record", run.last_record);
        json_member(writer, "ended", evidence_ending_name(run.ending));
        writer.Key("told_by");
        if (run.told_by != NO_RECORD)
            writer.Uint(log.events[run.told_by].number);
        else
            writer.Null();
        for (const replay_row &row : rows)
            if (row.run == &run)
                put_answer(writer, row);
        writer.EndObject();
    });
}

std::string replay_boots_json(const replay_evidence &evidence)
{
    return json_text<json_lines>([&](json_lines &writer) {
               writer.StartObject();
               json_member(writer, "schema", REPLAY_BOOTS_SCHEMA);
               json_member(writer, "version", 1);
               put_log(writer, "events", evidence);
               put_runs(writer, evidence, {});
               writer.EndObject();
           }) +
           "\n";
}

static void put_dump(json_lines &writer, const replay_evidence &evidence, const replay_dump &placed,
                     const replay_story &story)
{
    const kernel_dump &facts = placed.dump.facts;

    writer.StartObject();
    json_member(writer, "file", placed.dump.shown);
    json_member(writer, "kind", evidence_dump_kind(placed.dump));
    json_member(writer, "bytes", placed.dump.bytes);
    json_member(writer, "bug_check", text_format("0x%x", facts.bug_check));
    json_member_or_null(writer, "bug_check_name", bug_check_name(facts.bug_check));
    json_list(writer, "parameters", facts.parameters,
              [&](uint64_t parameter) { json_put(writer, text_format("0x%llx", parameter)); });
    json_member(writer, "crashed", time_iso(facts.crash_time_100ns, true));
    json_member(writer, "gaps", facts.gaps);
    json_member_or_null(writer, "place", placed.there ? placed.place : "");
    json_member_or_null(writer, "written",
                        placed.there ? time_iso(placed.written_100ns, true) : "");
    json_member(writer, "why_there", placed.why);
    json_member(writer, "fate", replay_dump_fate(evidence, placed, story));
    writer.EndObject();
}

static void put_reason(json_lines &writer, const replay_reason &reason)
{
    static const char *const topics[REASON_TOPICS] = {"log", "dump", "stack", "verdict"};

    writer.StartObject();
    json_member(writer, "topic", topics[reason.topic]);
    json_member(writer, "ms", reason.ms);
    json_member(writer, "last_ms", reason.last_ms);
    json_member(writer, "times", reason.times);
    json_member(writer, "text", reason.text);
    json_member(writer, "because", reason.because);
    writer.EndObject();
}

/* What the plug-in sent, of one kind. */
static void put_sent(json_lines &writer, const char *name, enum happening_kind kind)
{
    writer.Key(name);
    writer.StartArray();
    for (const happening &what : journal_all()) {
        if (what.kind != kind)
            continue;
        writer.StartObject();
        json_member(writer, "ms", what.ms);
        if (!what.whom.empty())
            json_member(writer, "to", what.whom);
        json_member_as_is(writer, "message", what.json);
        writer.EndObject();
    }
    writer.EndArray();
}

/* A host plays one plug-in, so the file is read once. */
static void put_plugin(json_lines &writer, const std::string &path)
{
    static std::string s_path, s_crc32;
    static uint64_t s_bytes;

    if (path != s_path) {
        const evidence_file file(path, UINT64_MAX);

        s_path = path;
        s_bytes = file.bytes();
        s_crc32 =
            text_format("%08x", oxni_crc32_calc(file.data(), static_cast<size_t>(file.bytes())));
    }
    writer.Key("plugin");
    writer.StartObject();
    json_member(writer, "bytes", s_bytes);
    json_member(writer, "crc32", s_crc32);
    writer.EndObject();
}

static void put_products(json_lines &writer, const replay_evidence &evidence)
{
    writer.Key("products");
    writer.StartArray();
    for (size_t i = 0; i < evidence.products.size(); i++) {
        const replay_product &product = evidence.products[i];

        writer.StartObject();
        json_member(writer, "name", product.name);
        json_member(writer, "modules", product.modules);
        json_member(writer, "count", product.count);
        json_member(writer, "status", product.status);
        json_member_as_is(writer, "at_the_end", evidence.states[i]);
        writer.EndObject();
    }
    writer.EndArray();
}

static void put_evidence(json_lines &writer, const replay_evidence &evidence,
                         const std::vector<replay_row> &rows)
{
    put_log(writer, "events", evidence);
    json_member_or_null(writer, "registry",
                        evidence.registry_files.empty() ? "" : evidence.registry_files.front());
    json_member(writer, "registry_files", evidence.registry_files);
    json_list(writer, "ignored", evidence.ignored, [&](const replay_ignored &ignored) {
        writer.StartObject();
        json_member(writer, "file", ignored.file);
        json_member(writer, "why", ignored.why);
        writer.EndObject();
    });
    if (evidence.images != nullptr)
        images_put(writer, evidence.image_uses);
    writer.Key("time_zone");
    writer.StartObject();
    json_member(writer, "name", evidence.zone.name);
    json_member_or_null(writer, "from", evidence.zone.source);
    writer.EndObject();
    put_runs(writer, evidence, rows);
    json_member(writer, "boot", evidence.boot->number);
}

static void put_story(json_lines &writer, const replay_evidence &evidence,
                      const replay_story &story)
{
    json_list(writer, "records", story.records,
              [&](const event_record &event) { evidence_put_record(writer, event, false); });
    json_list(writer, "dumps", evidence.dumps,
              [&](const replay_dump &placed) { put_dump(writer, evidence, placed, story); });
    json_list(writer, "stack", story.stack, [&](const replay_frame &frame) {
        writer.StartObject();
        json_member(writer, "text", frame.text);
        json_member_or_null(writer, "module", frame.module);
        if (evidence.images != nullptr)
            json_member_or_null(writer, "found", frame.found);
        writer.EndObject();
    });
    put_sent(writer, "commands", HAPPENED_COMMAND);
    put_sent(writer, "alarms", HAPPENED_UPLOAD);
    put_products(writer, evidence);
    json_list(writer, "reasons", story.reasons,
              [&](const replay_reason &reason) { put_reason(writer, reason); });
    json_list(writer, "decisions", story.decisions,
              [&](const page_highlight &decision) { json_put(writer, decision.index); });
    json_list(writer, "decision_texts", story.decisions,
              [&](const page_highlight &decision) { json_put(writer, decision.text); });
    json_list(writer, "timeline", journal_all(),
              [&](const happening &what) { view_put(writer, what); });
}

static void put_head(json_lines &writer, const replay_evidence &evidence, const replay_story &story,
                     const replay_answer &answer, const std::vector<replay_row> &rows,
                     const std::string &plugin)
{
    json_member(writer, "schema", REPLAY_SCHEMA);
    json_member(writer, "version", 1);
    json_member(writer, "answer", replay_answer_name(answer.kind));
    json_member(writer, "sentence", answer.sentence);
    json_member(writer, "doubts", answer.doubts);
    json_member(writer, "ordered", answer.ordered);
    put_plugin(writer, plugin);
    put_evidence(writer, evidence, rows);
    json_member(writer, "verdict", explain_verdict_name(story.verdict));
    json_member_or_null(writer, "blamed", story.blamed);
}

std::string replay_json(const replay_evidence &evidence, const replay_story &story,
                        const replay_answer &answer, const std::vector<replay_row> &rows,
                        const std::string &plugin, bool with_story)
{
    return json_text<json_lines>([&](json_lines &writer) {
               writer.StartObject();
               put_head(writer, evidence, story, answer, rows, plugin);
               if (with_story)
                   put_story(writer, evidence, story);
               writer.EndObject();
           }) +
           "\n";
}
