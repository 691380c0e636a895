/* Builds small kernel dumps from a model of a crashed machine. Makes no Windows calls. */
#ifndef TESTS_DUMP_BUILDER_H
#define TESTS_DUMP_BUILDER_H

#include <cstdint>
#include <random>
#include <string>
#include <vector>

/* Offsets in every built dump. The list of modules, their names and the end mark follow the
 * stack. */
enum dump_place : uint32_t {
    DUMP_CONTEXT = 0x348,
    DUMP_KIND = 0xF98,
    DUMP_TRIAGE = 0x2000, /* 32-bit fields, including the following ones */
    DUMP_SIZE = 0x2004,
    DUMP_VALID = 0x2008,
    DUMP_CONTEXT_AT = 0x200C,
    DUMP_STACK_AT = 0x2028,
    DUMP_STACK_BYTES = 0x202C,
    DUMP_DRIVERS_AT = 0x2030,
    DUMP_DRIVER_COUNT = 0x2034,
    DUMP_STACK_START = 0x2048,
    DUMP_STACK = 0x2080,
};

struct dump_module {
    std::u16string path;
    uint64_t base;
    uint32_t bytes;
};

/* The default: the kernel and two drivers, a crash in the first driver, 64 bytes of stack without
 * values that point into a module. */
struct dump_model {
    uint64_t loaded_modules = 0xFFFFF80000200000; /* head of the module list, in the kernel */
    uint64_t rip = 0xFFFFF80100001234;
    uint64_t rsp = 0xFFFF850000001000;
    uint64_t stack_start = 0xFFFF850000001000;
    std::vector<uint64_t> stack = std::vector<uint64_t>(8);
    uint32_t stack_cut = 0; /* bytes missing from the last value */
    std::vector<dump_module> modules = {
        {u"\\SystemRoot\\system32\\ntoskrnl.exe",     0xFFFFF80000000000, 0x1000000},
        {u"\\SystemRoot\\System32\\drivers\\one.sys", 0xFFFFF80100000000, 0x10000  },
        {u"\\??\\C:\\Windows\\two.sys",               0xFFFFF80100010000, 0x8000   },
    };
};

std::vector<uint8_t> dump_build(const dump_model &model);

/* Writes the low 1 to 8 bytes of value, little-endian. Extends the dump if necessary. */
void dump_put(std::vector<uint8_t> *dump, uint64_t offset, uint64_t value, size_t bytes);

/* Writes up to eight boundary or random values to fields that the reader uses. Changes the length
 * in one of sixteen cases. dump must not be empty. */
void dump_mutate(std::vector<uint8_t> *dump, std::mt19937_64 *random);

#endif
