/* What the two sources of expectations share. */
#ifndef DEVHOST_EXPECT_INTERNAL_H
#define DEVHOST_EXPECT_INTERNAL_H

#include "../scenario/journal.h"
#include "expect.h"

struct expect_context {
    const node &value; /* of the member */
    std::vector<std::string> &failures;
    enum happening_kind kind; /* of events; HAPPENED_BOOT when the member has no single one */
};

/* Adds a failure; an empty text is none. */
void expect_fail(const expect_context &context, const std::string &why);

/* Adds a failure unless there are as many as expected: "3 timers of 500 ms, expected 2". */
void expect_count(const expect_context &context, const node &expected, uint64_t count,
                  const std::string &what);

/* A member of an "expect". */
struct expect_member {
    const char *name;
    void (*check)(const expect_context &context);
    enum happening_kind kind = HAPPENED_BOOT;
};

/* Checks a member that looks at the present state, not at events. Result: whether it is one. */
bool expect_state(const std::string &member, const expect_context &context);

#endif
