/* Bug checks by name, with the meanings of their parameters, as Windows' documentation lists them. */
#ifndef DEVHOST_BUG_CHECK_H
#define DEVHOST_BUG_CHECK_H

#include <cstdint>
#include <string>

struct bug_check {
    uint32_t code;
    const char *name;
    /* Meanings of the four parameters; NULL: reserved, or not described here. */
    const char *parameters[4];
    int address; /* number of the parameter with the faulting instruction, from 1; 0: none */
};

/* The description of a code, with or without the flag of small dumps; NULL: an unknown code. */
const struct bug_check *bug_check_find(uint32_t code);
/* "SYSTEM_SERVICE_EXCEPTION"; empty for an unknown code. */
std::string bug_check_name(uint32_t code);
/* "0x3b SYSTEM_SERVICE_EXCEPTION" */
std::string bug_check_title(uint32_t code);

/* "access violation" of an exception code; empty: an unknown code. */
std::string bug_check_exception(uint64_t code);

#endif
