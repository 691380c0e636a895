/*
 * The memory in a dump of the kernel's or of all memory: which physical pages the file holds, and
 * what the page tables in them make of a virtual address. Plain bytes, no call of Windows.
 *
 * The places of fields are the published ones. Small dumps confirm those of the header; not checked
 * against a dump that Windows wrote are:
 *  - the list of runs at 0x88 of the header, the first page of runs at 0x2000, that runs rise and
 *    that their lengths add up to the number before them;
 *  - the bitmap's header at 0x2000 and that the number of its set bits stands in it; that a kernel
 *    dump (type 2) of an older Windows has the same one. Older forms of it may differ; they do not
 *    pass the checks, so such a dump is refused, not misread;
 *  - page table entries of pages in transition. A Windows that hides their page's number by extra
 *    bits makes it a page that no dump holds: it is missing then, not mistaken.
 * Page tables of five levels cannot be told from those of four by the header and are not supported.
 */
#ifndef DEVHOST_MEMORY_DUMP_H
#define DEVHOST_MEMORY_DUMP_H

#include "kernel_dump_internal.h"

#define MEMORY_PAGE_BYTES 0x1000u

/* Pages of the file that follow each other in the machine too. */
struct memory_run {
    uint64_t first; /* number of the page in the machine */
    uint64_t count;
    uint64_t place; /* number of the page in the file */
};

struct memory_dump {
    dump_span file = {};          /* borrowed */
    uint64_t directory_table = 0; /* physical address */
    uint64_t pages_offset = 0;    /* place in the file of its first page */
    uint64_t pages = 0;           /* that the file should hold */
    std::vector<memory_run> runs; /* rising; empty: there is a bitmap */
    uint64_t bits = 0;            /* in the bitmap, one a page of the machine */
    std::vector<uint64_t> ranks;  /* set bits before each block of the bitmap */
};

enum memory_result {
    MEMORY_OK = 0,
    MEMORY_UNMAPPED, /* the machine had nothing there, or not in its memory */
    MEMORY_NO_PAGE,  /* it had, but the page is not in the file */
    MEMORY_NO_TABLE, /* a page table on the way is not in the file */
};

/*
 * Finds the pages of a file.
 *
 * file     A dump whose header was read into dump. Borrowed as long as memory is used.
 * memory   Filled; of no use on failure.
 * reason   As of kernel_dump_read.
 *
 * Result   KERNEL_DUMP_CUT_OFF when the file ends before its first page, KERNEL_DUMP_DAMAGED. A
 * file
 *          that ends later only lacks pages. Throws std::bad_alloc, with 1/64 of the bitmap's size
 *          as the most that is asked for.
 */
[[nodiscard]] enum kernel_dump_error memory_dump_open(const dump_span &file,
                                                      const kernel_dump &dump, memory_dump *memory,
                                                      std::string *reason);

/* The size that a whole file has. */
uint64_t memory_dump_whole_bytes(const memory_dump &memory);

/*
 * Reads at a virtual address, over any number of pages.
 *
 * out      Room for bytes; undefined on failure.
 *
 * Result   MEMORY_OK when all of it was read, else what stands in the way first.
 */
[[nodiscard]] enum memory_result memory_dump_read(const memory_dump &memory, uint64_t address,
                                                  void *out, size_t bytes);

/* What stands in the way, in words. */
const char *memory_result_text(enum memory_result result);

#endif
