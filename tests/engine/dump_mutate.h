/* Damages the dumps that the host's writers build. */
#ifndef TESTS_DUMP_MUTATE_H
#define TESTS_DUMP_MUTATE_H

#include "dump_writer/memory_model.h"

#include <random>

/* Writes up to eight boundary or random values to fields that the reader uses. Changes the length
 * in one of sixteen cases. dump must not be empty. */
void dump_mutate(std::vector<uint8_t> *dump, std::mt19937_64 *random);

/* Returns the file offsets of all data that the reader uses: header fields, bits, runs, page table
 * entries in use, links and texts of the list. */
std::vector<uint64_t> memory_vital_places(const memory_model &machine, enum memory_layout layout);

/* Changes the values at up to six of the places: to boundary values, by single bits, or to the
 * value at another place. Changes the length in one of sixteen cases. */
void memory_mutate(std::vector<uint8_t> *dump, const std::vector<uint64_t> &places,
                   std::mt19937_64 *random);

#endif
