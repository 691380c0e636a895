#include "dump_builder.h"

#include <cstring>

static constexpr uint32_t DRIVER_ENTRY_BYTES = 0x90u;

void dump_put(std::vector<uint8_t> *dump, uint64_t offset, uint64_t value, size_t bytes)
{
    if (dump->size() < offset + bytes)
        dump->resize(offset + bytes);
    for (size_t i = 0; i < bytes; i++)
        (*dump)[offset + i] = static_cast<uint8_t>(value >> (8 * i));
}

static void put_header(std::vector<uint8_t> *dump, const dump_model &model)
{
    dump_put(dump, 0x00, 0x3436554445474150, 8); /* "PAGEDU64" */
    dump_put(dump, 0x20, model.loaded_modules, 8);
    dump_put(dump, 0x30, 0x8664, 4);
    dump_put(dump, 0x38, 0x1000007E, 4);
    dump_put(dump, DUMP_CONTEXT + 0x30, 0x10001F, 4);
    dump_put(dump, DUMP_CONTEXT + 0x98, model.rsp, 8);
    dump_put(dump, DUMP_CONTEXT + 0xF8, model.rip, 8);
    dump_put(dump, DUMP_KIND, 4, 4);
}

static void put_modules(std::vector<uint8_t> *dump, const std::vector<dump_module> &modules)
{
    uint64_t entry = dump->size();

    dump->resize(entry + modules.size() * DRIVER_ENTRY_BYTES);
    for (const dump_module &module : modules) {
        dump_put(dump, entry, dump->size(), 4);
        dump_put(dump, entry + 0x38, module.base, 8);
        dump_put(dump, entry + 0x48, module.bytes, 4);
        dump_put(dump, dump->size(), module.path.size(), 4);
        for (const char16_t unit : module.path)
            dump_put(dump, dump->size(), unit, 2);
        entry += DRIVER_ENTRY_BYTES;
    }
}

std::vector<uint8_t> dump_build(const dump_model &model)
{
    std::vector<uint8_t> dump(DUMP_STACK);

    put_header(&dump, model);
    for (const uint64_t value : model.stack)
        dump_put(&dump, dump.size(), value, 8);
    dump.resize(dump.size() - model.stack_cut);
    dump_put(&dump, DUMP_CONTEXT_AT, DUMP_CONTEXT, 4);
    dump_put(&dump, DUMP_STACK_AT, DUMP_STACK, 4);
    dump_put(&dump, DUMP_STACK_BYTES, dump.size() - DUMP_STACK, 4);
    dump_put(&dump, DUMP_STACK_START, model.stack_start, 8);
    dump_put(&dump, DUMP_DRIVERS_AT, dump.size(), 4);
    dump_put(&dump, DUMP_DRIVER_COUNT, model.modules.size(), 4);
    put_modules(&dump, model.modules);
    dump_put(&dump, DUMP_VALID, dump.size(), 4);
    dump_put(&dump, dump.size(), 0x44475254, 4); /* "TRGD" */
    dump_put(&dump, DUMP_SIZE, dump.size(), 4);
    return dump;
}

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
