/* Builds small .evtx files. Makes no Windows calls. */
#ifndef TESTS_EVTX_BUILDER_H
#define TESTS_EVTX_BUILDER_H

#include <stdint.h>

#include <string>
#include <vector>

struct evtx_record {
    uint64_t number, filetime;
    uint32_t id; /* qualifiers in the upper half */
    std::string source, text;
};

/* A log of one chunk: as many records as fit into 60 KiB, at least one. Each has a template of its
 * own and one string. */
std::string evtx_build(const std::vector<evtx_record> &records);

/* Makes the check sums of a changed log right, so that a reader does not stop at them. */
void evtx_seal(std::string *log);

#endif
