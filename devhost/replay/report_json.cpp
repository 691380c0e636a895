/* The result of a replay as JSON: members in the order of docs/replay.md. */
#include "replay.h"

#include <oxni/base/algo.h>

#include "../base/text.h"
#include "../base/text_json.h"
#include "../base/file.h"
#include "../kernel_dump/bug_check.h"
#include "../scenario/journal.h"

static void put_log(json_lines &writer, const replay_evidence &evidence)
{
    const json_scope log(writer, "events");

    json_members(writer, "file", evidence.events_file, "records", evidence.log.records,
                 "lost_records", evidence.log.lost_records);
    json_member_or_null(writer, "cut_off", evidence.log.cut_off);
    json_member(writer, "damage", evidence.log.damage);
}

static void put_answer(json_lines &writer, const replay_row &row)
{
    json_members(writer, "answer", replay_answer_name(row.answer.kind), "sentence",
                 row.answer.sentence, "doubts", row.answer.doubts);
    json_member_or_null(writer, "blamed", row.blamed);
    json_members(writer, "ordered", row.answer.ordered, "orders", row.orders);
}

static void put_runs(json_lines &writer, const replay_evidence &evidence,
                     const std::vector<replay_row> &rows)
{
    json_objects(writer, "boots", evidence.runs, [&](const evidence_run &run) {
        json_member(writer, "boot", run.number);
        json_member_or_null(writer, "started",
                            run.number != 0 ? time_iso(run.started_100ns, true) : "");
        json_members(writer, "first_record", run.first_record, "last_record", run.last_record,
                     "ended", evidence_ending_name(run.ending));
        json_member_as_is(writer, "told_by",
                          run.told_by != NO_RECORD
                              ? std::to_string(evidence.log.events[run.told_by].number)
                              : "");
        for (const replay_row &row : rows)
            if (row.run == &run)
                put_answer(writer, row);
    });
}

std::string replay_boots_json(const replay_evidence &evidence)
{
    return json_file_text([&](json_lines &writer) {
        json_members(writer, "schema", REPLAY_BOOTS_SCHEMA, "version", 1);
        put_log(writer, evidence);
        put_runs(writer, evidence, {});
    });
}

static void put_dump(json_lines &writer, const replay_evidence &evidence, const replay_dump &placed,
                     const replay_story &story)
{
    const kernel_dump &facts = placed.dump.facts;

    json_members(writer, "file", placed.dump.shown, "kind", evidence_dump_kind(placed.dump),
                 "bytes", placed.dump.bytes, "bug_check", text_format("0x%x", facts.bug_check));
    json_member_or_null(writer, "bug_check_name", bug_check_name(facts.bug_check));
    json_list(writer, "parameters", facts.parameters,
              [&](uint64_t parameter) { json_put(writer, text_format("0x%llx", parameter)); });
    json_members(writer, "crashed", time_iso(facts.crash_time_100ns, true), "gaps", facts.gaps);
    json_member_or_null(writer, "place", placed.there ? placed.place : "");
    json_member_or_null(writer, "written",
                        placed.there ? time_iso(placed.written_100ns, true) : "");
    json_members(writer, "why_there", placed.why, "fate",
                 replay_dump_fate(evidence, placed, story));
}

/* What the plug-in sent, of one kind. */
static void put_sent(json_lines &writer, const char *name, enum happening_kind kind)
{
    writer.Key(name);
    writer.StartArray();
    for (const happening &what : journal_all()) {
        if (what.kind != kind)
            continue;
        const json_scope sent(writer);

        json_member(writer, "ms", what.ms);
        if (!what.whom.empty())
            json_member(writer, "to", what.whom);
        json_member_as_is(writer, "message", what.json);
    }
    writer.EndArray();
}

/* A host plays one plug-in, so the file is read once. */
static void put_plugin(json_lines &writer, const std::string &path)
{
    static std::string s_path, s_crc32;
    static uint64_t s_bytes;

    if (path != s_path) {
        const evidence_file file(path);

        s_path = path;
        s_bytes = file.bytes();
        s_crc32 =
            text_format("%08x", oxni_crc32_calc(file.data(), static_cast<size_t>(file.bytes())));
    }
    const json_scope plugin(writer, "plugin");

    json_members(writer, "bytes", s_bytes, "crc32", s_crc32);
}

static void put_products(json_lines &writer, const replay_evidence &evidence)
{
    auto state = evidence.states.begin();

    json_objects(writer, "products", evidence.products, [&](const replay_product &product) {
        json_members(writer, "name", product.name, "modules", product.modules, "count",
                     product.count, "status", product.status);
        json_member_as_is(writer, "at_the_end", *state++);
    });
}

static void put_time_zone(json_lines &writer, const replay_zone &zone)
{
    const json_scope object(writer, "time_zone");

    json_member(writer, "name", zone.name);
    json_member_or_null(writer, "from", zone.source);
}

static void put_evidence(json_lines &writer, const replay_evidence &evidence,
                         const std::vector<replay_row> &rows)
{
    put_log(writer, evidence);
    json_member_or_null(writer, "registry",
                        evidence.registry_files.empty() ? "" : evidence.registry_files.front());
    json_member(writer, "registry_files", evidence.registry_files);
    json_objects(writer, "ignored", evidence.ignored, [&](const replay_ignored &ignored) {
        json_members(writer, "file", ignored.file, "why", ignored.why);
    });
    if (evidence.images != nullptr)
        images_put(writer, evidence.image_uses);
    put_time_zone(writer, evidence.zone);
    put_runs(writer, evidence, rows);
    json_member(writer, "boot", evidence.boot->number);
}

static void put_story(json_lines &writer, const replay_evidence &evidence,
                      const replay_story &story)
{
    static const char *const topics[REASON_TOPICS] = {"log", "dump", "stack", "verdict"};

    json_list(writer, "records", story.records,
              [&](const event_record &event) { evidence_put_record(writer, event, false); });
    json_objects(writer, "dumps", evidence.dumps,
                 [&](const replay_dump &placed) { put_dump(writer, evidence, placed, story); });
    json_objects(writer, "stack", story.stack, [&](const replay_frame &frame) {
        json_member(writer, "text", frame.text);
        json_member_or_null(writer, "module", frame.module);
        if (evidence.images != nullptr)
            json_member_or_null(writer, "found", frame.found);
    });
    put_sent(writer, "commands", HAPPENED_COMMAND);
    put_sent(writer, "alarms", HAPPENED_UPLOAD);
    put_products(writer, evidence);
    json_objects(writer, "reasons", story.reasons, [&](const replay_reason &reason) {
        json_members(writer, "topic", topics[reason.topic], "ms", reason.ms, "last_ms",
                     reason.last_ms, "times", reason.times, "text", reason.text, "because",
                     reason.because);
    });
    page_put_timeline(writer, story.decisions);
}

std::string replay_json(const replay_evidence &evidence, const replay_story &story,
                        const replay_answer &answer, const std::vector<replay_row> &rows,
                        const std::string &plugin, bool with_story)
{
    return json_file_text([&](json_lines &writer) {
        json_members(writer, "schema", REPLAY_SCHEMA, "version", 1, "answer",
                     replay_answer_name(answer.kind), "sentence", answer.sentence, "doubts",
                     answer.doubts, "ordered", answer.ordered);
        put_plugin(writer, plugin);
        put_evidence(writer, evidence, rows);
        json_member(writer, "verdict", explain_verdict_name(story.verdict));
        json_member_or_null(writer, "blamed", story.blamed);
        if (with_story)
            put_story(writer, evidence, story);
    });
}
