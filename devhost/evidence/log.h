/*
 * A System log as evidence: an .evtx file, or the same records as JSON (docs/replay.md), read whole
 * into the records that the classic event-log interface gives. Damage is counted, never passed
 * over.
 */
#ifndef DEVHOST_EVIDENCE_LOG_H
#define DEVHOST_EVIDENCE_LOG_H

#include <stdint.h>

#include <string>
#include <vector>

#include "event_record.h"

struct evidence_log {
    std::vector<event_record> events; /* by rising record number, each number once */
    /* What is damaged and where, one line each; texts are in English, without a full stop. */
    std::vector<std::string> damage;
    std::string cut_off;       /* where the file ends too early; empty when it does not */
    uint64_t lost_records = 0; /* that are known to be lost */
    double library_ms = 0;     /* time that the library for .evtx files took */
};

/* How much damage ends the run. */
enum evidence_damage {
    EVIDENCE_LENIENT,  /* none: what can be read is used */
    EVIDENCE_STANDARD, /* a file that is cut off */
    EVIDENCE_STRICT,   /* any; the first finding is told */
};

/*
 * Reads all that can be read of a file. Throws devhost_error with EXIT_BAD_EVIDENCE when it cannot
 * be read, is no log at all, or is more damaged than is allowed.
 *
 * path     UTF-8.
 * log      Filled. What is in it is sound as far as damage and cut_off do not say otherwise.
 */
void evidence_log_read(const std::string &path, enum evidence_damage allowed, evidence_log *log);

/* The damage in lines for a person, the last one a summary; none for a sound log. most: lines but
 * for the summary. */
std::vector<std::string> evidence_log_damage(const evidence_log &log, size_t most);

/* The records from one number to another as a JSON array, oldest first, one record a line. */
std::string evidence_log_json(const evidence_log &log, uint64_t from, uint64_t to);

/* The source and event of a record: "BugCheck 1001". */
std::string evidence_event_name(const event_record &event);

/* evtx.cpp: the two kinds of file. */
class evidence_file;
bool evidence_is_evtx(const evidence_file &file);
void evidence_read_evtx(const std::string &path, evidence_log *log);

#endif
