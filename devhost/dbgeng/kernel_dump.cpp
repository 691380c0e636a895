/* Reading of kernel dumps. Every offset and length of the file is checked before it is used. */
#include "kernel_dump.h"

#include <algorithm>
#include <cstdio>
#include <cstring>

/* The header is two pages; the block of a small dump follows it and starts with its fields. */
#define HEADER_BYTES       0x2000u
#define TRIAGE_BYTES       0x50u
#define DRIVER_ENTRY_BYTES 0x90u
#define CONTEXT_BYTES      0x4D0u
#define MACHINE_X64        0x8664u
#define CONTEXT_CONTROL    0x100001u
/* The longest name that a file system gives a file. It also bounds the work: thousands of entries
 * may share one name as long as the file. */
#define FILE_NAME_CHARS 255u

/* Places in the header. */
enum header_field : uint64_t {
    HEADER_BUILD = 0x0C,
    HEADER_LOADED_MODULES = 0x20,
    HEADER_MACHINE = 0x30,
    HEADER_PROCESSORS = 0x34,
    HEADER_BUG_CHECK = 0x38,
    HEADER_PARAMETERS = 0x40,
    HEADER_KIND = 0xF98,
    HEADER_CRASH_TIME = 0xFA8,
    HEADER_UPTIME = 0x1030,
};

/* Places in the file of a small dump's fields. */
enum triage_field : uint64_t {
    TRIAGE_SIZE_OF_DUMP = HEADER_BYTES + 0x04,
    TRIAGE_VALID_OFFSET = HEADER_BYTES + 0x08,
    TRIAGE_CONTEXT_OFFSET = HEADER_BYTES + 0x0C,
    TRIAGE_STACK_OFFSET = HEADER_BYTES + 0x28,
    TRIAGE_STACK_BYTES = HEADER_BYTES + 0x2C,
    TRIAGE_DRIVERS_OFFSET = HEADER_BYTES + 0x30,
    TRIAGE_DRIVER_COUNT = HEADER_BYTES + 0x34,
    TRIAGE_STACK_START = HEADER_BYTES + 0x48,
};

enum context_field : uint64_t {
    CONTEXT_FLAGS = 0x30,
    CONTEXT_RSP = 0x98,
    CONTEXT_RIP = 0xF8,
};

enum driver_field : uint64_t {
    DRIVER_NAME_OFFSET = 0x00,
    DRIVER_BASE = 0x38,
    DRIVER_BYTES = 0x48,
};

namespace
{
struct dump_file {
    const uint8_t *bytes;
    uint64_t size;

    bool holds(uint64_t offset, uint64_t length) const
    {
        return offset <= size && length <= size - offset;
    }

    /* The caller has made sure that the file holds it. */
    template <typename T> T at(uint64_t offset) const
    {
        T value;
        memcpy(&value, bytes + offset, sizeof value);
        return value;
    }
};

struct kind_row {
    uint32_t kind;
    const char *name;
};
} // namespace

static const struct kind_row s_kinds[] = {
    {KERNEL_DUMP_KIND_FULL,          "a complete dump"                                         },
    {KERNEL_DUMP_KIND_KERNEL,        "a kernel memory dump"                                    },
    {KERNEL_DUMP_KIND_BITMAP_FULL,   "a complete dump with a bitmap"                           },
    {KERNEL_DUMP_KIND_BITMAP_KERNEL, "a kernel memory dump, or an automatic one, with a bitmap"},
};

static std::string hex(uint64_t value)
{
    char text[24];

    snprintf(text, sizeof text, "0x%llx", (unsigned long long)value);
    return text;
}

static enum kernel_dump_error outside(const dump_file &file, const std::string &what,
                                      uint64_t offset, uint64_t length, std::string *reason)
{
    *reason = what + " (" + std::to_string(length) + " bytes at " + hex(offset) +
              ") reaches outside the file of " + std::to_string(file.size) + " bytes";
    return KERNEL_DUMP_DAMAGED;
}

static enum kernel_dump_error check_signature(const dump_file &file, std::string *reason)
{
    if (file.holds(0, 4) && memcmp(file.bytes, "MDMP", 4) == 0) {
        *reason = "this is a dump of a process, not of the kernel";
        return KERNEL_DUMP_USER_MODE;
    }
    if (file.holds(0, 8) && memcmp(file.bytes, "PAGEDUMP", 8) == 0) {
        *reason = "this is a dump of 32-bit Windows";
        return KERNEL_DUMP_32_BIT;
    }
    if (file.size >= 8 && memcmp(file.bytes, "PAGEDU64", 8) != 0) {
        *reason = "this is no dump: it does not begin with \"PAGEDU64\"";
        return KERNEL_DUMP_NOT_A_DUMP;
    }
    if (file.size < HEADER_BYTES) {
        *reason = "the file is cut off: " + std::to_string(file.size) +
                  " bytes, and the header alone has " + std::to_string(HEADER_BYTES);
        return KERNEL_DUMP_CUT_OFF;
    }
    return KERNEL_DUMP_OK;
}

static enum kernel_dump_error check_kind(const dump_file &file, std::string *reason)
{
    const uint32_t machine = file.at<uint32_t>(HEADER_MACHINE);
    const uint32_t kind = file.at<uint32_t>(HEADER_KIND);

    if (machine != MACHINE_X64) {
        *reason = "the machine type " + hex(machine) + " is not supported, only x64 (0x8664)";
        return KERNEL_DUMP_MACHINE;
    }
    if (kind == KERNEL_DUMP_KIND_TRIAGE)
        return KERNEL_DUMP_OK;
    for (const kind_row &row : s_kinds) {
        if (row.kind == kind) {
            *reason = "this is " + std::string(row.name) + " (type " + std::to_string(kind) +
                      "), which is not supported, only small dumps (type 4)";
            return KERNEL_DUMP_KIND;
        }
    }
    *reason = "the dump type " + std::to_string(kind) + " is unknown";
    return KERNEL_DUMP_KIND;
}

static void read_header(const dump_file &file, kernel_dump *dump)
{
    dump->kind = file.at<uint32_t>(HEADER_KIND);
    dump->build = file.at<uint32_t>(HEADER_BUILD);
    dump->processors = file.at<uint32_t>(HEADER_PROCESSORS);
    dump->bug_check = file.at<uint32_t>(HEADER_BUG_CHECK);
    for (uint64_t i = 0; i < 4; i++)
        dump->parameters[i] = file.at<uint64_t>(HEADER_PARAMETERS + 8 * i);
    dump->crash_time_100ns = file.at<uint64_t>(HEADER_CRASH_TIME);
    dump->uptime_100ns = file.at<uint64_t>(HEADER_UPTIME);
}

/* Windows writes the mark as the last thing, so a dump that has it was written to its end. */
static enum kernel_dump_error check_whole(const dump_file &file, std::string *reason)
{
    if (!file.holds(HEADER_BYTES, TRIAGE_BYTES)) {
        *reason = "the file is cut off: it ends at " + std::to_string(file.size) +
                  " bytes, inside the fields that follow the header";
        return KERNEL_DUMP_CUT_OFF;
    }
    const uint32_t size = file.at<uint32_t>(TRIAGE_SIZE_OF_DUMP);
    const uint32_t valid = file.at<uint32_t>(TRIAGE_VALID_OFFSET);

    if (size > file.size) {
        *reason = "the file is cut off: " + std::to_string(file.size) + " of " +
                  std::to_string(size) + " bytes";
        return KERNEL_DUMP_CUT_OFF;
    }
    if (!file.holds(valid, 4))
        return outside(file, "the mark of a finished dump", valid, 4, reason);
    if (memcmp(file.bytes + valid, "TRGD", 4) != 0) {
        *reason = "the mark of a finished dump is missing at " + hex(valid);
        return KERNEL_DUMP_DAMAGED;
    }
    return KERNEL_DUMP_OK;
}

static enum kernel_dump_error read_context(const dump_file &file, kernel_dump *dump,
                                           std::string *reason)
{
    const uint32_t offset = file.at<uint32_t>(TRIAGE_CONTEXT_OFFSET);

    if (offset == 0) {
        *reason = "the dump holds no context";
        return KERNEL_DUMP_NO_CONTEXT;
    }
    if (!file.holds(offset, CONTEXT_BYTES))
        return outside(file, "the context", offset, CONTEXT_BYTES, reason);
    const uint32_t flags = file.at<uint32_t>(offset + CONTEXT_FLAGS);

    if ((flags & CONTEXT_CONTROL) != CONTEXT_CONTROL) {
        *reason = "the context at " + hex(offset) + " does not hold Rip and Rsp (flags " +
                  hex(flags) + ")";
        return KERNEL_DUMP_NO_CONTEXT;
    }
    dump->rsp = file.at<uint64_t>(offset + CONTEXT_RSP);
    dump->rip = file.at<uint64_t>(offset + CONTEXT_RIP);
    return KERNEL_DUMP_OK;
}

static enum kernel_dump_error read_stack(const dump_file &file, kernel_dump *dump,
                                         std::string *reason)
{
    const uint32_t offset = file.at<uint32_t>(TRIAGE_STACK_OFFSET);
    const uint32_t length = file.at<uint32_t>(TRIAGE_STACK_BYTES);

    dump->stack_start = file.at<uint64_t>(TRIAGE_STACK_START);
    if (!file.holds(offset, length))
        return outside(file, "the stack", offset, length, reason);
    if (dump->stack_start > UINT64_MAX - length) {
        *reason = "the stack of " + std::to_string(length) + " bytes at address " +
                  hex(dump->stack_start) + " does not fit into the address space";
        return KERNEL_DUMP_DAMAGED;
    }
    dump->stack.assign(file.bytes + offset, file.bytes + offset + length);
    return KERNEL_DUMP_OK;
}

static void append_utf8(std::string *text, uint32_t code)
{
    if (code < 0x80) {
        const bool breaks_text = code < 0x20 || code == 0x7F || code == '!' || code == '+';

        text->push_back(breaks_text ? '_' : (char)code);
        return;
    }
    const int more = code < 0x800 ? 1 : code < 0x10000 ? 2 : 3;
    static const uint8_t s_lead[] = {0, 0xC0, 0xE0, 0xF0};

    text->push_back((char)(s_lead[more] | (code >> (6 * more))));
    for (int i = more - 1; i >= 0; i--)
        text->push_back((char)(0x80 | ((code >> (6 * i)) & 0x3F)));
}

static std::string utf8_of(const dump_file &file, uint64_t offset, uint32_t chars)
{
    std::string text;

    for (uint32_t i = 0; i < chars; i++) {
        const uint32_t unit = file.at<uint16_t>(offset + 2 * i);
        const uint32_t next = i + 1 < chars ? file.at<uint16_t>(offset + 2 * (i + 1)) : 0u;

        if (unit >= 0xD800 && unit < 0xDC00 && next >= 0xDC00 && next < 0xE000) {
            append_utf8(&text, 0x10000 + ((unit - 0xD800) << 10) + (next - 0xDC00));
            i++;
        } else {
            append_utf8(&text, unit >= 0xD800 && unit < 0xE000 ? 0xFFFDu : unit);
        }
    }
    return text;
}

/* The file's name without folders and extension, from the counted text at offset. */
static enum kernel_dump_error read_name(const dump_file &file, const std::string &who,
                                        uint32_t offset, std::string *name, std::string *reason)
{
    if (!file.holds(offset, 4))
        return outside(file, "the name of " + who, offset, 4, reason);
    const uint32_t chars = file.at<uint32_t>(offset);
    const uint64_t text = (uint64_t)offset + 4;

    if (!file.holds(text, 2ull * chars))
        return outside(file, "the name of " + who, text, 2ull * chars, reason);
    uint32_t first = chars;
    uint32_t end = chars;

    while (first > 0 && file.at<uint16_t>(text + 2ull * (first - 1)) != '\\') {
        first--;
        if (chars - first > FILE_NAME_CHARS) {
            *reason = "the name of " + who + " at " + hex(offset) + " is too long";
            return KERNEL_DUMP_DAMAGED;
        }
        if (end == chars && file.at<uint16_t>(text + 2ull * first) == '.')
            end = first;
    }
    if (end == first)
        end = chars;
    *name = utf8_of(file, text + 2ull * first, end - first);
    return KERNEL_DUMP_OK;
}

static enum kernel_dump_error read_module(const dump_file &file, uint64_t entry,
                                          const std::string &who, kernel_dump *dump,
                                          std::string *reason)
{
    const uint64_t loaded_modules = file.at<uint64_t>(HEADER_LOADED_MODULES);
    kernel_dump_module module = {};
    enum kernel_dump_error error;

    module.base = file.at<uint64_t>(entry + DRIVER_BASE);
    module.bytes = file.at<uint32_t>(entry + DRIVER_BYTES);
    if (module.base > UINT64_MAX - module.bytes) {
        *reason = who + " of " + std::to_string(module.bytes) + " bytes at address " +
                  hex(module.base) + " does not fit into the address space";
        return KERNEL_DUMP_DAMAGED;
    }
    error =
        read_name(file, who, file.at<uint32_t>(entry + DRIVER_NAME_OFFSET), &module.name, reason);
    if (error != KERNEL_DUMP_OK)
        return error;
    /* The list's head is a variable of the kernel, so the image around it is the kernel's. */
    if (loaded_modules >= module.base && loaded_modules - module.base < module.bytes)
        module.name = "nt";
    else if (module.name.empty())
        module.name = "Unknown_Module_" + kernel_dump_address_text(module.base);
    dump->modules.push_back(module);
    return KERNEL_DUMP_OK;
}

static enum kernel_dump_error read_modules(const dump_file &file, kernel_dump *dump,
                                           std::string *reason)
{
    const uint32_t offset = file.at<uint32_t>(TRIAGE_DRIVERS_OFFSET);
    const uint32_t count = file.at<uint32_t>(TRIAGE_DRIVER_COUNT);
    const uint64_t length = (uint64_t)count * DRIVER_ENTRY_BYTES;

    if (!file.holds(offset, length))
        return outside(file, "the list of " + std::to_string(count) + " modules", offset, length,
                       reason);
    for (uint32_t i = 0; i < count; i++) {
        const std::string who = "module " + std::to_string(i);
        const enum kernel_dump_error error =
            read_module(file, offset + (uint64_t)i * DRIVER_ENTRY_BYTES, who, dump, reason);

        if (error != KERNEL_DUMP_OK)
            return error;
    }
    std::stable_sort(
        dump->modules.begin(), dump->modules.end(),
        [](const kernel_dump_module &a, const kernel_dump_module &b) { return a.base < b.base; });
    return KERNEL_DUMP_OK;
}

enum kernel_dump_error kernel_dump_read(const uint8_t *bytes, uint64_t size, kernel_dump *dump,
                                        std::string *reason)
{
    const dump_file file = {bytes, size};
    enum kernel_dump_error error;

    *dump = kernel_dump();
    reason->clear();
    error = check_signature(file, reason);
    if (error == KERNEL_DUMP_OK)
        error = check_kind(file, reason);
    if (error == KERNEL_DUMP_OK)
        error = check_whole(file, reason);
    if (error == KERNEL_DUMP_OK)
        error = read_context(file, dump, reason);
    if (error == KERNEL_DUMP_OK)
        error = read_stack(file, dump, reason);
    if (error == KERNEL_DUMP_OK)
        error = read_modules(file, dump, reason);
    if (error == KERNEL_DUMP_OK)
        read_header(file, dump);
    else
        *dump = kernel_dump();
    return error;
}

const kernel_dump_module *kernel_dump_module_at(const kernel_dump &dump, uint64_t address)
{
    auto next = std::upper_bound(
        dump.modules.begin(), dump.modules.end(), address,
        [](uint64_t value, const kernel_dump_module &module) { return value < module.base; });

    if (next == dump.modules.begin())
        return NULL;
    const kernel_dump_module &module = *(next - 1);

    return address - module.base < module.bytes ? &module : NULL;
}

static bool stack_holds(const kernel_dump &dump, uint64_t address)
{
    return address >= dump.stack_start && address - dump.stack_start <= dump.stack.size() &&
           dump.stack.size() - (address - dump.stack_start) >= 8;
}

uint64_t kernel_dump_stack_value(const kernel_dump &dump, uint64_t address)
{
    uint64_t value = 0;

    if (stack_holds(dump, address))
        memcpy(&value, dump.stack.data() + (address - dump.stack_start), sizeof value);
    return value;
}

std::vector<kernel_dump_frame> kernel_dump_walk(const kernel_dump &dump, size_t limit)
{
    std::vector<kernel_dump_frame> frames;

    if (limit > 0)
        frames.push_back({dump.rip, dump.rsp});
    for (uint64_t at = dump.rsp; frames.size() < limit && stack_holds(dump, at); at += 8) {
        const uint64_t value = kernel_dump_stack_value(dump, at);

        if (kernel_dump_module_at(dump, value) != NULL)
            frames.push_back({value, at + 8});
    }
    return frames;
}

std::string kernel_dump_address_text(uint64_t address)
{
    char text[24];

    snprintf(text, sizeof text, "%08x`%08x", (unsigned)(address >> 32), (unsigned)address);
    return text;
}

std::string kernel_dump_call_site(const kernel_dump &dump, uint64_t address)
{
    const kernel_dump_module *module = kernel_dump_module_at(dump, address);

    if (module == NULL)
        return "0x" + kernel_dump_address_text(address);
    return module->name + "+" + hex(address - module->base);
}
