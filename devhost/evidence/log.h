/*
 * A System log as evidence: an .evtx file, or the same records as JSON (docs/replay.md), read
 * completely into the records of the classic event-log interface. All damage is listed.
 */
#ifndef DEVHOST_EVIDENCE_LOG_H
#define DEVHOST_EVIDENCE_LOG_H

#include <cstdint>

#include <string>
#include <vector>

#include "../base/text_json.h"
#include "../base/event_record.h"

/* Record numbers that are missing, last inclusive. */
struct evidence_gap {
    uint64_t first, last;
};

struct evidence_log {
    std::vector<event_record> events; /* by rising record number, each number once */
    /* The damage and its place, one line each, without a full stop. */
    std::vector<std::string> damage;
    std::string cut_off; /* where the file is truncated; empty: it is complete */
    std::vector<evidence_gap> gaps;
    uint64_t lost_records = 0; /* in all gaps */
    /* What was read, unwanted records included; the numbers are 0 for an empty log. */
    uint64_t records = 0;
    uint32_t first_number = 0, last_number = 0;
};

/* The damage that ends the run. */
enum evidence_damage {
    EVIDENCE_LENIENT,  /* none: the readable records are used */
    EVIDENCE_STANDARD, /* a truncated file */
    EVIDENCE_STRICT,   /* any */
};

/*
 * Reads all readable records of a file, or those that a filter wants. Throws devhost_error with EXIT_BAD_EVIDENCE when the file
 * cannot be read, is not a log, or is more damaged than is allowed.
 *
 * path     UTF-8.
 * log      Filled. Sound except for what damage and cut_off list.
 */
void evidence_log_read(const std::string &path, enum evidence_damage allowed, evidence_log *log,
                       const event_filter *filter = nullptr);

/* The damage in lines for a person, the last one a summary; none for a sound log. most: lines without
 * the summary. */
std::vector<std::string> evidence_log_damage(const evidence_log &log, size_t most);

/* One record as a JSON object. */
void evidence_put_record(json_line &writer, const event_record &event);

/* The records from one number to another, inclusive, as a JSON array, oldest first, one record a
 * line. */
std::string evidence_log_json(const evidence_log &log, uint64_t from, uint64_t to);

/* Source and event id of a record: "BugCheck 1001". */
std::string evidence_event_name(const event_record &event);

/* Adds the missing numbers from first to end, exclusive, to the damage; none if first is not below
 * end. */
void evidence_note_gap(evidence_log *log, uint64_t first, uint64_t end);

/* evtx.cpp: files in the format of Windows. */
class evidence_file;
bool evidence_is_evtx(const evidence_file &file);
void evidence_read_evtx(const std::string &path, const evidence_file &file,
                        const event_filter *filter, evidence_log *log);

#endif
