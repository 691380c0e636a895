/*
 * The runs of Windows in a System log: where each starts, and how it ended. Records are ordered by
 * number, since clocks jump.
 */
#ifndef DEVHOST_EVIDENCE_BOOTS_H
#define DEVHOST_EVIDENCE_BOOTS_H

#include <cstddef>
#include <cstdint>

#include <string>
#include <vector>

#include "../base/system_events.h"
#include "log.h"

enum run_ending {
    RUN_ENDED_UNKNOWN, /* the log does not show it, or the run goes on */
    RUN_ENDED_CLEAN,
    RUN_ENDED_BLUE_SCREEN,
    RUN_ENDED_POWER_LOSS, /* unexpectedly, without a recorded blue screen */
};

static constexpr size_t NO_RECORD = SIZE_MAX;

/* One run of Windows. Indexes are those of evidence_log.events. */
struct evidence_run {
    size_t number;     /* from 1; 0 for a run that began before the log */
    size_t begin, end; /* its records, end exclusive: from its start record to the next one */
    uint32_t first_record, last_record; /* numbers, inclusive; of unwanted records, too */
    uint64_t started_100ns;             /* FILETIME; 0 for number 0 */
    enum run_ending ending;
    size_t told_by; /* the record that shows its ending, in this run or the next; NO_RECORD: none */
};

/* The records that evidence_runs and the functions below need. */
const event_filter &evidence_run_records(void);

/* Oldest first; empty when the log is. The log may lack records that evidence_run_records does not
 * want. */
std::vector<evidence_run> evidence_runs(const evidence_log &log);

/* "clean", "blue screen", "power loss", "unknown". */
const char *evidence_ending_name(enum run_ending ending);

/* Records of a start of Windows and of a blue screen. */
bool evidence_is_start(const event_record &event);
bool evidence_is_bug_check(const event_record &event);

/* The bug check code of a record of an unexpected shutdown; 0: the record contains none. */
uint32_t evidence_unexpected_code(const event_record &event);

#endif
