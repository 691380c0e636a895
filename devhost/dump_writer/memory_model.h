/*
 * Models the memory of a crashed machine, including its page tables, and builds the dumps that
 * Windows would write. Calls nothing of Windows.
 */
#ifndef DEVHOST_MEMORY_MODEL_H
#define DEVHOST_MEMORY_MODEL_H

#include "dump_writer.h"

#include <map>

/* How the file describes its pages. */
enum memory_layout {
    MEMORY_RUNS,
    MEMORY_SDMP,
    MEMORY_FDMP,
};

typedef std::vector<uint8_t> memory_page;

class memory_model
{
  public:
    /* Builds the machine with its stack and its list of modules in memory. Module i of the list has
     * its entry in its own page at entry_of(i), and its texts in another page at text_of(i). Pages
     * are small by default. With large 21 or 30, one page of that many address bits contains the
     * list's head and another one all texts. */
    explicit memory_model(const dump_model &machine, unsigned large = 12);

    static uint64_t entry_of(size_t module);
    static uint64_t text_of(size_t module);

    /* Writes as dump_put does, and maps missing pages. */
    void put(uint64_t address, uint64_t value, size_t bytes);

    /* Returns the physical address of the page table entry of address, at the level that maps
     * 1 << shift bytes. The tables above it must exist. */
    uint64_t entry_place(uint64_t address, unsigned shift) const;
    uint64_t physical(uint64_t address) const;
    uint64_t get_physical(uint64_t place) const;
    void put_physical(uint64_t place, uint64_t value);

    /* Omits a page from the file. */
    void drop(uint64_t physical);

    /* Builds a dump of that kind. */
    std::vector<uint8_t> build(uint32_t kind, enum memory_layout layout) const;

    /* Returns the file offset of a physical address. */
    uint64_t place_in_file(uint64_t physical, enum memory_layout layout) const;

    /* Returns the numbers of the file's pages, ascending. */
    std::vector<uint64_t> pages() const;

  private:
    void map(uint64_t address, unsigned shift);
    uint64_t new_page(); /* returns its physical address */
    bool find(uint64_t address, uint64_t *physical) const;
    void put_text(uint64_t field, uint64_t address, const std::u16string &text);
    void put_list();
    uint64_t first_place(enum memory_layout layout) const;
    void put_runs(std::vector<uint8_t> *dump) const;
    void put_bitmap(std::vector<uint8_t> *dump, enum memory_layout layout) const;

    dump_model machine_;
    std::map<uint64_t, memory_page> pages_; /* by page number */
    uint64_t taken_ = 0;                    /* pages allocated */
    uint64_t large_taken_ = 0;
    uint64_t directory_table_ = 0;
};

#endif
