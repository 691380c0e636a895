/*
 * Makes small kernel dumps from a model of a crashed machine, and damages dumps. Plain bytes, no
 * call of Windows.
 */
#ifndef TESTS_DUMP_BUILDER_H
#define TESTS_DUMP_BUILDER_H

#include <cstdint>
#include <random>
#include <string>
#include <vector>

/* Places in every built dump; the names and the mark at the end follow the list of modules. */
enum dump_place : uint32_t {
    DUMP_KIND = 0xF98,
    DUMP_CONTEXT = 0x348,
    DUMP_TRIAGE = 0x2000, /* its 32-bit fields in the order of the file */
    DUMP_STACK = 0x2080,
};

/* Numbers of the triage block's 32-bit fields. */
enum dump_triage_field : uint32_t {
    DUMP_FIELD_SIZE = 1,
    DUMP_FIELD_VALID = 2,
    DUMP_FIELD_CONTEXT = 3,
    DUMP_FIELD_STACK = 10,
    DUMP_FIELD_STACK_BYTES = 11,
    DUMP_FIELD_DRIVERS = 12,
    DUMP_FIELD_DRIVER_COUNT = 13,
};

struct dump_module {
    std::u16string path;
    uint64_t base;
    uint32_t bytes;
};

/* As it stands: the kernel and two drivers, crashed in the first driver, 64 bytes of stack, no
 * stack value that points into a module. */
struct dump_model {
    std::string signature = "PAGEDU64";
    uint32_t machine = 0x8664;
    uint32_t kind = 4;
    uint32_t bug_check = 0x1000007E;
    uint64_t loaded_modules = 0xFFFFF80000200000; /* in the kernel */
    uint32_t context_flags = 0x10001F;
    uint64_t rip = 0xFFFFF80100001234;
    uint64_t rsp = 0xFFFF850000001000;
    uint64_t stack_start = 0xFFFF850000001000;
    std::vector<uint64_t> stack = std::vector<uint64_t>(8);
    uint32_t stack_cut = 0; /* bytes that the last value lacks */
    std::vector<dump_module> modules = {
        {u"\\SystemRoot\\system32\\ntoskrnl.exe",     0xFFFFF80000000000, 0x1000000},
        {u"\\SystemRoot\\System32\\drivers\\one.sys", 0xFFFFF80100000000, 0x10000  },
        {u"\\??\\C:\\Windows\\two.sys",               0xFFFFF80100010000, 0x8000   },
    };
};

std::vector<uint8_t> dump_build(const dump_model &model);

/* bytes 1 to 8 of value, low ones first. */
void dump_put(std::vector<uint8_t> *dump, uint64_t offset, uint64_t value, size_t bytes);

/* Where a 32-bit field of the triage block stands, and what it holds. */
uint32_t dump_field_at(enum dump_triage_field field);
uint32_t dump_field(const std::vector<uint8_t> &dump, enum dump_triage_field field);

/* Changes up to eight places, most of them where the reader looks, and in one of sixteen cases the
 * length. */
void dump_mutate(std::vector<uint8_t> *dump, std::mt19937_64 *random);

#endif
