/* Physical pages of a dump file and translation of addresses. Every offset is checked against the
 * file's size before it is read, every number before it is multiplied. */
#include "memory_dump.h"

#include <algorithm>

/* The processor has 52 bits of physical address. */
static constexpr uint64_t PAGES_MAX = 0x10000000000ull;
/* The most bits that one look-up in the bitmap counts. */
static constexpr uint32_t BLOCK_BITS = 4096u;

/* The list of runs ends where the context begins. */
static constexpr uint64_t RUNS_MAX = (DUMP_CONTEXT - MEMORY_RUN_FIRST) / MEMORY_RUN_BYTES;

static void open_runs(memory_dump *memory)
{
    const uint32_t count = memory->file.at<uint32_t>(MEMORY_RUN_COUNT);
    const uint64_t pages = memory->file.at<uint64_t>(MEMORY_RUN_PAGES);
    uint64_t free_from = 0;

    if (count == 0 || count > RUNS_MAX)
        kernel_dump_damaged("the header cannot hold " + std::to_string(count) +
                            " runs of physical memory");
    for (uint32_t i = 0; i < count; i++) {
        const uint64_t at = MEMORY_RUN_FIRST + static_cast<uint64_t>(i) * MEMORY_RUN_BYTES;
        const memory_run run = {memory->file.at<uint64_t>(at), memory->file.at<uint64_t>(at + 8),
                                memory->pages};

        if (run.first < free_from || run.first > PAGES_MAX || run.count > PAGES_MAX - run.first)
            kernel_dump_damaged("run " + std::to_string(i) + " of physical memory (" +
                                std::to_string(run.count) + " pages from " +
                                kernel_dump_hex(run.first) + ") is invalid");
        free_from = run.first + run.count;
        memory->pages += run.count;
        memory->runs.push_back(run);
    }
    if (pages != memory->pages)
        kernel_dump_damaged("the runs of physical memory have " + std::to_string(memory->pages) +
                            " pages, and the header counts " + std::to_string(pages));
    memory->pages_offset = DUMP_HEADER_BYTES;
}

/* Number of bits that are set from first, a multiple of 8, to end, exclusive. */
static uint64_t bits_set(const file_span &file, uint64_t first, uint64_t end)
{
    uint64_t set = 0;

    for (; end - first >= 64; first += 64)
        set +=
            static_cast<uint64_t>(__builtin_popcountll(file.at<uint64_t>(MEMORY_BITS + first / 8)));
    while (first < end) {
        const uint64_t bits = std::min<uint64_t>(end - first, 8);
        const unsigned mask = (1u << bits) - 1;

        set += static_cast<uint64_t>(
            __builtin_popcount(file.at<uint8_t>(MEMORY_BITS + first / 8) & mask));
        first += bits;
    }
    return set;
}

/* The caller has checked that the file holds the two marks. */
static bool has_bitmap(const file_span &file)
{
    return (memcmp(file.bytes + MEMORY_BITMAP, "SDMP", 4) == 0 ||
            memcmp(file.bytes + MEMORY_BITMAP, "FDMP", 4) == 0) &&
           memcmp(file.bytes + MEMORY_BITMAP + 4, "DUMP", 4) == 0;
}

static void check_bitmap(const memory_dump &memory)
{
    const uint64_t bytes = memory.bits / 8 + (memory.bits % 8 != 0);

    if (memory.bits == 0 || memory.bits > PAGES_MAX)
        kernel_dump_damaged("no machine has " + std::to_string(memory.bits) + " pages of memory");
    if (memory.pages_offset < MEMORY_BITS + bytes)
        kernel_dump_damaged("the bitmap of " + std::to_string(bytes) +
                            " bytes reaches into the pages at " +
                            kernel_dump_hex(memory.pages_offset));
    if (memory.pages_offset > memory.file.size)
        kernel_dump_truncated(memory.file,
                              "and its first page is at " + std::to_string(memory.pages_offset));
}

static void open_bitmap(memory_dump *memory)
{
    const file_span &file = memory->file;

    if (!file.holds(DUMP_HEADER_BYTES, MEMORY_BITS - DUMP_HEADER_BYTES))
        kernel_dump_truncated(file, "inside the header of the bitmap");
    if (!has_bitmap(file))
        kernel_dump_damaged("the header of the bitmap is missing at " +
                            kernel_dump_hex(DUMP_HEADER_BYTES));
    memory->pages_offset = file.at<uint64_t>(MEMORY_FIRST_PAGE);
    memory->bits = file.at<uint64_t>(MEMORY_BITMAP_BITS);
    check_bitmap(*memory);
    for (uint64_t bit = 0; bit < memory->bits; bit += BLOCK_BITS) {
        memory->ranks.push_back(memory->pages);
        memory->pages += bits_set(file, bit, std::min(memory->bits, bit + BLOCK_BITS));
    }
    /* A wrong bit would shift all following pages. */
    if (memory->pages != file.at<uint64_t>(MEMORY_BITMAP_PRESENT))
        kernel_dump_damaged("the bitmap marks " + std::to_string(memory->pages) +
                            " pages, and its header counts " +
                            std::to_string(file.at<uint64_t>(MEMORY_BITMAP_PRESENT)));
}

memory_dump memory_dump_open(const file_span &file, const kernel_dump &dump)
{
    memory_dump memory;

    memory.file = file;
    memory.directory_table = dump.directory_table & MEMORY_FRAME;
    /* The contents of a kernel dump decide which of the two it has. */
    if (dump.kind == KERNEL_DUMP_KIND_FULL ||
        (dump.kind == KERNEL_DUMP_KIND_KERNEL && file.holds(MEMORY_BITMAP, 8) && !has_bitmap(file)))
        open_runs(&memory);
    else
        open_bitmap(&memory);
    return memory;
}

uint64_t memory_dump_whole_bytes(const memory_dump &memory)
{
    return memory.pages_offset + memory.pages * MEMORY_PAGE_BYTES;
}

/* Finds the number of the page in the file. Result: whether the file contains it. */
static bool place_of_page(const memory_dump &memory, uint64_t page, uint64_t *place)
{
    for (const memory_run &run : memory.runs) {
        if (page >= run.first && page - run.first < run.count) {
            *place = run.place + (page - run.first);
            return true;
        }
    }
    if (page >= memory.bits ||
        (memory.file.at<uint8_t>(MEMORY_BITS + page / 8) & (1u << (page % 8))) == 0)
        return false;
    *place =
        memory.ranks[page / BLOCK_BITS] + bits_set(memory.file, page - page % BLOCK_BITS, page);
    return true;
}

/* Within one page. */
static bool read_physical(const memory_dump &memory, uint64_t address, void *out, size_t bytes)
{
    uint64_t place;

    if (!place_of_page(memory, address / MEMORY_PAGE_BYTES, &place))
        return false;
    const uint64_t offset =
        memory.pages_offset + place * MEMORY_PAGE_BYTES + address % MEMORY_PAGE_BYTES;

    if (!memory.file.holds(offset, bytes))
        return false;
    memcpy(out, memory.file.bytes + offset, bytes);
    return true;
}

/* Walks the four levels, each with 9 bits of the address. A large page ends the walk at the second or
 * third. A page in transition is about to be removed, but still in memory. */
static enum memory_result translate(const memory_dump &memory, uint64_t address, uint64_t *physical)
{
    const uint64_t sign = address >> 47;
    uint64_t table = memory.directory_table;

    if (sign != 0 && sign != 0x1FFFF)
        return MEMORY_UNMAPPED;
    for (unsigned shift = 39;; shift -= 9) {
        const bool last = shift == 12;
        const uint64_t within = (static_cast<uint64_t>(1) << shift) - 1;
        uint64_t entry;

        if (!read_physical(memory, table + 8 * ((address >> shift) & 0x1FF), &entry, sizeof entry))
            return MEMORY_NO_TABLE;
        const bool in_transition =
            last && (entry & (MEMORY_TRANSITION | MEMORY_PROTOTYPE)) == MEMORY_TRANSITION;

        if ((entry & MEMORY_PRESENT) == 0 && !in_transition)
            return MEMORY_UNMAPPED;
        if (last || (shift < 39 && (entry & MEMORY_LARGE) != 0)) {
            *physical = (entry & MEMORY_FRAME & ~within) | (address & within);
            return MEMORY_OK;
        }
        table = entry & MEMORY_FRAME;
    }
}

enum memory_result memory_dump_read(const memory_dump &memory, uint64_t address, void *out,
                                    size_t bytes)
{
    uint8_t *to = static_cast<uint8_t *>(out);

    if (address > UINT64_MAX - bytes)
        return MEMORY_UNMAPPED;
    while (bytes > 0) {
        const size_t part = static_cast<size_t>(
            std::min<uint64_t>(bytes, MEMORY_PAGE_BYTES - address % MEMORY_PAGE_BYTES));
        uint64_t physical = 0;
        const enum memory_result result = translate(memory, address, &physical);

        if (result != MEMORY_OK)
            return result;
        if (!read_physical(memory, physical, to, part))
            return MEMORY_NO_PAGE;
        to += part;
        address += part;
        bytes -= part;
    }
    return MEMORY_OK;
}

const char *memory_result_text(enum memory_result result)
{
    static const char *const texts[] = {"nothing is missing", "the address is not mapped",
                                        "the page is not in the dump",
                                        "a page table is not in the dump"};

    return texts[result];
}
