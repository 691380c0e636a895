#include "dump_mutate.h"

#include <cstring>

static constexpr uint64_t PAGE_BYTES = 0x1000ull;

void dump_mutate(std::vector<uint8_t> *dump, std::mt19937_64 *random)
{
    for (uint64_t changes = 1 + (*random)() % 8; changes > 0; changes--) {
        const uint64_t any = (*random)();
        const uint64_t size = dump->size();
        const uint64_t values[] = {
            0, 1, 0x80000000, UINT32_MAX, UINT64_MAX, size - any % 16, any % size, any};
        const size_t bytes = static_cast<size_t>(1) << ((*random)() % 4);
        uint32_t starts[] = {DUMP_CONTEXT, DUMP_TRIAGE, 0, 0};

        if (size >= DUMP_STACK)
            memcpy(&starts[3], dump->data() + DUMP_DRIVERS_AT, 4);
        const uint64_t place = starts[any % 4] + 4 * ((*random)() % 0xC0);

        if (place + bytes <= size)
            dump_put(dump, place, values[(*random)() % 8], bytes);
    }
    if ((*random)() % 16 == 0)
        dump->resize((*random)() % dump->size());
}

std::vector<uint64_t> memory_vital_places(const memory_model &machine, enum memory_layout layout)
{
    std::vector<uint64_t> places = {0x00,
                                    0x10,
                                    0x20,
                                    0x30,
                                    DUMP_KIND,
                                    DUMP_CONTEXT + 0x30,
                                    DUMP_CONTEXT + 0x98,
                                    DUMP_CONTEXT + 0xF8};

    for (uint64_t place = 0; layout == MEMORY_RUNS && place < 0x100; place += 8)
        places.push_back(MEMORY_RUN_COUNT + place);
    for (uint64_t place = 0; layout != MEMORY_RUNS && place < 0x80; place += 8)
        places.push_back(MEMORY_BITMAP + place);
    /* All nonzero values in the pages belong to page tables, entries, texts or the stack. */
    for (const uint64_t page : machine.pages()) {
        for (uint64_t at = 0; at < PAGE_BYTES; at += 8) {
            const uint64_t place = page * PAGE_BYTES + at;

            if (machine.get_physical(place) != 0)
                places.push_back(machine.place_in_file(place, layout));
        }
    }
    return places;
}

static uint64_t value_at(const std::vector<uint8_t> &dump, uint64_t place)
{
    uint64_t value = 0;

    if (place + 8 <= dump.size())
        memcpy(&value, &dump[place], sizeof value);
    return value;
}

void memory_mutate(std::vector<uint8_t> *dump, const std::vector<uint64_t> &places,
                   std::mt19937_64 *random)
{
    const uint64_t changes = 1 + (*random)() % 6;

    for (uint64_t i = 0; i < changes; i++) {
        const uint64_t place = places[(*random)() % places.size()];
        const uint64_t other = value_at(*dump, places[(*random)() % places.size()]);
        const uint64_t old = value_at(*dump, place);
        const uint64_t any = (*random)();
        const uint64_t off = old ^ (1ull << (any % 64));
        const uint64_t values[] = {0,   UINT64_MAX, any,   any >> (any % 64),
                                   off, off,        other, old + any % 0x2000 - 0x1000};

        dump_put(dump, place, values[(*random)() % (sizeof values / sizeof values[0])], 8);
    }
    if ((*random)() % 16 == 0)
        dump->resize((*random)() % dump->size());
}
