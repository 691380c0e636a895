/* What fails in the boot of a fault run, and how. Host's one thread. */
#ifndef FAILURES_H
#define FAILURES_H

#include <cstdint>

#include <map>
#include <string>
#include <vector>

enum failure_kind {
    FAILS_ALLOCATION,
    FAILS_CALL,
    FAILS_DELIVERY, /* a command finds its product unreachable */
    FAILS_ENGINE,   /* every call of a name of the debugger engine */
};

struct failure {
    enum failure_kind kind;
    uint64_t nth;    /* in the boot, from 1 */
    bool persistent; /* the nth and all later ones */
    std::string call;
    uint32_t error;
};

/* What the plug-in did in a boot, failed calls included. */
struct boot_counts {
    uint64_t allocations;
    std::map<std::string, uint64_t> calls; /* by name, of calls that can fail */
    uint64_t commands;
};

/* Every failure of a boot in order, by the counts of the same boot without one. kind: "allocations"
 * or "calls". */
std::vector<failure> failures_of(const std::string &kind, const boot_counts &plain);

/* Makes a failure due, or none for NULL, and counts from here. Called right after Windows has
 * started. */
void failure_arm(const failure *failure);
/* Whether it has occurred since; calls of the engine are not counted, and it always has. */
bool failure_fired(const failure &failure);
/* Ends it. Result: the counts since it was armed. */
boot_counts failure_disarm(const failure *failure);

std::string failure_text(const failure &failure);

#endif
