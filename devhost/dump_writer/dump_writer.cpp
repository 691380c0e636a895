#include "dump_writer.h"

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
    dump_put(dump, DUMP_LOADED_MODULES, model.loaded_modules, 8);
    dump_put(dump, DUMP_MACHINE, DUMP_MACHINE_X64, 4);
    dump_put(dump, DUMP_PROCESSORS, 1, 4);
    dump_put(dump, DUMP_BUILD, model.build, 4);
    dump_put(dump, DUMP_BUG_CHECK, model.bug_check, 4);
    for (size_t i = 0; i < 4; i++)
        dump_put(dump, DUMP_PARAMETERS + 8 * i, model.parameters[i], 8);
    dump_put(dump, DUMP_EXCEPTION, model.exception, 4);
    dump_put(dump, DUMP_EXCEPTION + 0x10, model.exception != 0 ? model.rip : 0, 8);
    dump_put(dump, DUMP_CRASH_TIME, model.crash_time_100ns, 8);
    dump_put(dump, DUMP_UPTIME, model.uptime_100ns, 8);
    dump_put(dump, DUMP_CONTEXT + CONTEXT_FLAGS, 0x10001F, 4);
    dump_put(dump, DUMP_CONTEXT + CONTEXT_RSP, model.rsp, 8);
    dump_put(dump, DUMP_CONTEXT + CONTEXT_RIP, model.rip, 8);
    dump_put(dump, DUMP_KIND, 4, 4);
}

static void put_modules(std::vector<uint8_t> *dump, const std::vector<dump_module> &modules)
{
    uint64_t entry = dump->size();

    dump->resize(entry + modules.size() * DRIVER_ENTRY_BYTES);
    for (const dump_module &module : modules) {
        dump_put(dump, entry + DRIVER_NAME_AT, dump->size(), 4);
        dump_put(dump, entry + DRIVER_BASE, module.base, 8);
        dump_put(dump, entry + DRIVER_SIZE, module.bytes, 4);
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
