/* Images of drivers, damaged where unwinding reads them, and stacks that are unwound by them. */
#include "fuzz.h"

#include <cstring>

#include "dump_writer/dump_writer.h"
#include "kernel_dump/kernel_dump.h"

static constexpr uint64_t BASE = 0xFFFFF80100000000ull;
static constexpr size_t STACK_VALUES = 512;

static std::string s_whole;
/* Offsets in the file of headers, function table, unwind information and code, and their lengths. */
static std::vector<std::pair<size_t, size_t>> s_places;
static std::vector<uint32_t> s_begins; /* of functions, in the loaded image */

static const uint8_t *bytes_of(const std::string &text)
{
    return reinterpret_cast<const uint8_t *>(text.data());
}

static void open_images(void)
{
    kernel_image image;

    s_whole = file_bytes("unwind_functions.dll");
    if (kernel_image_open("one.sys", bytes_of(s_whole), s_whole.size(), &image) != nullptr)
        violated("the good image is refused");
    s_places = {
        {0,                             0x400                     },
        {image.functions - image.bytes, 12u * image.function_count}
    };
    for (uint32_t i = 0; i < image.function_count; i++) {
        const kernel_image_function function =
            kernel_image_entry(image.functions + static_cast<size_t>(i) * 12);

        s_begins.push_back(function.begin);
        s_places.push_back({kernel_image_at(image, function.unwind, 4) - image.bytes, 24});
        s_places.push_back({kernel_image_at(image, function.begin, 4) - image.bytes, 64});
    }
}

static std::string damaged_image(chance &chance)
{
    static const uint8_t values[] = {0, 1, 4, 0x21, 0x58, 0x7F, 0x80, 0xE9, 0xFF};
    std::string bytes = s_whole;

    for (size_t left = chance.below(12); left > 0; left--) {
        const std::pair<size_t, size_t> &place =
            s_places[chance.one_in(2) ? chance.below(2) : chance.below(s_places.size())];
        const size_t at = place.first + chance.below(place.second);

        if (at < bytes.size())
            bytes[at] = static_cast<char>(chance.one_in(2) ? chance.of(values) : chance.next());
    }
    if (chance.one_in(16))
        bytes.resize(chance.below(bytes.size()));
    return bytes;
}

static uint64_t some_value(chance &chance, uint64_t stack)
{
    switch (chance.below(4)) {
    case 0: return BASE + chance.of(s_begins) + chance.below(64);
    case 1: return stack + 8 * chance.below(STACK_VALUES);
    case 2: return chance.next();
    default: return 0;
    }
}

/* A step either succeeds or leaves the registers as they are. */
static void step(const kernel_image &image, const unwind_stack &stack, chance &chance)
{
    unwind_registers registers;

    for (uint64_t &value : registers.general)
        value = some_value(chance, stack.start);
    registers.general[UNWIND_RSP] = stack.start + 8 * chance.below(STACK_VALUES);
    registers.rip = BASE + chance.of(s_begins) + chance.below(64);
    registers.known = static_cast<uint32_t>(chance.next()) | 1u << UNWIND_RSP;
    registers.returns = chance.one_in(2);
    const unwind_registers before = registers;

    if (unwind_step(image, BASE, stack, &registers) != nullptr &&
        (registers.rip != before.rip || registers.known != before.known ||
         memcmp(registers.general, before.general, sizeof before.general) != 0))
        violated("a failed step changed registers");
}

static void walk(const kernel_image &image, chance &chance)
{
    kernel_dump dump;

    dump.stack_start = dump.general[UNWIND_RSP] = 0xFFFF850000001000;
    dump.has_general = true;
    for (unsigned i = 0; i < 16; i++)
        if (i != UNWIND_RSP)
            dump.general[i] = some_value(chance, dump.stack_start);
    for (size_t i = 0; i < STACK_VALUES; i++)
        dump_put(&dump.stack, 8 * i, some_value(chance, dump.stack_start), 8);
    dump.rip = BASE + chance.of(s_begins) + chance.below(64);
    dump.modules = {
        {"one", "one.sys", BASE, image.image_bytes, image.time_stamp}
    };
    const std::vector<kernel_dump_frame> frames = kernel_dump_walk(dump, 99, {image});

    for (size_t i = 0; i < frames.size(); i++)
        if ((frames[i].found == KERNEL_DUMP_FOUND_RIP) != (i == 0) ||
            (i > 0 && kernel_dump_module_at(dump, frames[i].instruction) == nullptr))
            violated("a frame in no module");
}

static void try_image(chance &chance, uint64_t)
{
    const std::string bytes = damaged_image(chance);
    std::vector<uint64_t> values;
    const uint8_t *block = fuzz_guarded(bytes.data(), bytes.size());
    kernel_image image;

    if (kernel_image_open("one.sys", block, bytes.size(), &image) != nullptr)
        return;
    for (size_t i = 0; i < STACK_VALUES; i++)
        values.push_back(some_value(chance, 0xFFFF850000001000));
    const unwind_stack stack = {0xFFFF850000001000,
                                reinterpret_cast<const uint8_t *>(values.data()), 8 * STACK_VALUES};

    for (int i = 0; i < 8; i++)
        step(image, stack, chance);
    walk(image, chance);
}
FUZZ_TARGET(images, open_images, try_image, 1, 6000)
