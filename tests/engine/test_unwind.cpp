/* Tests of the unwinder: step by step against that of Windows, on damaged images, and on stacks. */
#include "dump_writer/dump_writer.h"
#include "kernel_dump/kernel_dump.h"

#include <windows.h>

#include <fstream>
#include <map>

#include <gtest/gtest.h>

/* Above the largest frames of the libraries. */
static constexpr size_t STACK_BYTES = 0x400000;

struct loaded_image {
    kernel_image image;
    std::vector<uint8_t> bytes; /* of the file */
    HMODULE module = nullptr;
    uint64_t base = 0;
};

static std::string text_of(const char *fault)
{
    return fault != nullptr ? fault : "";
}

/* Whether the fault contains the expected text; an empty one expects none. */
static bool is_like(const char *fault, const char *expected)
{
    return *expected == '\0' ? fault == nullptr
                             : text_of(fault).find(expected) != std::string::npos;
}

/* The library, loaded, and its file. */
static const loaded_image &load(const std::wstring &name)
{
    static std::map<std::wstring, loaded_image> s_loaded;
    loaded_image &loaded = s_loaded[name];
    wchar_t path[MAX_PATH] = {};

    if (loaded.module != nullptr)
        return loaded;
    loaded.module = LoadLibraryW(name.c_str());
    GetModuleFileNameW(loaded.module, path, MAX_PATH);
    std::ifstream file(path, std::ios::binary | std::ios::ate);

    loaded.base = reinterpret_cast<uint64_t>(loaded.module);
    loaded.bytes.resize(static_cast<size_t>(file.tellg()));
    file.seekg(0);
    file.read(reinterpret_cast<char *>(loaded.bytes.data()),
              static_cast<std::streamsize>(loaded.bytes.size()));
    EXPECT_EQ(text_of(kernel_image_open("one.sys", loaded.bytes.data(), loaded.bytes.size(),
                                        &loaded.image)),
              "");
    return loaded;
}

/* All values of the stack differ. */
static const std::vector<uint64_t> &stack_values()
{
    static std::vector<uint64_t> values;

    for (uint64_t i = values.size(); i < STACK_BYTES / 8; i++)
        values.push_back(0x1111000000000001ull + (i << 8));
    return values;
}

static unwind_stack whole_stack()
{
    const std::vector<uint64_t> &values = stack_values();

    return {reinterpret_cast<uint64_t>(values.data()),
            reinterpret_cast<const uint8_t *>(values.data()), STACK_BYTES};
}

/* Each register is an address in the stack, since each may be a frame register. */
static unwind_registers some_registers(uint64_t rip)
{
    unwind_registers registers;

    for (uint64_t i = 0; i < 16; i++)
        registers.general[i] = whole_stack().start + 0x100000 + 0x100 * i;
    registers.rip = rip;
    registers.known = 0xFFFF;
    return registers;
}

static unwind_registers step_of_windows(const unwind_registers &from)
{
    CONTEXT context = {};
    unwind_registers to;
    DWORD64 base = 0, frame;
    void *data;

    memcpy(&context.Rax, from.general, sizeof from.general);
    context.Rip = from.rip;
    const PRUNTIME_FUNCTION function = RtlLookupFunctionEntry(from.rip, &base, nullptr);

    if (function != nullptr) {
        RtlVirtualUnwind(0, base, from.rip, function, &context, &data, &frame, nullptr);
    } else {
        context.Rip = *reinterpret_cast<const uint64_t *>(context.Rsp);
        context.Rsp += 8;
    }
    memcpy(to.general, &context.Rax, sizeof to.general);
    to.rip = context.Rip;
    return to;
}

static bool same(const unwind_registers &a, const unwind_registers &b)
{
    return a.rip == b.rip && memcmp(a.general, b.general, sizeof a.general) == 0;
}

typedef std::map<uint32_t, std::string> listing;

static uint64_t preferred_base(const loaded_image &loaded)
{
    uint64_t base;

    memcpy(&base, &loaded.bytes[loaded.bytes[0x3C] + 0x30], sizeof base);
    return base;
}

/* The instructions of a library, "36d621000:\tret", by their offsets in the image. */
static listing instructions_of(const std::string &name, const loaded_image &loaded)
{
    std::ifstream file(LISTINGS + name + ".txt");
    listing instructions;
    const uint64_t preferred = preferred_base(loaded);

    for (std::string line; std::getline(file, line);) {
        char *end;
        const uint64_t address = strtoull(line.c_str(), &end, 16);

        if (line[0] == ' ' && *end == ':')
            instructions[static_cast<uint32_t>(address - preferred)] = end + 2;
    }
    return instructions;
}

static bool begins(const std::string &text, const char *with)
{
    return text.rfind(with, 0) == 0;
}

/* Executes "add $0x28,%rsp" or "pop %rbx". Result: false: another instruction. */
static bool execute(const std::string &text, unwind_registers *registers)
{
    static const char *const names[] = {"rax", "rcx", "rdx", "rbx", "rsp", "rbp", "rsi", "rdi",
                                        "r8",  "r9",  "r10", "r11", "r12", "r13", "r14", "r15"};
    uint64_t *rsp = &registers->general[UNWIND_RSP];

    if (begins(text, "add ") && text.find(",%rsp") != std::string::npos) {
        *rsp += strtoull(text.c_str() + text.find('$') + 1, nullptr, 0);
        return true;
    }
    for (size_t i = 0; begins(text, "pop ") && i < 16; i++)
        if (text.substr(text.find('%') + 1) == names[i]) {
            EXPECT_TRUE(whole_stack().read(*rsp, &registers->general[i]));
            *rsp += 8;
            return true;
        }
    return false;
}

/* The unwinder of this Windows sees no epilogue that ends in a jump to another function: there the
 * rest of it is executed. Result: false: Rip is in none. */
static bool run_to_jump(const listing &instructions, uint32_t rva, unwind_registers *registers)
{
    auto at = instructions.find(rva);
    unwind_registers scratch = *registers;
    const bool inside = at != instructions.begin() && execute(std::prev(at)->second, &scratch);

    if (!inside && !begins(at->second, "pop "))
        return false;
    while (at != instructions.end() && begins(at->second, "pop "))
        (void)execute(at++->second, registers);
    if (at == instructions.end() || at->second.find("jmp ") == std::string::npos)
        return false;
    EXPECT_TRUE(whole_stack().read(registers->general[UNWIND_RSP], &registers->rip));
    registers->general[UNWIND_RSP] += 8;
    return true;
}

/* Whether it is a jump to an epilogue, which the unwinder of this Windows follows as if the epilogue
 * began there: the caller is the same in a run, but not with registers of any value. */
static bool jumps_to_epilogue(const listing &instructions, const loaded_image &loaded,
                              const std::string &text)
{
    if (!begins(text, "jmp "))
        return false;
    const uint64_t target = strtoull(text.c_str() + 4, nullptr, 16);
    const auto at = instructions.find(static_cast<uint32_t>(target - preferred_base(loaded)));

    return at != instructions.end() &&
           (begins(at->second, "ret") || begins(at->second, "pop ") ||
            (begins(at->second, "add ") && at->second.find(",%rsp") != std::string::npos));
}

/* At each instruction of two libraries. */
TEST(unwind, test_against_windows)
{
    for (const std::string name : {"unwind_functions", "dbgeng"}) {
        const loaded_image &loaded = load(std::wstring(name.begin(), name.end()).c_str());
        const listing instructions = instructions_of(name, loaded);
        size_t jumps = 0;

        EXPECT_GT(instructions.size(), 1000u);
        for (const auto &instruction : instructions) {
            const uint32_t rva = instruction.first;

            if (jumps_to_epilogue(instructions, loaded, instruction.second))
                continue;
            unwind_registers ours = some_registers(loaded.base + rva), theirs = ours;
            const unwind_registers windows = step_of_windows(ours);
            const char *fault = unwind_step(loaded.image, loaded.base, whole_stack(), &ours);

            if (!run_to_jump(instructions, rva, &theirs))
                theirs = windows;
            jumps += !same(theirs, windows);
            ASSERT_EQ(text_of(fault), "") << name << std::hex << " " << rva;
            ASSERT_TRUE(same(ours, theirs))
                << name << std::hex << " " << rva << " " << instruction.second << ": Rip "
                << ours.rip << " " << theirs.rip;
        }
        EXPECT_GT(jumps, 0u) << name;
    }
}

/* The place in the image of an offset in a function. */
static uint32_t rva_of(const char *function, uint32_t offset)
{
    const loaded_image &loaded = load(L"unwind_functions");

    return static_cast<uint32_t>(
               reinterpret_cast<uint64_t>(GetProcAddress(loaded.module, function)) - loaded.base) +
           offset;
}

/* Offsets from the mark of the headers; value; its bytes; size of the file, 0: all; the error */
static const struct header_row {
    const char *row;
    int64_t place;
    uint32_t value;
    size_t bytes;
    size_t size;
    const char *fault;
} s_header_rows[] = {
    {"empty",                 0,    0,          0, 1,      "not an image"       },
    {"mark beyond the file",  -1,   0xFFFFFFF0, 4, 0,      "not an image"       },
    {"another mark",          0,    0,          4, 0,      "not an image"       },
    {"32 bits",               0x18, 0x10B,      2, 0,      "not an image of x64"},
    {"another machine",       4,    0xAA64,     2, 0,      "not an image of x64"},
    {"too many sections",     6,    97,         2, 0,      "sections"           },
    {"headers end",           0x14, 0xFFFF,     2, 0x400,  "sections"           },
    {"truncated",             0,    0x4550,     4, 0x1000, "truncated"          },
    {"no function table",     0x84, 3,          4, 0,      ""                   },
    {"table beyond the file", 0xA0, 0xFFFFFFF0, 4, 0,      "function table"     },
    {"table too long",        0xA4, UINT32_MAX, 4, 0,      "function table"     },
};

TEST(unwind, test_damaged_headers)
{
    for (const header_row &row : s_header_rows) {
        std::vector<uint8_t> bytes = load(L"unwind_functions").bytes;
        const uint32_t pe = bytes[0x3C];
        kernel_image image;

        dump_put(&bytes, row.place < 0 ? 0x3C : pe + static_cast<uint64_t>(row.place), row.value,
                 row.bytes);
        bytes.resize(row.size != 0 ? row.size : bytes.size());
        const char *fault = kernel_image_open("a.sys", bytes.data(), bytes.size(), &image);

        EXPECT_TRUE(is_like(fault, row.fault)) << row.row << ": " << text_of(fault);
    }
}

/* The place in the file of the entry of the function table that contains the offset. */
static uint64_t place_of_entry(const kernel_image &image, uint32_t rva)
{
    const uint8_t *entry = image.functions;

    while (kernel_image_entry(entry).end <= rva)
        entry += 12;
    return static_cast<uint64_t>(entry - image.bytes);
}

/* Offset in the unwind information of a part of a function, or -4 for that of its place in the function
 * table; value, its bytes, 0: its own place; the error */
static const struct code_row {
    const char *row;
    int64_t place;
    uint32_t value;
    size_t bytes;
    const char *fault;
} s_code_rows[] = {
    {"unknown version",         0,  0x23,       1, "version"          },
    {"unknown operation",       5,  0x0F,       1, "codes are invalid"},
    {"operands missing",        2,  1,          1, "codes are invalid"},
    {"frame register unknown",  3,  0x05,       1, "frame register"   },
    {"parent without codes",    16, 0xFFFFFFF0, 4, "outside the image"},
    {"its own parent",          16, 0,          0, "chained too often"},
    {"codes outside",           -4, 0xFFFFFFF0, 4, "outside the image"},
    {"another entry's outside", -4, 0xFFFFFFF1, 4, "outside the image"},
};

TEST(unwind, test_damaged_codes)
{
    const uint32_t rva = rva_of("unwind_part", 6);
    const uint64_t base = 0x140000000;

    for (const code_row &row : s_code_rows) {
        std::vector<uint8_t> bytes = load(L"unwind_functions").bytes;
        unwind_registers now = some_registers(base + rva);
        const unwind_registers before = now;
        kernel_image image;

        ASSERT_EQ(text_of(kernel_image_open("a.sys", bytes.data(), bytes.size(), &image)), "");
        const uint64_t entry = place_of_entry(image, rva);
        const uint32_t unwind = kernel_image_entry(bytes.data() + entry).unwind;
        const uint64_t info =
            static_cast<uint64_t>(kernel_image_at(image, unwind, 20) - bytes.data());

        dump_put(&bytes, row.place < 0 ? entry + 8 : info + static_cast<uint64_t>(row.place),
                 row.bytes != 0 ? row.value : unwind, row.bytes != 0 ? row.bytes : 4);
        now.known = 1u << UNWIND_RSP;
        const char *fault = unwind_step(image, base, whole_stack(), &now);

        EXPECT_TRUE(is_like(fault, row.fault)) << row.row << ": " << text_of(fault);
        EXPECT_TRUE(same(now, before)) << row.row;
    }
}

/* Offsets of return addresses, after the prologue of each. */
static const uint32_t PARENT = 5, SECOND = 6, INTERRUPT = 2, SAVES = 0x22;

/* Modules of a crashed machine, all loaded from the file of the test's library. */
struct loaded_module {
    const char16_t *path;
    uint64_t base;
    const char *file;
};
static const loaded_module s_modules[] = {
    {u"\\SystemRoot\\system32\\ntoskrnl.exe", 0xFFFFF80000000000, "NTKRNLMP.EXE"},
    {u"\\SystemRoot\\one.sys",                0xFFFFF80100000000, "one.sys"     },
    {u"\\SystemRoot\\two.sys",                0xFFFFF80200000000, "Two.sys"     },
};

static uint64_t address(size_t module, const char *function, uint32_t offset)
{
    return s_modules[module].base + rva_of(function, offset);
}

/* The crash is in one.sys, in a function of six locals and a saved register, two of the locals stale;
 * its caller is a function of the kernel with eight locals and a saved register, one of them stale, and
 * this one is called by caller. */
static std::vector<uint64_t> stack_of_two(uint64_t caller)
{
    const uint64_t two = address(2, "unwind_second", SECOND);

    return {1,    two,    3,   two,  5,    6,    7,    address(0, "unwind_second", SECOND),
            0x11, 0x12,   two, 0x14, 0x15, 0x16, 0x17, 0x18,
            0x19, caller, two, 0x20};
}

/* The same after an interrupt with an error code at address. */
static std::vector<uint64_t> stack_of_interrupt(uint64_t address, uint64_t rsp)
{
    std::vector<uint64_t> stack = {0x31, 0x32, address, 0x10, 0x246, rsp, 0x18};
    const std::vector<uint64_t> before = stack_of_two(0);

    stack.insert(stack.end(), before.begin(), before.end());
    return stack;
}

/* A stale address in a function with a frame register. The register of the crash would lead past a driver
 * to a function of the kernel. */
static std::vector<uint64_t> stack_of_frame_register()
{
    std::vector<uint64_t> stack(14);

    stack[0] = address(0, "unwind_saves", SAVES);
    stack.push_back(address(2, "unwind_second", SECOND));
    stack.push_back(0);
    stack.push_back(address(0, "unwind_second", SECOND));
    return stack;
}

static std::string frames_of(const kernel_dump &dump, const std::vector<kernel_image> &images)
{
    static const char *const marks[] = {"", " ", " ?"};
    std::string text;

    for (const kernel_dump_frame &frame : kernel_dump_walk(dump, 9, images))
        text += marks[frame.found] + kernel_dump_module_at(dump, frame.instruction)->name;
    return text;
}

TEST(unwind, test_stacks)
{
    const loaded_image &loaded = load(L"unwind_functions");
    const uint64_t crash = address(1, "unwind_parent", PARENT);
    const uint64_t interrupt = address(1, "unwind_interrupt", INTERRUPT);
    const std::vector<uint64_t> whole = stack_of_two(0);
    std::vector<uint64_t> ends = whole, called_at_end = whole;

    ends.resize(17);
    called_at_end[7] = address(0, "unwind_part", 0) - 1;
    /* clang-format off */
    /* images: the first letters of the modules whose images are at hand; "?" before a scanned frame */
    const struct {
        const char *row;
        uint64_t rip;
        std::vector<uint64_t> stack;
        const char *images, *frames;
    } rows[] = {
        {"no images", crash, whole, "", "one ?two ?two ?nt ?two ?two"},
        {"all images, to the start of the thread", crash, whole, "not", "one nt"},
        {"kernel's image missing", crash, whole, "ot", "one nt ?two ?two"},
        {"crashed module's image missing", crash, whole, "n", "one ?two ?two ?nt ?two ?two"},
        {"return address overwritten", crash, stack_of_two(0x4141414141414141), "not", "one nt ?two"},
        {"stack ends in a frame", crash, ends, "not", "one nt ?two"},
        {"interrupt", interrupt,
         stack_of_interrupt(address(2, "unwind_parent", PARENT), 0xFFFF850000001038), "not", "one two nt"},
        {"call by a process", interrupt, stack_of_interrupt(0x7FF612345678, 0x12FF00), "not", "one"},
        {"frame register after a scan", crash, stack_of_frame_register(), "n", "one ?nt ?two ?nt"},
        {"call at the end of a function", crash, called_at_end, "not", "one nt ?two"},
    };
    /* clang-format on */

    for (const auto &row : rows) {
        std::vector<kernel_image> images;
        dump_model model;
        kernel_dump dump;
        std::string reason;

        model.modules.clear();
        for (const loaded_module &module : s_modules) {
            model.modules.push_back({module.path, module.base, loaded.image.image_bytes});
            if (strchr(row.images, tolower(module.file[0])) == nullptr)
                continue;
            images.push_back(loaded.image);
            images.back().file = module.file;
        }
        model.loaded_modules = s_modules[0].base + 0x1000;
        model.rip = row.rip;
        model.stack = row.stack;
        const std::vector<uint8_t> bytes = dump_build(model);

        ASSERT_EQ(kernel_dump_read(bytes.data(), bytes.size(), &dump, &reason), KERNEL_DUMP_OK);
        dump.general[5] = dump.stack_start + 0x18;
        EXPECT_EQ(frames_of(dump, images), row.frames) << row.row;
    }
}
