/*
 * Reads System logs in the .evtx format of Windows into the records of the classic event-log
 * interface. All damage is listed.
 */
#ifndef DEVHOST_EVTX_READER_H
#define DEVHOST_EVTX_READER_H

#include <cstdint>

#include <string>
#include <vector>

#include "../base/event_record.h"
#include "../base/file.h"

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

/* Adds the missing numbers from first to end, exclusive, to the damage; none if first is not below
 * end. */
void evidence_note_gap(evidence_log *log, uint64_t first, uint64_t end);

/* Whether a file begins as such a log does. */
bool evidence_is_evtx(const evidence_file &file);
/* Reads the records that a filter wants, NULL: all. Throws devhost_error with EXIT_BAD_EVIDENCE for a
 * file that ends within its header. */
void evidence_read_evtx(const evidence_file &file, const event_filter *filter, evidence_log *log);

#endif
