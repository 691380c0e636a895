/*
 * The kernel dumps that Windows writes at a blue screen: plain bytes in, facts out. Makes no call
 * of Windows, so it builds and can be tested anywhere.
 *
 * Nothing in a dump is trusted. Whatever cannot be read as it should be is refused with an error
 * and a reason, except that a dump of the memory may lack pages: then what there is is read, and
 * gaps says what is not. Nothing is made up for what is missing. The one thing that is a guess by
 * nature is the walk up the stack, since it goes without unwind tables.
 *
 * Read today: dumps of x64 of every kind: small ("triage"), of the kernel's memory, complete.
 * Thread: any; there is no state.
 */
#ifndef DEVHOST_KERNEL_DUMP_H
#define DEVHOST_KERNEL_DUMP_H

#include <cstddef>
#include <cstdint>
#include <string>
#include <vector>

enum kernel_dump_error {
    KERNEL_DUMP_OK = 0,
    KERNEL_DUMP_NOT_A_DUMP, /* another kind of file */
    KERNEL_DUMP_USER_MODE,  /* of a process */
    KERNEL_DUMP_32_BIT,
    KERNEL_DUMP_MACHINE, /* 64 bits, but not x64 */
    KERNEL_DUMP_KIND,    /* of a kind that is not known */
    KERNEL_DUMP_CUT_OFF, /* the file is shorter than it says it is, or than any dump */
    KERNEL_DUMP_DAMAGED, /* a field cannot be right */
    KERNEL_DUMP_NO_CONTEXT,
    KERNEL_DUMP_NO_MODULES, /* not one entry of the list can be found */
};

/* Values of kernel_dump.kind. */
enum kernel_dump_kind {
    KERNEL_DUMP_KIND_FULL = 1,
    KERNEL_DUMP_KIND_KERNEL = 2,
    KERNEL_DUMP_KIND_TRIAGE = 4,
    KERNEL_DUMP_KIND_BITMAP_FULL = 5,
    KERNEL_DUMP_KIND_BITMAP_KERNEL = 6,
};

struct kernel_dump_module {
    /* UTF-8. "nt" for the kernel whatever its file is called, otherwise the file's name without its
     * extension. What would break a line of stack text ('!', '+', control characters) reads '_'. */
    std::string name;
    uint64_t base;
    uint32_t bytes;
};

struct kernel_dump {
    uint32_t kind = 0;            /* enum kernel_dump_kind */
    uint64_t directory_table = 0; /* physical address of the topmost page table, and flags */
    uint64_t loaded_modules = 0;  /* address of the head of the kernel's list of modules */
    uint32_t build = 0;
    uint32_t processors = 0;
    uint32_t bug_check = 0; /* as written: a small dump may carry 0x10000000 added to it */
    uint64_t parameters[4] = {};
    uint64_t crash_time_100ns = 0; /* UTC file time */
    uint64_t uptime_100ns = 0;
    uint64_t rip = 0;
    uint64_t rsp = 0;
    uint64_t stack_start = 0; /* address of the first saved byte; the last one does not wrap */
    std::vector<uint8_t> stack;
    std::vector<kernel_dump_module> modules; /* by rising base */
    /* What a dump of the memory lacks of modules and stack, one sentence each without a full stop,
     * '!', '+' and line feed; empty when all is there. */
    std::vector<std::string> gaps;
};

struct kernel_dump_frame {
    uint64_t instruction; /* the first one's is Rip, all others are return addresses */
    uint64_t stack;       /* the stack pointer in that frame */
};

/*
 * Reads a dump.
 *
 * bytes    size bytes, the whole file; only what is needed of it is touched. Borrowed for the call;
 *          NULL when size is 0.
 * dump     Filled; empty on failure.
 * reason   One sentence without a full stop that says what is wrong; empty on success.
 *
 * Result   KERNEL_DUMP_OK or what is wrong. Throws std::bad_alloc.
 */
[[nodiscard]] enum kernel_dump_error kernel_dump_read(const uint8_t *bytes, uint64_t size,
                                                      kernel_dump *dump, std::string *reason);

/* The module whose image holds address; where images overlap, the one that starts last. NULL when
 * there is none. Borrowed from dump. */
const kernel_dump_module *kernel_dump_module_at(const kernel_dump &dump, uint64_t address);

/*
 * The frames of the crash, innermost first, at most limit: Rip, then each 8-byte value from Rsp
 * upwards that points into a module. Stale values among them cannot be told from return addresses.
 * What was saved below Rsp belongs to the handling of the crash and is left out. Only Rip when Rsp
 * lies outside the saved stack.
 */
std::vector<kernel_dump_frame> kernel_dump_walk(const kernel_dump &dump, size_t limit);

/* The 8 bytes saved at address; 0 where nothing was saved. */
uint64_t kernel_dump_stack_value(const kernel_dump &dump, uint64_t address);

/* An address as a person reads it: eight digits, a back-tick, eight digits. */
std::string kernel_dump_address_text(uint64_t address);

/* "module+0xoffset"; outside all modules "0x" and the address text. */
std::string kernel_dump_call_site(const kernel_dump &dump, uint64_t address);

#endif
