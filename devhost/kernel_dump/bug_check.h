/* Bug checks by name, with the meanings of their parameters, as Windows' documentation lists them. */
#ifndef DEVHOST_BUG_CHECK_H
#define DEVHOST_BUG_CHECK_H

#include <array>
#include <cstdint>
#include <string>

/* Meanings of the four parameters; NULL: reserved, or not described here. */
typedef std::array<const char *, 4> bug_check_meanings;

struct bug_check {
    uint32_t code;
    const char *name;
    bug_check_meanings parameters = {};
    int address = 0; /* number of the parameter with the faulting instruction, from 1; 0: none */
};

/* The description of a code, with or without the flag of small dumps; NULL: an unknown code. */
const struct bug_check *bug_check_find(uint32_t code);
/* "SYSTEM_SERVICE_EXCEPTION"; empty for an unknown code. */
std::string bug_check_name(uint32_t code);
/* "0x3b SYSTEM_SERVICE_EXCEPTION" */
std::string bug_check_title(uint32_t code);

/* Code and parameters as in a record of the System log,
 * "0x0000007e (0x..., 0x..., 0x..., 0x...)", and back. Result: whether the text has that form. */
std::string bug_check_text(uint32_t code, const uint64_t (&parameters)[4]);
bool bug_check_parse(const std::string &text, uint32_t *code, uint64_t (&parameters)[4]);

/* "access violation" of an exception code; empty: an unknown code. */
std::string bug_check_exception(uint64_t code);

#endif
