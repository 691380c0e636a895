/* Reading of small dumps: one block of fields, the saved stack and the list of modules. */
#include "kernel_dump_internal.h"

#include <algorithm>

/* Windows writes the mark last, so a dump that has it is complete. */
static enum kernel_dump_error check_whole(const file_span &file, std::string *reason)
{
    if (!file.holds(0, DUMP_TRIAGE_END)) {
        *reason = "the file is truncated: it ends at " + std::to_string(file.size) +
                  " bytes, inside the fields that follow the header";
        return KERNEL_DUMP_CUT_OFF;
    }
    const uint32_t size = file.at<uint32_t>(DUMP_SIZE);
    const uint32_t valid = file.at<uint32_t>(DUMP_VALID);

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

static enum kernel_dump_error read_context(const file_span &file, kernel_dump *dump,
                                           std::string *reason)
{
    const uint32_t offset = file.at<uint32_t>(DUMP_CONTEXT_AT);

    if (offset == 0) {
        *reason = "the dump contains no context";
        return KERNEL_DUMP_NO_CONTEXT;
    }
    return kernel_dump_read_context(file, offset, dump, reason);
}

static enum kernel_dump_error read_stack(const file_span &file, kernel_dump *dump,
                                         std::string *reason)
{
    const uint32_t offset = file.at<uint32_t>(DUMP_STACK_AT);
    const uint32_t length = file.at<uint32_t>(DUMP_STACK_BYTES);

    dump->stack_start = file.at<uint64_t>(DUMP_STACK_START);
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
static enum kernel_dump_error read_name(const file_span &file, const std::string &who,
                                        uint32_t offset, kernel_dump_module *module,
                                        std::string *reason)
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
    if (kernel_dump_file_name(end, &module->name, &module->file))
        return KERNEL_DUMP_OK;
    *reason = "the name of " + who + " at " + kernel_dump_hex(offset) + " is too long";
    return KERNEL_DUMP_DAMAGED;
}

static enum kernel_dump_error read_module(const file_span &file, uint64_t entry,
                                          const std::string &who, kernel_dump *dump,
                                          std::string *reason)
{
    kernel_dump_module module = {"", "", file.at<uint64_t>(entry + DRIVER_BASE),
                                 file.at<uint32_t>(entry + DRIVER_SIZE),
                                 file.at<uint32_t>(entry + DRIVER_TIME_STAMP)};
    const enum kernel_dump_error error =
        read_name(file, who, file.at<uint32_t>(entry + DRIVER_NAME_AT), &module, reason);

    if (error != KERNEL_DUMP_OK || kernel_dump_add_module(dump, module))
        return error;
    *reason = who + " of " + std::to_string(module.bytes) + " bytes at address " +
              kernel_dump_hex(module.base) + " does not fit into the address space";
    return KERNEL_DUMP_DAMAGED;
}

static enum kernel_dump_error read_modules(const file_span &file, kernel_dump *dump,
                                           std::string *reason)
{
    const uint32_t offset = file.at<uint32_t>(DUMP_DRIVERS_AT);
    const uint32_t count = file.at<uint32_t>(DUMP_DRIVER_COUNT);
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

enum kernel_dump_error kernel_dump_read_triage(const file_span &file, kernel_dump *dump,
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
