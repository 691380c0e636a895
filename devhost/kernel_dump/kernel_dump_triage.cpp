/* Reading of small dumps: one block of fields, the saved stack and the list of modules. */
#include "kernel_dump_internal.h"

#include <algorithm>

/* Windows writes the mark last, so a dump that has it is complete. */
static void check_whole(const file_span &file)
{
    if (!file.holds(0, DUMP_TRIAGE_END))
        kernel_dump_truncated(file, "inside the fields that follow the header");
    const uint32_t size = file.at<uint32_t>(DUMP_SIZE);
    const uint32_t valid = file.at<uint32_t>(DUMP_VALID);

    if (size > file.size)
        kernel_dump_refuse(KERNEL_DUMP_CUT_OFF,
                           "the file is truncated: " + std::to_string(file.size) + " of " +
                               std::to_string(size) + " bytes");
    kernel_dump_check(file, "the mark of a finished dump", valid, 4);
    if (memcmp(file.bytes + valid, "TRGD", 4) != 0)
        kernel_dump_damaged("the mark of a finished dump is missing at " + kernel_dump_hex(valid));
}

static void read_context(const file_span &file, kernel_dump *dump)
{
    const uint32_t offset = file.at<uint32_t>(DUMP_CONTEXT_AT);

    if (offset == 0)
        kernel_dump_refuse(KERNEL_DUMP_NO_CONTEXT, "the dump contains no context");
    kernel_dump_read_context(file, offset, dump);
}

static void read_stack(const file_span &file, kernel_dump *dump)
{
    const uint32_t offset = file.at<uint32_t>(DUMP_STACK_AT);
    const uint32_t length = file.at<uint32_t>(DUMP_STACK_BYTES);

    dump->stack_start = file.at<uint64_t>(DUMP_STACK_START);
    kernel_dump_check(file, "the stack", offset, length);
    if (dump->stack_start > UINT64_MAX - length)
        kernel_dump_damaged("the stack of " + std::to_string(length) + " bytes at address " +
                            kernel_dump_hex(dump->stack_start) +
                            " does not fit into the address space");
    dump->stack.assign(file.bytes + offset, file.bytes + offset + length);
}

/* Reads the counted text at offset. who: the module, for the reason. */
static void read_name(const file_span &file, const std::string &who, uint32_t offset,
                      kernel_dump_module *module)
{
    kernel_dump_check(file, "the name of " + who, offset, 4);
    const uint64_t chars = file.at<uint32_t>(offset);
    const uint64_t text = static_cast<uint64_t>(offset) + 4;

    kernel_dump_check(file, "the name of " + who, text, 2 * chars);
    std::u16string end(std::min<uint64_t>(chars, KERNEL_DUMP_PATH_END_CHARS), u'\0');

    for (size_t i = 0; i < end.size(); i++)
        end[i] = file.at<char16_t>(text + 2 * (chars - end.size() + i));
    if (!kernel_dump_file_name(end, &module->name, &module->file))
        kernel_dump_damaged("the name of " + who + " at " + kernel_dump_hex(offset) +
                            " is too long");
}

static void read_module(const file_span &file, uint64_t entry, const std::string &who,
                        kernel_dump *dump)
{
    kernel_dump_module module = {"", "", file.at<uint64_t>(entry + DRIVER_BASE),
                                 file.at<uint32_t>(entry + DRIVER_SIZE),
                                 file.at<uint32_t>(entry + DRIVER_TIME_STAMP)};

    read_name(file, who, file.at<uint32_t>(entry + DRIVER_NAME_AT), &module);
    if (!kernel_dump_add_module(dump, module))
        kernel_dump_damaged(who + " of " + std::to_string(module.bytes) + " bytes at address " +
                            kernel_dump_hex(module.base) + " does not fit into the address space");
}

static void read_modules(const file_span &file, kernel_dump *dump)
{
    const uint32_t offset = file.at<uint32_t>(DUMP_DRIVERS_AT);
    const uint32_t count = file.at<uint32_t>(DUMP_DRIVER_COUNT);

    kernel_dump_check(file, "the list of " + std::to_string(count) + " modules", offset,
                      static_cast<uint64_t>(count) * DRIVER_ENTRY_BYTES);
    for (uint32_t i = 0; i < count; i++)
        read_module(file, offset + static_cast<uint64_t>(i) * DRIVER_ENTRY_BYTES,
                    "module " + std::to_string(i), dump);
}

void kernel_dump_read_triage(const file_span &file, kernel_dump *dump)
{
    check_whole(file);
    read_context(file, dump);
    read_stack(file, dump);
    read_modules(file, dump);
}
