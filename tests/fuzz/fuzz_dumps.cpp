/* Crash dumps as the host writes them, damaged where the reader looks. */
#include "fuzz.h"

#include <cstring>

#include "dump_writer/memory_model.h"
#include "kernel_dump/kernel_dump.h"

static constexpr uint64_t PAGE_BYTES = 0x1000ull;

/* A dump that is damaged, and the places where the reader looks. */
struct dump_subject {
    std::vector<uint8_t> whole;
    std::vector<uint64_t> places;
};

static std::vector<dump_subject> s_dumps;

static void add_range(std::vector<uint64_t> *places, uint64_t from, uint64_t bytes, uint64_t step)
{
    for (uint64_t place = 0; place < bytes; place += step)
        places->push_back(from + place);
}

/* The file offsets of all data that the reader uses: header fields, bits, runs, page table entries in
 * use, links and texts of the list. */
static std::vector<uint64_t> vital_places(const memory_model &machine, enum memory_layout layout)
{
    std::vector<uint64_t> places = {0x00,
                                    0x10,
                                    0x20,
                                    0x30,
                                    DUMP_KIND,
                                    DUMP_CONTEXT + 0x30,
                                    DUMP_CONTEXT + 0x98,
                                    DUMP_CONTEXT + 0xF8};

    if (layout == MEMORY_RUNS)
        add_range(&places, MEMORY_RUN_COUNT, 0x100, 8);
    else
        add_range(&places, MEMORY_BITMAP, 0x80, 8);
    /* All nonzero values in the pages belong to page tables, entries, texts or the stack. */
    for (const uint64_t page : machine.pages())
        for (uint64_t at = page * PAGE_BYTES; at < (page + 1) * PAGE_BYTES; at += 8)
            if (machine.get_physical(at) != 0)
                places.push_back(machine.place_in_file(at, layout));
    return places;
}

static uint64_t value_at(const std::vector<uint8_t> &dump, uint64_t place)
{
    uint64_t value = 0;

    if (place + 8 <= dump.size())
        memcpy(&value, &dump[place], sizeof value);
    return value;
}

/* Changes up to eight of the places: to boundary values, by single bits, or to the value at another. */
static void damage_places(std::vector<uint8_t> *dump, const std::vector<uint64_t> &places,
                          chance &chance)
{
    for (size_t left = 1 + chance.below(8); left > 0; left--) {
        const uint64_t place = chance.of(places), other = value_at(*dump, chance.of(places));
        const uint64_t old = value_at(*dump, place), any = chance.next(), size = dump->size();
        const uint64_t values[] = {0,
                                   1,
                                   0x80000000,
                                   UINT32_MAX,
                                   UINT64_MAX,
                                   size - any % 16,
                                   any % size,
                                   any,
                                   any >> (any % 64),
                                   old ^ (1ull << (any % 64)),
                                   other,
                                   old + any % 0x2000 - 0x1000};
        const size_t bytes = chance.one_in(2) ? 8 : static_cast<size_t>(1) << chance.below(4);

        if (place + bytes <= size)
            dump_put(dump, place, chance.of(values), bytes);
    }
}

static void add_dump(const memory_model &machine, uint32_t kind, enum memory_layout layout)
{
    s_dumps.push_back({machine.build(kind, layout), vital_places(machine, layout)});
}

static void open_dumps(void)
{
    dump_model model;

    model.stack = {0xFFFFF80100010001, 0, 0xFFFFF80000000107, 5};
    s_dumps.push_back({dump_build(model), {}});
    for (const uint64_t from : {uint64_t{0}, uint64_t{DUMP_CONTEXT}, uint64_t{DUMP_TRIAGE},
                                value_at(s_dumps[0].whole, DUMP_DRIVERS_AT) & UINT32_MAX})
        add_range(&s_dumps[0].places, from, 0x300, 4);
    const memory_model memory(model), large(model, 21);
    add_dump(memory, 1, MEMORY_RUNS);
    add_dump(large, 1, MEMORY_RUNS);
    add_dump(memory, 2, MEMORY_RUNS);
    add_dump(memory, 2, MEMORY_SDMP);
    add_dump(large, 5, MEMORY_FDMP);
    add_dump(memory, 6, MEMORY_SDMP);
}

/* Walks and names everything. */
static void look_at_dump(enum kernel_dump_error error, const kernel_dump &dump,
                         const std::string &reason)
{
    const std::vector<kernel_dump_frame> frames = kernel_dump_walk(dump, 99);

    if (reason.empty() != (error == KERNEL_DUMP_OK) || frames.empty() || frames.size() > 99)
        violated("result, reason and frames do not fit: " + reason);
    for (const std::string &gap : dump.gaps)
        if (error != KERNEL_DUMP_OK || gap.find_first_of("\n!+") != std::string::npos)
            violated("a gap that cannot be: " + gap);
    for (size_t i = 0; i < frames.size(); i++) {
        if (kernel_dump_call_site(dump, frames[i].instruction).find_first_of("\n!") !=
            std::string::npos)
            violated("a call site of more than a line");
        if (i > 0 && kernel_dump_module_at(dump, frames[i].instruction) == nullptr)
            violated("a frame in no module");
        (void)kernel_dump_stack_value(dump, frames[i].stack);
    }
}

static void try_dump(chance &chance, uint64_t)
{
    const dump_subject &subject = s_dumps[chance.one_in(2) ? 0 : chance.below(s_dumps.size())];
    std::vector<uint8_t> bytes = subject.whole;
    kernel_dump dump;
    std::string reason;

    damage_places(&bytes, subject.places, chance);
    if (chance.one_in(16))
        bytes.resize(chance.below(bytes.size()));
    const uint8_t *block = fuzz_guarded(bytes.data(), bytes.size());
    look_at_dump(kernel_dump_read(block, bytes.size(), &dump, &reason), dump, reason);
}
FUZZ_TARGET(dumps, open_dumps, try_dump, 1, 30000)
