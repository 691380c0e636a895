/* Reading of kernel dumps: the header, and modules and stack of all kinds of dumps. Every offset and
 * length of the file is checked before it is used. */
#include "kernel_dump_internal.h"

#include <algorithm>
#include <cstdio>

static constexpr uint32_t CONTEXT_CONTROL = 0x100001u;
static constexpr uint32_t CONTEXT_INTEGER = 0x100002u;

std::string kernel_dump_hex(uint64_t value)
{
    char text[24];

    snprintf(text, sizeof text, "0x%llx", static_cast<unsigned long long>(value));
    return text;
}

void kernel_dump_refuse(enum kernel_dump_error error, const std::string &reason)
{
    throw kernel_dump_refusal{error, reason};
}

void kernel_dump_damaged(const std::string &reason)
{
    kernel_dump_refuse(KERNEL_DUMP_DAMAGED, reason);
}

void kernel_dump_truncated(const file_span &file, const std::string &where)
{
    kernel_dump_refuse(KERNEL_DUMP_CUT_OFF, "the file is truncated: it ends at " +
                                                std::to_string(file.size) + " bytes, " + where);
}

void kernel_dump_check(const file_span &file, const std::string &what, uint64_t offset,
                       uint64_t length)
{
    if (!file.holds(offset, length))
        kernel_dump_damaged(what + " (" + std::to_string(length) + " bytes at " +
                            kernel_dump_hex(offset) + ") reaches outside the file of " +
                            std::to_string(file.size) + " bytes");
}

static void check_kind_of_file(const file_span &file)
{
    const std::string start(reinterpret_cast<const char *>(file.bytes),
                            static_cast<size_t>(std::min<uint64_t>(file.size, 8)));

    if (start.compare(0, 4, "MDMP") == 0)
        kernel_dump_refuse(KERNEL_DUMP_USER_MODE,
                           "a dump of a process, expected one of the kernel");
    if (start == "PAGEDUMP")
        kernel_dump_refuse(KERNEL_DUMP_32_BIT, "a dump of 32-bit Windows, expected x64");
    if (start.size() == 8 && start != "PAGEDU64")
        kernel_dump_refuse(KERNEL_DUMP_NOT_A_DUMP,
                           "not a dump: it does not begin with \"PAGEDU64\"");
    if (file.size < DUMP_HEADER_BYTES)
        kernel_dump_refuse(KERNEL_DUMP_CUT_OFF,
                           "the file is truncated: " + std::to_string(file.size) +
                               " bytes, and the header alone has " +
                               std::to_string(DUMP_HEADER_BYTES));
    const uint32_t machine = file.at<uint32_t>(DUMP_MACHINE);

    if (machine != DUMP_MACHINE_X64)
        kernel_dump_refuse(KERNEL_DUMP_MACHINE, "the machine type " + kernel_dump_hex(machine) +
                                                    " is not supported, only x64 (0x8664)");
}

static void read_header(const file_span &file, kernel_dump *dump)
{
    dump->kind = file.at<uint32_t>(DUMP_KIND);
    dump->directory_table = file.at<uint64_t>(DUMP_DIRECTORY_TABLE);
    dump->loaded_modules = file.at<uint64_t>(DUMP_LOADED_MODULES);
    dump->build = file.at<uint32_t>(DUMP_BUILD);
    dump->processors = file.at<uint32_t>(DUMP_PROCESSORS);
    dump->bug_check = file.at<uint32_t>(DUMP_BUG_CHECK);
    for (uint64_t i = 0; i < 4; i++)
        dump->parameters[i] = file.at<uint64_t>(DUMP_PARAMETERS + 8 * i);
    dump->crash_time_100ns = file.at<uint64_t>(DUMP_CRASH_TIME);
    dump->uptime_100ns = file.at<uint64_t>(DUMP_UPTIME);
}

void kernel_dump_read_context(const file_span &file, uint64_t offset, kernel_dump *dump)
{
    kernel_dump_check(file, "the context", offset, CONTEXT_BYTES);
    const uint32_t flags = file.at<uint32_t>(offset + CONTEXT_FLAGS);

    if ((flags & CONTEXT_CONTROL) != CONTEXT_CONTROL)
        kernel_dump_refuse(KERNEL_DUMP_NO_CONTEXT, "the context at " + kernel_dump_hex(offset) +
                                                       " does not contain Rip and Rsp (flags " +
                                                       kernel_dump_hex(flags) + ")");
    for (uint64_t i = 0; i < 16; i++)
        dump->general[i] = file.at<uint64_t>(offset + CONTEXT_GENERAL + 8 * i);
    dump->has_general = (flags & CONTEXT_INTEGER) == CONTEXT_INTEGER;
    dump->rsp = dump->general[UNWIND_RSP];
    dump->rip = file.at<uint64_t>(offset + CONTEXT_RIP);
}

static void append_utf8(std::string *text, uint32_t code)
{
    if (code < 0x80) {
        const bool breaks_text = code < 0x20 || code == 0x7F || code == '!' || code == '+';

        text->push_back(breaks_text ? '_' : static_cast<char>(code));
        return;
    }
    const int more = code < 0x800 ? 1 : code < 0x10000 ? 2 : 3;
    static const uint8_t s_lead[] = {0, 0xC0, 0xE0, 0xF0};

    text->push_back(static_cast<char>(s_lead[more] | (code >> (6 * more))));
    for (int i = more - 1; i >= 0; i--)
        text->push_back(static_cast<char>(0x80 | ((code >> (6 * i)) & 0x3F)));
}

static std::string utf8_of(const std::u16string &wide)
{
    std::string text;

    for (size_t i = 0; i < wide.size(); i++) {
        const uint32_t unit = wide[i];
        const uint32_t next = i + 1 < wide.size() ? wide[i + 1] : 0u;

        if (unit >= 0xD800 && unit < 0xDC00 && next >= 0xDC00 && next < 0xE000) {
            append_utf8(&text, 0x10000 + ((unit - 0xD800) << 10) + (next - 0xDC00));
            i++;
        } else {
            append_utf8(&text, unit >= 0xD800 && unit < 0xE000 ? 0xFFFDu : unit);
        }
    }
    return text;
}

bool kernel_dump_file_name(const std::u16string &path_end, std::string *name, std::string *whole)
{
    const size_t folder = path_end.rfind(u'\\');
    const std::u16string file =
        folder == std::u16string::npos ? path_end : path_end.substr(folder + 1);
    const size_t extension = file.rfind(u'.');

    if (file.size() > KERNEL_DUMP_FILE_NAME_CHARS)
        return false;
    *whole = utf8_of(file);
    /* A name that is an extension as a whole is kept. */
    *name = utf8_of(extension == 0 ? file : file.substr(0, extension));
    return true;
}

bool kernel_dump_add_module(kernel_dump *dump, const kernel_dump_module &module)
{
    if (module.base > UINT64_MAX - module.bytes)
        return false;
    dump->modules.push_back(module);
    /* The list's head is a variable of the kernel, so the image around it is the kernel's. */
    if (dump->loaded_modules >= module.base && dump->loaded_modules - module.base < module.bytes)
        dump->modules.back().name = "nt";
    else if (module.name.empty())
        dump->modules.back().name = "Unknown_Module_" + kernel_dump_address_text(module.base);
    return true;
}

static void read_kind(const file_span &file, kernel_dump *dump)
{
    switch (dump->kind) {
    case KERNEL_DUMP_KIND_TRIAGE: kernel_dump_read_triage(file, dump); break;
    case KERNEL_DUMP_KIND_FULL:
    case KERNEL_DUMP_KIND_KERNEL:
    case KERNEL_DUMP_KIND_BITMAP_FULL:
    case KERNEL_DUMP_KIND_BITMAP_KERNEL: kernel_dump_read_memory(file, dump); break;
    default:
        kernel_dump_refuse(KERNEL_DUMP_KIND,
                           "the dump type " + std::to_string(dump->kind) + " is unknown");
    }
}

enum kernel_dump_error kernel_dump_read(const uint8_t *bytes, uint64_t size, kernel_dump *dump,
                                        std::string *reason)
{
    const file_span file = {bytes, size};

    *dump = kernel_dump();
    reason->clear();
    try {
        check_kind_of_file(file);
        read_header(file, dump);
        read_kind(file, dump);
    } catch (const kernel_dump_refusal &refusal) {
        *dump = kernel_dump();
        *reason = refusal.reason;
        return refusal.error;
    }
    std::stable_sort(
        dump->modules.begin(), dump->modules.end(),
        [](const kernel_dump_module &a, const kernel_dump_module &b) { return a.base < b.base; });
    return KERNEL_DUMP_OK;
}

const kernel_dump_module *kernel_dump_module_at(const kernel_dump &dump, uint64_t address)
{
    auto next = std::upper_bound(
        dump.modules.begin(), dump.modules.end(), address,
        [](uint64_t value, const kernel_dump_module &module) { return value < module.base; });

    if (next == dump.modules.begin())
        return nullptr;
    const kernel_dump_module &module = *(next - 1);

    return address - module.base < module.bytes ? &module : nullptr;
}

std::string kernel_dump_address_text(uint64_t address)
{
    char text[24];

    snprintf(text, sizeof text, "%08x`%08x", static_cast<unsigned>(address >> 32),
             static_cast<unsigned>(address));
    return text;
}

std::string kernel_dump_call_site(const kernel_dump &dump, uint64_t address)
{
    const kernel_dump_module *module = kernel_dump_module_at(dump, address);

    if (module == nullptr)
        return "0x" + kernel_dump_address_text(address);
    return module->name + "+" + kernel_dump_hex(address - module->base);
}
