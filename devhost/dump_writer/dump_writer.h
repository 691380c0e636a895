/* Writes small kernel dumps of a model of a crashed machine. Calls nothing of Windows. */
#ifndef DEVHOST_DUMP_WRITER_H
#define DEVHOST_DUMP_WRITER_H

#include <cstdint>
#include <string>
#include <vector>

/* Offsets in every built dump. The list of modules, their names and the end mark follow the
 * stack. */
enum dump_place : uint32_t {
    DUMP_BUILD = 0x0C,
    DUMP_BUG_CHECK = 0x38,
    DUMP_PARAMETERS = 0x40,
    DUMP_CONTEXT = 0x348,
    DUMP_EXCEPTION = 0xF00,
    DUMP_KIND = 0xF98,
    DUMP_CRASH_TIME = 0xFA8,
    DUMP_UPTIME = 0x1030,
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
    uint32_t bug_check = 0x1000007E;
    uint64_t parameters[4] = {};
    uint32_t exception = 0;        /* its code, at rip; 0: none */
    uint64_t crash_time_100ns = 0; /* UTC file time */
    uint64_t uptime_100ns = 0;
    uint32_t build = 0;
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

#endif
