/* Building and damaging of small kernel dumps. */
#include "dump_builder.h"

#include <cstring>

#define TRIAGE_FIELDS      18u
#define DRIVER_ENTRY_BYTES 0x90u

uint32_t dump_field_at(enum dump_triage_field field)
{
    return DUMP_TRIAGE + 4 * (uint32_t)field;
}

uint32_t dump_field(const std::vector<uint8_t> &dump, enum dump_triage_field field)
{
    uint32_t value;

    memcpy(&value, dump.data() + dump_field_at(field), sizeof value);
    return value;
}

void dump_put(std::vector<uint8_t> *dump, uint64_t offset, uint64_t value, size_t bytes)
{
    if (dump->size() < offset + bytes)
        dump->resize(offset + bytes);
    for (size_t i = 0; i < bytes; i++)
        (*dump)[offset + i] = (uint8_t)(value >> (8 * i));
}

static void put_header(std::vector<uint8_t> *dump, const dump_model &model)
{
    for (size_t i = 0; i < model.signature.size(); i++)
        dump_put(dump, i, (uint8_t)model.signature[i], 1);
    dump_put(dump, 0x08, 15, 4);
    dump_put(dump, 0x0C, 19041, 4);
    dump_put(dump, 0x20, model.loaded_modules, 8);
    dump_put(dump, 0x30, model.machine, 4);
    dump_put(dump, 0x34, 4, 4);
    dump_put(dump, 0x38, model.bug_check, 4);
    for (uint64_t i = 0; i < 4; i++)
        dump_put(dump, 0x40 + 8 * i, 0xC0000005 + i, 8);
    dump_put(dump, DUMP_CONTEXT + 0x30, model.context_flags, 4);
    dump_put(dump, DUMP_CONTEXT + 0x98, model.rsp, 8);
    dump_put(dump, DUMP_CONTEXT + 0xF8, model.rip, 8);
    dump_put(dump, DUMP_KIND, model.kind, 4);
    dump_put(dump, 0xFA8, 0x01D707F0A5C3E700, 8);
    dump_put(dump, 0x1030, 37000000, 8);
}

static void put_modules(std::vector<uint8_t> *dump, const std::vector<dump_module> &modules)
{
    const uint64_t list = dump->size();
    uint64_t name = list + modules.size() * DRIVER_ENTRY_BYTES;

    for (size_t i = 0; i < modules.size(); i++) {
        const uint64_t entry = list + i * DRIVER_ENTRY_BYTES;

        dump_put(dump, entry, name, 4);
        dump_put(dump, entry + 0x38, modules[i].base, 8);
        dump_put(dump, entry + 0x48, modules[i].bytes, 4);
        dump_put(dump, name, modules[i].path.size(), 4);
        name += 4;
        for (const char16_t unit : modules[i].path) {
            dump_put(dump, name, unit, 2);
            name += 2;
        }
    }
}

std::vector<uint8_t> dump_build(const dump_model &model)
{
    std::vector<uint8_t> dump(DUMP_STACK);
    const auto put_field = [&dump](enum dump_triage_field field, uint64_t value) {
        dump_put(&dump, dump_field_at(field), value, 4);
    };

    put_header(&dump, model);
    for (const uint64_t value : model.stack)
        dump_put(&dump, dump.size(), value, 8);
    dump.resize(dump.size() - model.stack_cut);
    put_field(DUMP_FIELD_CONTEXT, DUMP_CONTEXT);
    put_field(DUMP_FIELD_STACK, DUMP_STACK);
    put_field(DUMP_FIELD_STACK_BYTES, dump.size() - DUMP_STACK);
    dump_put(&dump, DUMP_TRIAGE + 0x48, model.stack_start, 8);
    put_field(DUMP_FIELD_DRIVERS, dump.size());
    put_field(DUMP_FIELD_DRIVER_COUNT, model.modules.size());
    put_modules(&dump, model.modules);
    put_field(DUMP_FIELD_VALID, dump.size());
    dump_put(&dump, dump.size(), 0x44475254, 4);
    put_field(DUMP_FIELD_SIZE, dump.size());
    return dump;
}

/* Where the reader looks: the header's fields, the triage block, an entry of the modules; else
 * anywhere. */
static uint64_t place_to_change(const std::vector<uint8_t> &dump, std::mt19937_64 *random)
{
    static const uint64_t header[] = {0x00, 0x04, 0x20, 0x30, DUMP_KIND};
    const uint64_t choice = (*random)() % 16;
    const uint64_t any = (*random)();

    if (dump.size() < DUMP_STACK || choice < 2)
        return any % dump.size();
    if (choice == 2)
        return header[any % 5];
    if (choice < 5)
        return DUMP_CONTEXT + 4 * (any % 0x134);
    if (choice < 10)
        return DUMP_TRIAGE + 4 * (any % (TRIAGE_FIELDS + 2));
    const uint64_t drivers = dump_field(dump, DUMP_FIELD_DRIVERS);
    const uint64_t count = dump_field(dump, DUMP_FIELD_DRIVER_COUNT) % 256;

    return drivers + 4 * (any % (DRIVER_ENTRY_BYTES / 4 * (count + 1)));
}

static uint64_t value_to_put(const std::vector<uint8_t> &dump, std::mt19937_64 *random)
{
    const uint64_t any = (*random)();
    const uint64_t edges[] = {0,
                              1,
                              0x7FFFFFFF,
                              0x80000000,
                              0xFFFFFFFF,
                              UINT64_MAX,
                              dump.size(),
                              dump.size() - any % 16,
                              dump.size() - any % 0x1000,
                              any % (dump.size() + 1),
                              any,
                              any >> 32};

    return edges[(*random)() % (sizeof edges / sizeof edges[0])];
}

void dump_mutate(std::vector<uint8_t> *dump, std::mt19937_64 *random)
{
    const uint64_t changes = 1 + (*random)() % 8;

    for (uint64_t i = 0; i < changes; i++) {
        const uint64_t place = place_to_change(*dump, random);
        const uint64_t value = value_to_put(*dump, random);
        const size_t bytes = (size_t)1 << ((*random)() % 4);

        if (dump->size() >= bytes && place <= dump->size() - bytes)
            dump_put(dump, place, value, bytes);
    }
    if ((*random)() % 16 == 0)
        dump->resize((*random)() % dump->size());
}
