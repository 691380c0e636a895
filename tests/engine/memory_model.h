/*
 * The memory of a crashed machine, page by page, with its page tables, and the dumps that Windows
 * would write of it. Plain bytes, no call of Windows.
 */
#ifndef TESTS_MEMORY_MODEL_H
#define TESTS_MEMORY_MODEL_H

#include "dump_builder.h"

#include <map>

/* How the file tells which pages it holds. */
enum memory_layout {
    MEMORY_RUNS,
    MEMORY_SDMP,
    MEMORY_FDMP,
};

/* Bits of a page table entry. */
enum memory_entry : uint64_t {
    MEMORY_PRESENT = 0x001,
    MEMORY_LARGE = 0x080,
    MEMORY_PROTOTYPE = 0x400,
    MEMORY_TRANSITION = 0x800,
};

/* Places in the files. */
enum memory_place : uint32_t {
    MEMORY_RUN_COUNT = 0x88,
    MEMORY_RUN_PAGES = 0x90,
    MEMORY_RUN_FIRST = 0x98,
    MEMORY_BITMAP = 0x2000, /* its header */
    MEMORY_FIRST_PAGE = 0x2020,
    MEMORY_BITMAP_PRESENT = 0x2028,
    MEMORY_BITMAP_BITS = 0x2030,
    MEMORY_BITS = 0x2038,
};

/* Places in an entry of the list of modules. */
enum memory_list : uint32_t {
    MEMORY_NEXT = 0x00,
    MEMORY_PREVIOUS = 0x08,
    MEMORY_BASE = 0x30,
    MEMORY_SIZE = 0x40,
    MEMORY_PATH = 0x48,
    MEMORY_NAME = 0x58,
};

typedef std::vector<uint8_t> memory_page;

class memory_model
{
  public:
    /* The machine with its stack and its list of modules in memory. The list's entries lie a page
     * each at entry_of(i), each one's texts in a page of their own at text_of(i). In the order of
     * the list. Small pages, unless large says: a page of that many bits of address (21 or 30) for
     * the list's head, one for all texts. */
    explicit memory_model(const dump_model &machine, unsigned large = 12);

    static uint64_t entry_of(size_t module);
    static uint64_t text_of(size_t module);

    /* Maps what is not mapped yet. bytes as of dump_put. */
    void put(uint64_t address, uint64_t value, size_t bytes);

    /* The page table entry of address at the level that maps 1 << shift bytes: where it stands in
     * the machine's memory. The tables above it must be there. */
    uint64_t entry_place(uint64_t address, unsigned shift) const;
    uint64_t physical(uint64_t address) const;
    uint64_t get_physical(uint64_t place) const;
    void put_physical(uint64_t place, uint64_t value);

    /* The file holds the page of the machine no more. */
    void drop(uint64_t physical);

    /* A dump of that kind. */
    std::vector<uint8_t> build(uint32_t kind, enum memory_layout layout) const;

    /* Where build puts a place of the machine's memory. */
    uint64_t place_in_file(uint64_t physical, enum memory_layout layout) const;

    /* Numbers of the pages that the file holds, rising. */
    std::vector<uint64_t> pages() const;

    /* Places in the file of all that the reader goes by: fields of the headers, bits, runs, page
     * table entries in use, links and texts of the list. */
    std::vector<uint64_t> vital_places(enum memory_layout layout) const;

  private:
    void map(uint64_t address, unsigned shift);
    uint64_t new_page(); /* its physical address */
    bool find(uint64_t address, uint64_t *physical) const;
    void put_text(uint64_t field, uint64_t address, const std::u16string &text);
    void put_list();
    uint64_t first_place(enum memory_layout layout) const;
    void put_runs(std::vector<uint8_t> *dump) const;
    void put_bitmap(std::vector<uint8_t> *dump, enum memory_layout layout) const;

    dump_model m_machine;
    std::map<uint64_t, memory_page> m_pages; /* by number */
    uint64_t m_taken = 0;                    /* pages given out */
    uint64_t m_large_taken = 0;
    uint64_t m_directory_table = 0;
};

/* Changes up to six of the places: to edges, to single bits off, to what stands at another one; in
 * one of sixteen cases also the length. */
void memory_mutate(std::vector<uint8_t> *dump, const std::vector<uint64_t> &places,
                   std::mt19937_64 *random);

#endif
