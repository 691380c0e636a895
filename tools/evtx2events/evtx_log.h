/*
 * Reads a Windows event log (.evtx) as the classic event-log interface would give its records, and
 * finds out what of it is damaged. Damage is never passed over: each finding is one line.
 */
#ifndef TOOLS_EVTX_LOG_H
#define TOOLS_EVTX_LOG_H

#include <cstdint>
#include <string>
#include <vector>

struct evtx_event {
    uint64_t record;    /* its number: this, not the time, gives the order of a log */
    std::string source; /* the event's own source name where it has one, else the provider's */
    uint32_t id;        /* qualifiers in the high 16 bits */
    uint32_t type;      /* EVENTLOG_ERROR_TYPE 1, _WARNING_TYPE 2, _INFORMATION_TYPE 4 */
    int64_t time;       /* written, seconds since 1970-01-01 UTC */
    std::vector<std::string> strings; /* UTF-8 */
};

struct evtx_log {
    std::vector<evtx_event> events; /* by rising record number, each number once */
    /* What is damaged and where, one line each; texts are in English, without a full stop. */
    std::vector<std::string> damage;
    std::string cut_off;       /* where the file ends too early; empty when it does not */
    uint64_t lost_records = 0; /* that are known to be lost */
};

/*
 * Reads all that can be read of a file.
 *
 * log      Filled. What is in it is sound as far as damage and cut_off do not say otherwise.
 * error    Why nothing could be read; empty on success.
 *
 * Result   false when the file cannot be read or is no event log at all.
 */
[[nodiscard]] bool evtx_log_read(const std::string &path, evtx_log *log, std::string *error);

#endif
