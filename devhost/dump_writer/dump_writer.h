/* Writes small kernel dumps of a model of a crashed machine. Calls nothing of Windows. */
#ifndef DEVHOST_DUMP_WRITER_H
#define DEVHOST_DUMP_WRITER_H

#include <cstdint>
#include <string>
#include <vector>

#include "../kernel_dump/dump_layout.h"

/* Where every built dump has its stack. The list of modules, their names and the end mark follow. */
static constexpr uint32_t DUMP_STACK = 0x2080u;

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
