/* Places and constants of the kernel dumps that Windows writes, for their reader and their writer. */
#ifndef DEVHOST_DUMP_LAYOUT_H
#define DEVHOST_DUMP_LAYOUT_H

#include <cstdint>

static constexpr uint32_t DUMP_MACHINE_X64 = 0x8664u;

/* One type, since sums of them are places. */
enum dump_place : uint32_t {
    /* In every dump: the header, of 8 KiB, and the context and the exception in it. */
    DUMP_BUILD = 0x0C,
    DUMP_DIRECTORY_TABLE = 0x10,
    DUMP_LOADED_MODULES = 0x20,
    DUMP_MACHINE = 0x30,
    DUMP_PROCESSORS = 0x34,
    DUMP_BUG_CHECK = 0x38,
    DUMP_PARAMETERS = 0x40,
    DUMP_CONTEXT = 0x348,
    DUMP_EXCEPTION = 0xF00,
    DUMP_KIND = 0xF98,
    DUMP_CRASH_TIME = 0xFA8,
    DUMP_UPTIME = 0x1030,
    DUMP_HEADER_BYTES = 0x2000,

    /* In a context. */
    CONTEXT_FLAGS = 0x30,
    CONTEXT_GENERAL = 0x78, /* in the order of their numbers */
    CONTEXT_RSP = 0x98,
    CONTEXT_RIP = 0xF8,
    CONTEXT_BYTES = 0x4D0,

    /* After the header of a small dump: 32-bit fields, and a 64-bit one. */
    DUMP_TRIAGE = DUMP_HEADER_BYTES,
    DUMP_SIZE = 0x2004,
    DUMP_VALID = 0x2008, /* place of the mark that Windows writes last */
    DUMP_CONTEXT_AT = 0x200C,
    DUMP_STACK_AT = 0x2028,
    DUMP_STACK_BYTES = 0x202C,
    DUMP_DRIVERS_AT = 0x2030,
    DUMP_DRIVER_COUNT = 0x2034,
    DUMP_STACK_START = 0x2048,
    DUMP_TRIAGE_END = 0x2050,

    /* In an entry of the list of modules of a small dump. */
    DRIVER_NAME_AT = 0x00,
    DRIVER_BASE = 0x38,
    DRIVER_SIZE = 0x48,
    DRIVER_TIME_STAMP = 0x88,
    DRIVER_ENTRY_BYTES = 0x90,

    /* In a dump of the memory: the list of runs in the header, or the bitmap after it. */
    MEMORY_RUN_COUNT = 0x88,
    MEMORY_RUN_PAGES = 0x90,
    MEMORY_RUN_FIRST = 0x98,
    MEMORY_RUN_BYTES = 16,             /* of one */
    MEMORY_BITMAP = DUMP_HEADER_BYTES, /* its header, with two marks */
    MEMORY_FIRST_PAGE = 0x2020,
    MEMORY_BITMAP_PRESENT = 0x2028,
    MEMORY_BITMAP_BITS = 0x2030,
    MEMORY_BITS = 0x2038,

    /* In an entry of the kernel's list of modules. Path and name are counted texts. */
    MEMORY_NEXT = 0x00,
    MEMORY_PREVIOUS = 0x08,
    MEMORY_BASE = 0x30,
    MEMORY_SIZE = 0x40,
    MEMORY_PATH = 0x48,
    MEMORY_NAME = 0x58,
    MEMORY_ENTRY_BYTES = 0x68,
    MEMORY_TIME_STAMP = 0x9C,

    /* In a counted text. */
    TEXT_BYTES = 0x00,
    TEXT_ROOM = 0x02,
    TEXT_ADDRESS = 0x08,
};

/* Bits of a page table entry. */
enum memory_entry : uint64_t {
    MEMORY_PRESENT = 0x001,
    MEMORY_LARGE = 0x080,
    MEMORY_PROTOTYPE = 0x400,
    MEMORY_TRANSITION = 0x800,
    MEMORY_FRAME = 0x000FFFFFFFFFF000,
};

#endif
