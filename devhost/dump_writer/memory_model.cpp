/* The memory of a crashed machine and its dumps. */
#include "memory_model.h"

#include <cstring>

static constexpr uint64_t PAGE_BYTES = 0x1000ull;
/* The list and its texts are 1 GiB apart, so that a page of that size contains only the texts. */
static constexpr uint64_t LIST_BASE = 0xFFFFE00000000000ull;
static constexpr uint64_t TEXTS_BASE = 0xFFFFE00040000000ull;
static constexpr uint32_t NAME_TEXT =
    0x800u; /* offset of the file name in a module's page of texts */

memory_model::memory_model(const dump_model &machine, unsigned large) : machine_(machine)
{
    directory_table_ = new_page();
    if (large > 12) {
        map(machine.loaded_modules, large);
        map(TEXTS_BASE, large);
    }
    put_list();
    for (size_t i = 0; i < machine.stack.size(); i++)
        put(machine.stack_start + 8 * i, machine.stack[i], 8);
}

uint64_t memory_model::entry_of(size_t module)
{
    return LIST_BASE + 2 * PAGE_BYTES * module;
}

uint64_t memory_model::text_of(size_t module)
{
    return TEXTS_BASE + 2 * PAGE_BYTES * module;
}

/* Leaves gaps between page numbers, so that file offsets do not follow from the number alone. */
uint64_t memory_model::new_page()
{
    const uint64_t number = 0x100 + taken_ + taken_ / 3 * 2;

    taken_++;
    pages_[number] = memory_page(PAGE_BYTES);
    return number * PAGE_BYTES;
}

uint64_t memory_model::get_physical(uint64_t place) const
{
    const memory_page &page = pages_.at(place / PAGE_BYTES);
    uint64_t value;

    memcpy(&value, &page[place % PAGE_BYTES], sizeof value);
    return value;
}

void memory_model::put_physical(uint64_t place, uint64_t value)
{
    memory_page &page = pages_.at(place / PAGE_BYTES);

    memcpy(&page[place % PAGE_BYTES], &value, sizeof value);
}

uint64_t memory_model::entry_place(uint64_t address, unsigned shift) const
{
    uint64_t table = directory_table_;

    for (unsigned level = 39;; level -= 9) {
        const uint64_t place = table + 8 * ((address >> level) % 512);

        if (level == shift)
            return place;
        table = get_physical(place) & MEMORY_FRAME;
    }
}

/* Sets bits that the reader must ignore: access rights and, in the entry of a large page, the
 * lowest bit of a small page's frame number. */
void memory_model::map(uint64_t address, unsigned shift)
{
    for (unsigned level = 39; level > shift; level -= 9) {
        const uint64_t place = entry_place(address, level);

        if (get_physical(place) == 0)
            put_physical(place, new_page() | MEMORY_PRESENT | 0x62);
    }
    const uint64_t place = entry_place(address, shift);

    if (shift == 12)
        put_physical(place, new_page() | MEMORY_PRESENT | 0x8000000000000062);
    else
        put_physical(place, (++large_taken_ << shift) | MEMORY_PRESENT | MEMORY_LARGE | 0x1000);
}

bool memory_model::find(uint64_t address, uint64_t *physical) const
{
    for (unsigned level = 39;; level -= 9) {
        const uint64_t entry = get_physical(entry_place(address, level));
        const uint64_t within = (1ull << level) - 1;

        if (entry == 0)
            return false;
        *physical = (entry & MEMORY_FRAME & ~within) | (address & within);
        if (level == 12 || (entry & MEMORY_LARGE) != 0)
            return true;
    }
}

uint64_t memory_model::physical(uint64_t address) const
{
    uint64_t found = 0;

    return find(address, &found) ? found : 0;
}

void memory_model::put(uint64_t address, uint64_t value, size_t bytes)
{
    uint64_t place = 0;

    for (size_t i = 0; i < bytes; i++, place++) {
        const bool next_page = i == 0 || (address + i) % PAGE_BYTES == 0;

        if (next_page && !find(address + i, &place)) {
            map(address + i, 12);
            place = physical(address + i);
        }
        /* A large page contains only the 4 KiB parts that are written. */
        memory_page &page = pages_[place / PAGE_BYTES];

        page.resize(PAGE_BYTES);
        page[place % PAGE_BYTES] = static_cast<uint8_t>(value >> (8 * i));
    }
}

void memory_model::put_text(uint64_t field, uint64_t address, const std::u16string &text)
{
    put(field + TEXT_BYTES, 2 * text.size(), 2);
    put(field + TEXT_ROOM, 2 * text.size() + 2, 2);
    put(field + TEXT_ADDRESS, address, 8);
    for (const char16_t unit : text) {
        put(address, unit, 2);
        address += 2;
    }
}

void memory_model::put_list()
{
    const size_t count = machine_.modules.size();

    for (size_t i = 0; i <= count; i++) {
        const uint64_t before = i == 0 ? machine_.loaded_modules : entry_of(i - 1);
        const uint64_t after = i == count ? machine_.loaded_modules : entry_of(i);

        put(before + MEMORY_NEXT, after, 8);
        put(after + MEMORY_PREVIOUS, before, 8);
    }
    for (size_t i = 0; i < count; i++) {
        const std::u16string &path = machine_.modules[i].path;

        put(entry_of(i) + MEMORY_BASE, machine_.modules[i].base, 8);
        put(entry_of(i) + MEMORY_SIZE, machine_.modules[i].bytes, 4);
        put_text(entry_of(i) + MEMORY_PATH, text_of(i), path);
        put_text(entry_of(i) + MEMORY_NAME, text_of(i) + NAME_TEXT,
                 path.substr(path.rfind(u'\\') + 1));
    }
}

void memory_model::drop(uint64_t physical)
{
    pages_.erase(physical / PAGE_BYTES);
}

std::vector<uint64_t> memory_model::pages() const
{
    std::vector<uint64_t> numbers;

    for (const auto &page : pages_)
        numbers.push_back(page.first);
    return numbers;
}

uint64_t memory_model::first_place(enum memory_layout layout) const
{
    const uint64_t bitmap_end = MEMORY_BITS + pages_.rbegin()->first / 8 + 2;

    return layout == MEMORY_RUNS ? uint64_t{DUMP_HEADER_BYTES}
                                 : (bitmap_end + PAGE_BYTES - 1) / PAGE_BYTES * PAGE_BYTES;
}

uint64_t memory_model::place_in_file(uint64_t physical, enum memory_layout layout) const
{
    const auto page = pages_.find(physical / PAGE_BYTES);

    return first_place(layout) +
           static_cast<uint64_t>(std::distance(pages_.begin(), page)) * PAGE_BYTES +
           physical % PAGE_BYTES;
}

void memory_model::put_runs(std::vector<uint8_t> *dump) const
{
    uint64_t place = MEMORY_RUN_FIRST - MEMORY_RUN_BYTES;
    uint64_t runs = 0;
    uint64_t next = 0;
    uint64_t count = 0;

    for (const uint64_t number : pages()) {
        if (runs == 0 || number != next) {
            runs++;
            place += MEMORY_RUN_BYTES;
            count = 0;
            dump_put(dump, place, number, 8);
        }
        dump_put(dump, place + 8, ++count, 8);
        next = number + 1;
    }
    dump_put(dump, MEMORY_RUN_COUNT, runs, 4);
    dump_put(dump, MEMORY_RUN_PAGES, pages_.size(), 8);
}

/* The number of bits is not a multiple of 8. The unused bits of the last byte are set, although no
 * page exists for them. */
void memory_model::put_bitmap(std::vector<uint8_t> *dump, enum memory_layout layout) const
{
    const uint64_t last = pages_.rbegin()->first;
    const uint64_t bits = last + 1 + (last % 8 == 7);

    dump_put(dump, MEMORY_BITMAP, layout == MEMORY_SDMP ? 0x504D4453 : 0x504D4446, 4);
    dump_put(dump, MEMORY_BITMAP + 4, 0x504D5544, 4);
    dump_put(dump, MEMORY_FIRST_PAGE, first_place(layout), 8);
    dump_put(dump, MEMORY_BITMAP_PRESENT, pages_.size(), 8);
    dump_put(dump, MEMORY_BITMAP_BITS, bits, 8);
    dump->resize(first_place(layout));
    for (const uint64_t number : pages())
        (*dump)[MEMORY_BITS + number / 8] |= static_cast<uint8_t>(1u << (number % 8));
    for (uint64_t bit = bits; bit % 8 != 0; bit++)
        (*dump)[MEMORY_BITS + bit / 8] |= static_cast<uint8_t>(1u << (bit % 8));
}

std::vector<uint8_t> memory_model::build(uint32_t kind, enum memory_layout layout) const
{
    std::vector<uint8_t> dump = dump_build(machine_);

    dump.resize(DUMP_HEADER_BYTES);
    dump_put(&dump, DUMP_DIRECTORY_TABLE, directory_table_ | 0x18, 8);
    dump_put(&dump, DUMP_KIND, kind, 4);
    if (layout == MEMORY_RUNS)
        put_runs(&dump);
    else
        put_bitmap(&dump, layout);
    for (const auto &page : pages_)
        dump.insert(dump.end(), page.second.begin(), page.second.end());
    return dump;
}
