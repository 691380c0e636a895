/*
 * The memory in a kernel memory or complete dump: which physical pages the file contains, and the
 * translation of virtual addresses by the page tables in them. Calls nothing of Windows.
 *
 * Offsets of fields are the published ones. Small dumps confirm those of the header. Not checked
 * against a dump that Windows wrote:
 *  - the list of runs at 0x88 of the header, the first page of runs at 0x2000, that runs rise and
 *    that their lengths add up to the number before them;
 *  - the bitmap's header at 0x2000, which contains the number of set bits; that a kernel dump (type 2)
 *    of an older Windows has the same one. Other forms fail the checks, so such a dump is rejected,
 *    not misread;
 *  - page table entries of pages in transition. A Windows that hides the page number by extra bits
 *    makes it a page that no dump contains: the page is then missing, not wrong.
 * Five-level page tables look like four-level ones in the header and are not supported.
 */
#ifndef DEVHOST_MEMORY_DUMP_H
#define DEVHOST_MEMORY_DUMP_H

#include "kernel_dump_internal.h"

static constexpr uint32_t MEMORY_PAGE_BYTES = 0x1000u;

/* Pages that follow each other in the file and in the machine. */
struct memory_run {
    uint64_t first; /* number of the page in the machine */
    uint64_t count;
    uint64_t place; /* number of the page in the file */
};

struct memory_dump {
    file_span file = {};          /* borrowed */
    uint64_t directory_table = 0; /* physical address */
    uint64_t pages_offset = 0;    /* offset of the first page in the file */
    uint64_t pages = 0;           /* that the file should hold */
    std::vector<memory_run> runs; /* rising; empty: there is a bitmap */
    uint64_t bits = 0;            /* in the bitmap, one a page of the machine */
    std::vector<uint64_t> ranks;  /* set bits before each block of the bitmap */
};

enum memory_result {
    MEMORY_OK = 0,
    MEMORY_UNMAPPED, /* not mapped, or not in the machine's memory */
    MEMORY_NO_PAGE,  /* mapped, but the page is not in the file */
    MEMORY_NO_TABLE, /* a page table is not in the file */
};

/*
 * Finds the pages of a file.
 *
 * file     A dump whose header was read into dump. Borrowed as long as memory is used.
 *
 * Throws KERNEL_DUMP_CUT_OFF when the file ends before its first page, and KERNEL_DUMP_DAMAGED. A file
 * that ends later only lacks pages. Throws std::bad_alloc; allocates at most 1/64 of the bitmap's size.
 */
memory_dump memory_dump_open(const file_span &file, const kernel_dump &dump);

/* The size of the complete file. */
uint64_t memory_dump_whole_bytes(const memory_dump &memory);

/*
 * Reads at a virtual address, over any number of pages.
 *
 * out      bytes bytes; undefined on failure.
 *
 * Result   MEMORY_OK when all of it was read, else the first obstacle.
 */
[[nodiscard]] enum memory_result memory_dump_read(const memory_dump &memory, uint64_t address,
                                                  void *out, size_t bytes);

/* The obstacle in words. */
const char *memory_result_text(enum memory_result result);

#endif
