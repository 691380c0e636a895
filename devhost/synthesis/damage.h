/* Damage of an .evtx log on purpose, with what a reader must report. */
#ifndef DEVHOST_DAMAGE_H
#define DEVHOST_DAMAGE_H

#include <cstdint>

#include <set>
#include <string>
#include <vector>

#include "../base/event_record.h"

struct damage_report {
    std::set<uint32_t> gone; /* numbers of records that cannot be read any more */
    uint64_t lost = 0;       /* of them those whose numbers show that they are missing */
    bool cut_off = false;    /* the file is truncated */
    bool damaged = false;    /* a reader must report damage */
};

/* Names of the kinds: "truncated" and so on. */
const std::vector<std::string> &damage_kinds(void);

/*
 * The bytes of a log with these records, damaged.
 *
 * kind     One of damage_kinds(); empty: none.
 *
 * Throws devhost_error with EXIT_BAD_CALL for a log that is too short for that damage.
 */
std::string damage_log(const std::vector<event_record> &records, const std::string &kind,
                       uint64_t seed, damage_report *report);

#endif
