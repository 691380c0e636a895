/* The reader of dumps: what it finds, where it stops, what it refuses. */
#include "dump_builder.h"
#include "kernel_dump.h"

#include <cstdlib>
#include <fstream>
#include <iterator>

#include <gtest/gtest.h>

/* Addresses in the model's modules. */
#define NT_BASE  0xFFFFF80000000000ull
#define ONE_BASE 0xFFFFF80100000000ull
#define TWO_BASE 0xFFFFF80100010000ull
#define TWO_END  0xFFFFF80100018000ull
#define NT       (NT_BASE + 0x107)
#define ONE      (ONE_BASE + 0x2A)
#define TWO      (TWO_BASE + 1)

static std::string call_sites(const kernel_dump &dump, size_t limit)
{
    std::string text;

    for (const kernel_dump_frame &frame : kernel_dump_walk(dump, limit))
        text += (text.empty() ? "" : " ") + kernel_dump_call_site(dump, frame.instruction);
    return text;
}

static enum kernel_dump_error read(const std::vector<uint8_t> &bytes, kernel_dump *dump,
                                   std::string *reason)
{
    return kernel_dump_read(bytes.data(), bytes.size(), dump, reason);
}

static std::vector<uint8_t> read_file(const std::string &path)
{
    std::ifstream file(path, std::ios::binary);

    return std::vector<uint8_t>(std::istreambuf_iterator<char>(file), {});
}

TEST(kernel_dump, test_facts)
{
    kernel_dump dump;
    std::string reason;

    ASSERT_EQ(read(dump_build(dump_model()), &dump, &reason), KERNEL_DUMP_OK) << reason;
    EXPECT_EQ(reason, "");
    EXPECT_EQ(dump.kind, 4u);
    EXPECT_EQ(dump.build, 19041u);
    EXPECT_EQ(dump.processors, 4u);
    EXPECT_EQ(dump.bug_check, 0x1000007Eu);
    EXPECT_EQ(dump.parameters[0], 0xC0000005u);
    EXPECT_EQ(dump.parameters[3], 0xC0000008u);
    EXPECT_EQ(dump.crash_time_100ns, 0x01D707F0A5C3E700u);
    EXPECT_EQ(dump.uptime_100ns, 37000000u);
    ASSERT_EQ(dump.modules.size(), 3u);
    EXPECT_EQ(dump.modules[1].name, "one");
    EXPECT_EQ(dump.modules[1].base, 0xFFFFF80100000000u);
    EXPECT_EQ(dump.modules[1].bytes, 0x10000u);
}

typedef std::vector<uint64_t> W;

/* Rip, Rsp from the saved stack's start, its values, bytes that the last one lacks, frames asked
 * for, call sites */
static const struct walk_row {
    const char *row;
    uint64_t rip;
    int64_t rsp;
    W stack;
    uint32_t cut;
    size_t limit;
    const char *sites;
} s_walk_rows[] = {
    {"Rsp at start",  ONE,      0,  W({TWO, 7, NT}),            0, 99, "one+0x2a two+0x1 nt+0x107"},
    {"below Rsp",     ONE,      8,  W({TWO, NT}),               0, 99, "one+0x2a nt+0x107"        },
    {"last value",    ONE,      16, W({0, 0, TWO}),             0, 99, "one+0x2a two+0x1"         },
    {"Rsp at end",    ONE,      24, W({TWO, 0, TWO}),           0, 99, "one+0x2a"                 },
    {"Rsp behind it", ONE,      32, W({TWO, 0, TWO}),           0, 99, "one+0x2a"                 },
    {"Rsp before it", ONE,      -8, W({TWO, TWO}),              0, 99, "one+0x2a"                 },
    {"Rsp unaligned", ONE,      4,  W({TWO << 32, TWO >> 32}),  0, 99, "one+0x2a two+0x1"         },
    {"across two",    ONE,      0,  W({TWO << 32, TWO >> 32}),  0, 99, "one+0x2a"                 },
    {"half a value",  ONE,      0,  W({NT, TWO}),               1, 99, "one+0x2a nt+0x107"        },
    {"no stack",      ONE,      0,  W(),                        0, 99, "one+0x2a"                 },
    {"value twice",   ONE,      0,  W({TWO, TWO}),              0, 99, "one+0x2a two+0x1 two+0x1" },
    {"none asked",    ONE,      0,  W({TWO}),                   0, 0,  ""                         },
    {"one asked",     ONE,      0,  W({TWO}),                   0, 1,  "one+0x2a"                 },
    {"two asked",     ONE,      0,  W({TWO, NT}),               0, 2,  "one+0x2a two+0x1"         },
    {"first byte",    ONE,      0,  W({TWO_BASE}),              0, 99, "one+0x2a two+0x0"         },
    {"last byte",     ONE,      0,  W({TWO_END - 1}),           0, 99, "one+0x2a two+0x7fff"      },
    {"behind all",    ONE,      0,  W({TWO_END}),               0, 99, "one+0x2a"                 },
    {"before all",    ONE,      0,  W({NT_BASE - 1}),           0, 99, "one+0x2a"                 },
    {"between",       ONE,      0,  W({ONE_BASE - 1}),          0, 99, "one+0x2a"                 },
    {"neighbours",    TWO_BASE, 0,  W({TWO_BASE - 1}),          0, 99, "two+0x0 one+0xffff"       },
    {"no addresses",  ONE,      0,  W({0, UINT64_MAX, 0x7FF7}), 0, 99, "one+0x2a"                 },
    {"Rip nowhere",   16,       0,  W({}),                      0, 99, "0x00000000`00000010"      },
};

TEST(kernel_dump, test_walk)
{
    for (const walk_row &row : s_walk_rows) {
        dump_model model;
        kernel_dump dump;
        std::string reason;

        model.rip = row.rip;
        model.rsp = model.stack_start + (uint64_t)row.rsp;
        model.stack = row.stack;
        model.stack_cut = row.cut;
        EXPECT_EQ(read(dump_build(model), &dump, &reason), KERNEL_DUMP_OK) << row.row << reason;
        EXPECT_EQ(call_sites(dump, row.limit), row.sites) << row.row;
    }
}

/* The saved stack and a module may reach up to the last address but one. */
TEST(kernel_dump, test_walk_top_of_address_space)
{
    dump_model model;
    kernel_dump dump;
    std::string reason;

    model.modules.push_back({u"top.sys", UINT64_MAX - 0xFF, 0xFF});
    model.stack = {0, UINT64_MAX - 1};
    model.stack_start = UINT64_MAX - 16;
    model.rsp = model.stack_start;
    ASSERT_EQ(read(dump_build(model), &dump, &reason), KERNEL_DUMP_OK) << reason;
    EXPECT_EQ(call_sites(dump, 99), "one+0x1234 top+0xfe");
}

TEST(kernel_dump, test_module_at_overlap)
{
    dump_model model;
    kernel_dump dump;
    std::string reason;

    model.modules.push_back({u"inner.sys", 0xFFFFF80100001000, 0x100});
    ASSERT_EQ(read(dump_build(model), &dump, &reason), KERNEL_DUMP_OK) << reason;
    EXPECT_EQ(kernel_dump_call_site(dump, 0xFFFFF80100001010), "inner+0x10");
    EXPECT_EQ(kernel_dump_call_site(dump, 0xFFFFF80100000010), "one+0x10");
}

TEST(kernel_dump, test_stack_value)
{
    dump_model model;
    kernel_dump dump;
    std::string reason;

    model.stack = {0x1122334455667788, 0x99};
    ASSERT_EQ(read(dump_build(model), &dump, &reason), KERNEL_DUMP_OK) << reason;
    EXPECT_EQ(kernel_dump_stack_value(dump, model.stack_start), 0x1122334455667788u);
    EXPECT_EQ(kernel_dump_stack_value(dump, model.stack_start + 8), 0x99u);
    EXPECT_EQ(kernel_dump_stack_value(dump, model.stack_start + 9), 0u);
    EXPECT_EQ(kernel_dump_stack_value(dump, model.stack_start - 1), 0u);
}

typedef std::u16string u16;

static const struct name_row {
    const char *row;
    std::u16string path;
    const char *name;
} s_name_rows[] = {
    {"no folder",             u"one.sys",                 "one"                             },
    {"no extension",          u"\\Driver\\one",           "one"                             },
    {"two points",            u"\\a\\one.two.sys",        "one.two"                         },
    {"point in a folder",     u"\\a.b\\one",              "one"                             },
    {"case is kept",          u"\\a\\FLTMGR.SYS",         "FLTMGR"                          },
    {"only an extension",     u"\\a\\.sys",               ".sys"                            },
    {"point at the end",      u"\\a\\one.",               "one"                             },
    {"the kernel's file",     u"\\a\\ntoskrnl.exe",       "ntoskrnl"                        },
    {"two bytes",             u"\\a\\\u00E9t\u00E9.sys",  "\xC3\xA9t\xC3\xA9"               },
    {"three bytes",           u"\\a\\\u9A71.sys",         "\xE9\xA9\xB1"                    },
    {"four bytes",            u"\\a\\\U0001F600.sys",     "\xF0\x9F\x98\x80"                },
    {"half a pair",           u16({0xD800, 'x'}),         "\xEF\xBF\xBDx"                   },
    {"pair cut by the point", u16({0xD800, '.', 0xDC00}), "\xEF\xBF\xBD"                    },
    {"line feed, ! and +",    u"\\a\\x\ny!z+w.sys",       "x_y_z_w"                         },
    {"empty",                 u"",                        "Unknown_Module_ffffd000`00000000"},
    {"only a folder",         u"\\a\\",                   "Unknown_Module_ffffd000`00000000"},
};

TEST(kernel_dump, test_names)
{
    for (const name_row &row : s_name_rows) {
        dump_model model;
        kernel_dump dump;
        std::string reason;

        model.modules.push_back({row.path, 0xFFFFD00000000000, 0x1000});
        EXPECT_EQ(read(dump_build(model), &dump, &reason), KERNEL_DUMP_OK) << row.row << reason;
        const kernel_dump_module *module = kernel_dump_module_at(dump, 0xFFFFD00000000000);

        ASSERT_NE(module, nullptr) << row.row;
        EXPECT_EQ(module->name, row.name) << row.row;
    }
}

TEST(kernel_dump, test_name_length)
{
    for (const size_t chars : {255u, 256u}) {
        dump_model model;
        kernel_dump dump;
        std::string reason;

        model.modules.push_back({u"\\a\\" + std::u16string(chars, u'x'), 0x1000, 0x1000});
        EXPECT_EQ(read(dump_build(model), &dump, &reason),
                  chars == 255 ? KERNEL_DUMP_OK : KERNEL_DUMP_DAMAGED)
            << chars;
    }
}

/* The kernel is known by where its list of modules lies, not by its name or place. */
TEST(kernel_dump, test_kernel_by_address)
{
    dump_model model;
    kernel_dump dump;
    std::string reason;

    model.loaded_modules = TWO_END - 1;
    ASSERT_EQ(read(dump_build(model), &dump, &reason), KERNEL_DUMP_OK) << reason;
    EXPECT_EQ(kernel_dump_call_site(dump, NT), "ntoskrnl+0x107");
    EXPECT_EQ(kernel_dump_call_site(dump, TWO), "nt+0x1");
    model.loaded_modules = TWO_END;
    ASSERT_EQ(read(dump_build(model), &dump, &reason), KERNEL_DUMP_OK) << reason;
    EXPECT_EQ(kernel_dump_call_site(dump, TWO), "two+0x1");
}

/* Places in the dump of the model as it stands: offsets of names and a base in the list of modules,
 * and the file's size. */
#define FIELD(name) (DUMP_TRIAGE + 4 * DUMP_FIELD_##name)
#define FLAGS       (DUMP_CONTEXT + 0x30)
#define STACK_START (DUMP_TRIAGE + 0x48)
#define NAME_0      (DUMP_STACK + 64)
#define NAME_1      (NAME_0 + 0x90)
#define NAME_2      (NAME_1 + 0x90)
#define BASE_1      (NAME_1 + 0x38)
#define SIZE        0x2336

/* place in the file, what is put there, its bytes, result, part of the reason */
static const struct refused_row {
    const char *row;
    uint64_t place;
    uint64_t value;
    size_t bytes;
    enum kernel_dump_error error;
    const char *reason;
} s_refused_rows[] = {
    {"another file",    0,                   'X',           1, KERNEL_DUMP_NOT_A_DUMP, "PAGEDU64" },
    {"32 bits",         6,                   0x504D,        2, KERNEL_DUMP_32_BIT,     "32-bit"   },
    {"a process",       0,                   0x504D444D,    4, KERNEL_DUMP_USER_MODE,  "process"  },
    {"Arm64",           0x30,                0xAA64,        4, KERNEL_DUMP_MACHINE,    "0xaa64"   },
    {"x86",             0x30,                0x14C,         4, KERNEL_DUMP_MACHINE,    "0x14c"    },
    {"unknown kind",    DUMP_KIND,           3,             4, KERNEL_DUMP_KIND,       "unknown"  },
    {"no context",      FIELD(CONTEXT),      0,             4, KERNEL_DUMP_NO_CONTEXT, "holds no" },
    {"no Rip in it",    FLAGS,               0x100002,      4, KERNEL_DUMP_NO_CONTEXT, "0x100002" },
    {"never filled",    FLAGS,               0x45474150,    4, KERNEL_DUMP_NO_CONTEXT, "Rip"      },
    {"context outside", FIELD(CONTEXT),      UINT32_MAX,    4, KERNEL_DUMP_DAMAGED,    "context"  },
    {"context cut",     FIELD(CONTEXT),      SIZE - 0x4CF,  4, KERNEL_DUMP_DAMAGED,    "context"  },
    {"mark runs out",   FIELD(VALID),        SIZE - 3,      4, KERNEL_DUMP_DAMAGED,    "mark"     },
    {"mark missing",    SIZE - 4,            'X',           1, KERNEL_DUMP_DAMAGED,    "mark"     },
    {"says longer",     FIELD(SIZE),         SIZE + 1,      4, KERNEL_DUMP_CUT_OFF,    "cut off"  },
    {"stack outside",   FIELD(STACK),        SIZE + 1,      4, KERNEL_DUMP_DAMAGED,    "stack"    },
    {"stack runs out",  FIELD(STACK),        SIZE - 63,     4, KERNEL_DUMP_DAMAGED,    "stack"    },
    {"stack too long",  FIELD(STACK_BYTES),  UINT32_MAX,    4, KERNEL_DUMP_DAMAGED,    "stack"    },
    {"stack wraps",     STACK_START,         0 - 63ull,     8, KERNEL_DUMP_DAMAGED,    "space"    },
    {"modules outside", FIELD(DRIVERS),      UINT32_MAX,    4, KERNEL_DUMP_DAMAGED,    "3 modules"},
    {"too many",        FIELD(DRIVER_COUNT), UINT32_MAX,    4, KERNEL_DUMP_DAMAGED,    "295"      },
    {"count wraps",     FIELD(DRIVER_COUNT), 29826162,      4, KERNEL_DUMP_DAMAGED,    "29826162" },
    {"name outside",    NAME_0,              UINT32_MAX,    4, KERNEL_DUMP_DAMAGED,    "module 0" },
    {"length runs out", NAME_1,              SIZE - 3,      4, KERNEL_DUMP_DAMAGED,    "module 1" },
    {"name runs out",   NAME_2,              SIZE - 4,      4, KERNEL_DUMP_DAMAGED,    "module 2" },
    {"module wraps",    BASE_1,              0 - 0xFFFFull, 8, KERNEL_DUMP_DAMAGED,    "space"    },
};

TEST(kernel_dump, test_refused)
{
    const std::vector<uint8_t> whole = dump_build(dump_model());

    ASSERT_EQ(whole.size(), (size_t)SIZE);
    for (const refused_row &row : s_refused_rows) {
        std::vector<uint8_t> bytes = whole;
        kernel_dump dump;
        std::string reason;

        dump_put(&bytes, row.place, row.value, row.bytes);
        EXPECT_EQ(read(bytes, &dump, &reason), row.error) << row.row << ": " << reason;
        EXPECT_NE(reason.find(row.reason), std::string::npos) << row.row << ": " << reason;
        EXPECT_TRUE(dump.modules.empty() && dump.stack.empty() && dump.rip == 0) << row.row;
    }
}

/* No beginning of a dump passes for a dump. */
TEST(kernel_dump, test_cut_off_anywhere)
{
    const std::vector<uint8_t> whole = dump_build(dump_model());
    kernel_dump dump;
    std::string reason;

    for (size_t size = 0; size < whole.size(); size++) {
        const std::vector<uint8_t> part(whole.begin(), whole.begin() + (ptrdiff_t)size);

        ASSERT_EQ(read(part, &dump, &reason), KERNEL_DUMP_CUT_OFF) << size << " bytes: " << reason;
    }
    EXPECT_EQ(read({'M', 'D', 'M', 'P'}, &dump, &reason), KERNEL_DUMP_USER_MODE);
    EXPECT_EQ(read({'P', 'A', 'G', 'E', 'D', 'U', 'M', 'P'}, &dump, &reason), KERNEL_DUMP_32_BIT);
}

/* What follows a whole dump does no harm. */
TEST(kernel_dump, test_longer_file)
{
    std::vector<uint8_t> bytes = dump_build(dump_model());
    kernel_dump dump;
    std::string reason;

    bytes.resize(bytes.size() + 1000);
    EXPECT_EQ(read(bytes, &dump, &reason), KERNEL_DUMP_OK) << reason;
}

/* A damaged dump is refused with a reason, or what was read of it holds together. */
TEST(kernel_dump, test_mutated)
{
    dump_model model;
    std::mt19937_64 random(20210221);
    int accepted = 0;

    model.stack = {TWO, 0, NT, ONE, 5, TWO};
    const std::vector<uint8_t> whole = dump_build(model);

    for (int i = 0; i < 20000; i++) {
        std::vector<uint8_t> bytes = whole;
        kernel_dump dump;
        std::string reason;

        dump_mutate(&bytes, &random);
        const enum kernel_dump_error error = read(bytes, &dump, &reason);

        ASSERT_EQ(reason.empty(), error == KERNEL_DUMP_OK) << "mutation " << i;
        accepted += error == KERNEL_DUMP_OK;
        ASSERT_LE(kernel_dump_walk(dump, 99).size(), 99u) << "mutation " << i;
        ASSERT_EQ(call_sites(dump, 99).find('\n'), std::string::npos) << "mutation " << i;
    }
    /* Neither is the reader blind nor the damage always deadly. */
    EXPECT_GT(accepted, 1000);
    EXPECT_LT(accepted, 19000);
}

TEST(kernel_dump, test_real_dump)
{
    const char *folder = getenv("BYPASS_SHARED_DATA");

    if (folder == NULL || folder[0] == '\0')
        GTEST_SKIP() << "BYPASS_SHARED_DATA names no folder with a real dump";
    const std::vector<uint8_t> bytes = read_file(std::string(folder) + "/triage_x64.dmp");
    kernel_dump dump;
    std::string reason;

    ASSERT_EQ(read(bytes, &dump, &reason), KERNEL_DUMP_OK) << reason;
    EXPECT_EQ(dump.bug_check, 0x1000007Eu);
    EXPECT_EQ(dump.build, 19041u);
    EXPECT_EQ(dump.modules.size(), 151u);
    EXPECT_EQ(dump.stack.size(), 8472u);
    const std::string sites = call_sites(dump, 99);

    EXPECT_EQ(sites.compare(0, 15, "amdppm+0x334c a"), 0) << sites;
    EXPECT_NE(sites.find(" Wdf01000+0x"), std::string::npos) << sites;
    EXPECT_NE(sites.find(" nt+0x"), std::string::npos) << sites;
    EXPECT_EQ(kernel_dump_walk(dump, 99).size(), 64u);
}
