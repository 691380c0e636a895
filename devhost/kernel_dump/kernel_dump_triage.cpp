/* Reading of small dumps: one block of fields, the saved stack and the list of modules. */
#include "kernel_dump_internal.h"

#include <algorithm>

static constexpr uint32_t TRIAGE_BYTES = 0x50u;
static constexpr uint32_t DRIVER_ENTRY_BYTES = 0x90u;

/* Places in the file of the block's fields. */
enum triage_field : uint64_t {
    TRIAGE_SIZE_OF_DUMP = KERNEL_DUMP_HEADER_BYTES + 0x04,
    TRIAGE_VALID_OFFSET = KERNEL_DUMP_HEADER_BYTES + 0x08,
    TRIAGE_CONTEXT_OFFSET = KERNEL_DUMP_HEADER_BYTES + 0x0C,
    TRIAGE_STACK_OFFSET = KERNEL_DUMP_HEADER_BYTES + 0x28,
    TRIAGE_STACK_BYTES = KERNEL_DUMP_HEADER_BYTES + 0x2C,
    TRIAGE_DRIVERS_OFFSET = KERNEL_DUMP_HEADER_BYTES + 0x30,
    TRIAGE_DRIVER_COUNT = KERNEL_DUMP_HEADER_BYTES + 0x34,
    TRIAGE_STACK_START = KERNEL_DUMP_HEADER_BYTES + 0x48,
};

enum driver_field : uint64_t {
    DRIVER_NAME_OFFSET = 0x00,
    DRIVER_BASE = 0x38,
    DRIVER_BYTES = 0x48,
    DRIVER_TIME_STAMP = 0x88,
};

/* Windows writes the mark last, so a dump that has it is complete. */
static enum kernel_dump_error check_whole(const dump_span &file, std::string *reason)
{
    if (!file.holds(KERNEL_DUMP_HEADER_BYTES, TRIAGE_BYTES)) {
        *reason = "the file is truncated: it ends at " + std::to_string(file.size) +
                  " bytes, inside the fields that follow the header";
        return KERNEL_DUMP_CUT_OFF;
    }
    const uint32_t size = file.at<uint32_t>(TRIAGE_SIZE_OF_DUMP);
    const uint32_t valid = file.at<uint32_t>(TRIAGE_VALID_OFFSET);

    if (size > file.size) {
        *reason = "the file is truncated: " + std::to_string(file.size) + " of " +
                  std::to_string(size) + " bytes";
        return KERNEL_DUMP_CUT_OFF;
    }
    if (!file.holds(valid, 4))
        return kernel_dump_outside(file, "the mark of a finished dump", valid, 4, reason);
    if (memcmp(file.bytes + valid, "TRGD", 4) != 0) {
        *reason = "the mark of a finished dump is missing at " + kernel_dump_hex(valid);
        return KERNEL_DUMP_DAMAGED;
    }
    return KERNEL_DUMP_OK;
}

static enum kernel_dump_error read_context(const dump_span &file, kernel_dump *dump,
                                           std::string *reason)
{
    const uint32_t offset = file.at<uint32_t>(TRIAGE_CONTEXT_OFFSET);

    if (offset == 0) {
        *reason = "the dump contains no context";
        return KERNEL_DUMP_NO_CONTEXT;
    }
    return kernel_dump_read_context(file, offset, dump, reason);
}

static enum kernel_dump_error read_stack(const dump_span &file, kernel_dump *dump,
                                         std::string *reason)
{
    const uint32_t offset = file.at<uint32_t>(TRIAGE_STACK_OFFSET);
    const uint32_t length = file.at<uint32_t>(TRIAGE_STACK_BYTES);

    dump->stack_start = file.at<uint64_t>(TRIAGE_STACK_START);
    if (!file.holds(offset, length))
        return kernel_dump_outside(file, "the stack", offset, length, reason);
    if (dump->stack_start > UINT64_MAX - length) {
        *reason = "the stack of " + std::to_string(length) + " bytes at address " +
                  kernel_dump_hex(dump->stack_start) + " does not fit into the address space";
        return KERNEL_DUMP_DAMAGED;
    }
    dump->stack.assign(file.bytes + offset, file.bytes + offset + length);
    return KERNEL_DUMP_OK;
}

/* Reads the counted text at offset. who: the module, for the reason. */
static enum kernel_dump_error read_name(const dump_span &file, const std::string &who,
                                        uint32_t offset, std::string *name, std::string *reason)
{
    if (!file.holds(offset, 4))
        return kernel_dump_outside(file, "the name of " + who, offset, 4, reason);
    const uint64_t chars = file.at<uint32_t>(offset);
    const uint64_t text = static_cast<uint64_t>(offset) + 4;

    if (!file.holds(text, 2 * chars))
        return kernel_dump_outside(file, "the name of " + who, text, 2 * chars, reason);
    std::u16string end(std::min<uint64_t>(chars, KERNEL_DUMP_PATH_END_CHARS), u'\0');

    for (size_t i = 0; i < end.size(); i++)
        end[i] = file.at<char16_t>(text + 2 * (chars - end.size() + i));
    if (kernel_dump_file_name(end, name))
        return KERNEL_DUMP_OK;
    *reason = "the name of " + who + " at " + kernel_dump_hex(offset) + " is too long";
    return KERNEL_DUMP_DAMAGED;
}

static enum kernel_dump_error read_module(const dump_span &file, uint64_t entry,
                                          const std::string &who, kernel_dump *dump,
                                          std::string *reason)
{
    kernel_dump_module module = {"", file.at<uint64_t>(entry + DRIVER_BASE),
                                 file.at<uint32_t>(entry + DRIVER_BYTES),
                                 file.at<uint32_t>(entry + DRIVER_TIME_STAMP)};
    const enum kernel_dump_error error =
        read_name(file, who, file.at<uint32_t>(entry + DRIVER_NAME_OFFSET), &module.name, reason);

    if (error != KERNEL_DUMP_OK || kernel_dump_add_module(dump, module))
        return error;
    *reason = who + " of " + std::to_string(module.bytes) + " bytes at address " +
              kernel_dump_hex(module.base) + " does not fit into the address space";
    return KERNEL_DUMP_DAMAGED;
}

static enum kernel_dump_error read_modules(const dump_span &file, kernel_dump *dump,
                                           std::string *reason)
{
    const uint32_t offset = file.at<uint32_t>(TRIAGE_DRIVERS_OFFSET);
    const uint32_t count = file.at<uint32_t>(TRIAGE_DRIVER_COUNT);
    const uint64_t length = static_cast<uint64_t>(count) * DRIVER_ENTRY_BYTES;

    if (!file.holds(offset, length))
        return kernel_dump_outside(file, "the list of " + std::to_string(count) + " modules",
                                   offset, length, reason);
    for (uint32_t i = 0; i < count; i++) {
        const std::string who = "module " + std::to_string(i);
        const enum kernel_dump_error error = read_module(
            file, offset + static_cast<uint64_t>(i) * DRIVER_ENTRY_BYTES, who, dump, reason);

        if (error != KERNEL_DUMP_OK)
            return error;
    }
    return KERNEL_DUMP_OK;
}

enum kernel_dump_error kernel_dump_read_triage(const dump_span &file, kernel_dump *dump,
                                               std::string *reason)
{
    enum kernel_dump_error error = check_whole(file, reason);

    if (error == KERNEL_DUMP_OK)
        error = read_context(file, dump, reason);
    if (error == KERNEL_DUMP_OK)
        error = read_stack(file, dump, reason);
    if (error == KERNEL_DUMP_OK)
        error = read_modules(file, dump, reason);
    return error;
}
