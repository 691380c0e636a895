/* What a sweep makes fail, one failure at a time. Host's one thread. */
#ifndef FAILURES_H
#define FAILURES_H

#include <stdint.h>

#include <map>
#include <string>
#include <vector>

enum failure_way {
    FAILS_ALLOCATION,
    FAILS_CALL,
    FAILS_ENGINE, /* a call of the debugger engine, in the whole boot */
    FAILS_PUSH,   /* a command finds its product unreachable */
};

struct failure {
    enum failure_way way;
    uint64_t nth;
    uint64_t times; /* every 32 calls behind the one before; 0: it and all to the boot's end */
    std::string call;
    uint32_t error;
};

/* What the plug-in did in a boot. */
struct boot_counts {
    uint64_t allocations;                  /* those that failed, too */
    std::map<std::string, uint64_t> calls; /* by name, those that can fail */
    uint64_t pushes;                       /* commands to products */
};

/* What is to fail in a boot. */
struct boot_failures {
    std::vector<failure> once, forever;
};

/* Every failure of a boot, by what it did without one. kind: "allocations" or "calls". */
boot_failures failures_list(const std::string &kind, const boot_counts &plain);

/* From here on it is due, counted from here; and no longer. */
void failure_arm(const failure &failure);
void failure_disarm(const failure &failure);

/* How often something failed in a boot by it; of allocations that fail for ever the first alone. */
uint64_t failure_came_about(const failure &failure, const boot_counts &counts);

std::string failure_text(const failure &failure);

#endif
