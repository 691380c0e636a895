/*
 * A System log as evidence: an .evtx file, or the same records as JSON (docs/replay.md), read
 * completely into the records of the classic event-log interface. All damage is listed.
 */
#ifndef DEVHOST_EVIDENCE_LOG_H
#define DEVHOST_EVIDENCE_LOG_H

#include <cstdint>

#include <string>
#include <vector>

#include "../base/text.h"
#include "../base/text_json.h"
#include "../evtx/evtx_reader.h"

/* The damage that ends the run. */
enum evidence_damage {
    EVIDENCE_LENIENT,  /* none: the readable records are used */
    EVIDENCE_STANDARD, /* a truncated file */
    EVIDENCE_STRICT,   /* any */
};

/*
 * Reads all readable records of a file; with a filter, only what it wants. Throws devhost_error with
 * EXIT_BAD_EVIDENCE when the file is not a log, or is more damaged than is allowed.
 *
 * log      Filled. Sound except for what damage and cut_off list.
 */
void evidence_log_read(const evidence_file &file, enum evidence_damage allowed, evidence_log *log,
                       const event_filter *filter = nullptr);

/* The damage in lines for a person, the last one a summary; none for a sound log. most: lines without
 * the summary. */
std::vector<std::string> evidence_log_damage(const evidence_log &log, size_t most);

/* One record as a JSON object. with_type: with its type, too. */
template <typename Writer>
void evidence_put_record(Writer &writer, const event_record &event, bool with_type = true)
{
    std::vector<std::string> strings;

    for (size_t i = 0; i < event.strings.count(); i++)
        strings.push_back(text_narrow(event.strings.at(i)));
    const json_scope object(writer);

    json_members(writer, "record", event.number, "source", text_narrow(event.source), "id",
                 event.id, "time", time_iso(time_of_unix(event.time)));
    if (with_type)
        json_member(writer, "type", event.type);
    json_member(writer, "strings", strings);
}

std::string evidence_record_json(const event_record &event);

/* The records from one number to another, inclusive, as a JSON array, oldest first, one record a
 * line. */
std::string evidence_log_json(const evidence_log &log, uint64_t from, uint64_t to);

/* Source and event id of a record: "BugCheck 1001". */
std::string evidence_event_name(const event_record &event);

#endif
