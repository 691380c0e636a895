/* Tests of the reader of small dumps: stack walk, names, and truncated files. */
#include "engine_fixture.h"

/* Addresses in the model's modules. */
static constexpr uint64_t NT_BASE = 0xFFFFF80000000000ull;
static constexpr uint64_t ONE_BASE = 0xFFFFF80100000000ull;
static constexpr uint64_t TWO_BASE = 0xFFFFF80100010000ull;
static constexpr uint64_t TWO_END = 0xFFFFF80100018000ull;
static constexpr uint64_t NT = NT_BASE + 0x107;
static constexpr uint64_t ONE = ONE_BASE + 0x2A;
static constexpr uint64_t TWO = TWO_BASE + 1;
static constexpr uint64_t INNER = ONE_BASE + 0x100; /* a module inside another one */

/* Reads a dump that must be valid. */
static reading read_valid(const dump_model &model, size_t frames = 99)
{
    reading made = read(dump_build(model), frames);

    EXPECT_EQ(made.error, KERNEL_DUMP_OK);
    EXPECT_EQ(made.findings, "");
    return made;
}

typedef std::vector<uint64_t> words;

/* Rip, Rsp relative to the start of the saved stack, its values, bytes missing from the last value,
 * frames requested, call sites */
static const struct walk_row {
    const char *row;
    uint64_t rip;
    int64_t rsp;
    words stack;
    uint32_t cut;
    size_t limit;
    const char *sites;
} s_walk_rows[] = {
    {"Rsp at start",  ONE,      0,  words({TWO, 7, NT}),           0, 99, "one+0x2a two+0x1 nt+0x107"},
    {"below Rsp",     ONE,      8,  words({TWO, NT}),              0, 99, "one+0x2a nt+0x107"        },
    {"Rsp at end",    ONE,      24, words({TWO, 0, TWO}),          0, 99, "one+0x2a"                 },
    {"Rsp before it", ONE,      -8, words({TWO, TWO}),             0, 99, "one+0x2a"                 },
    {"Rsp unaligned", ONE,      4,  words({TWO << 32, TWO >> 32}), 0, 99, "one+0x2a two+0x1"         },
    {"across two",    ONE,      0,  words({TWO << 32, TWO >> 32}), 0, 99, "one+0x2a"                 },
    {"half a value",  ONE,      0,  words({NT, TWO}),              1, 99, "one+0x2a nt+0x107"        },
    {"none wanted",   ONE,      0,  words({TWO}),                  0, 0,  ""                         },
    {"two wanted",    ONE,      0,  words({TWO, NT}),              0, 2,  "one+0x2a two+0x1"         },
    {"last byte",     ONE,      0,  words({TWO_END - 1}),          0, 99, "one+0x2a two+0x7fff"      },
    {"overlapping",   INNER,    0,  words({INNER + 4, INNER - 1}), 0, 99, "in+0x0 in+0x4 one+0xff"   },
    {"after all",     ONE,      0,  words({TWO_END}),              0, 99, "one+0x2a"                 },
    {"before all",    ONE,      0,  words({NT_BASE - 1}),          0, 99, "one+0x2a"                 },
    {"neighbours",    TWO_BASE, 0,  words({TWO_BASE - 1}),         0, 99, "two+0x0 in+0xfeff"        },
    {"Rip unmapped",  16,       0,  words({}),                     0, 99, "0x00000000`00000010"      },
};

TEST(kernel_dump, test_walk)
{
    for (const walk_row &row : s_walk_rows) {
        dump_model model;

        model.modules.push_back({u"in.sys", INNER, 0xFF00});
        model.rip = row.rip;
        model.rsp = model.stack_start + static_cast<uint64_t>(row.rsp);
        model.stack = row.stack;
        model.stack_cut = row.cut;
        EXPECT_EQ(read_valid(model, row.limit).sites, row.sites) << row.row;
    }
}

/* A stack and a module that end at the last address but one. */
TEST(kernel_dump, test_walk_top_of_address_space)
{
    dump_model model;

    model.modules.push_back({u"top.sys", UINT64_MAX - 0xFF, 0xFF});
    model.stack = {0, UINT64_MAX - 1};
    model.rsp = model.stack_start = UINT64_MAX - 16;
    const reading made = read_valid(model);

    EXPECT_EQ(made.sites, "one+0x1234 top+0xfe");
    EXPECT_EQ(kernel_dump_stack_value(made.dump, UINT64_MAX - 8), UINT64_MAX - 1);
    EXPECT_EQ(kernel_dump_stack_value(made.dump, UINT64_MAX - 7), 0u);
    EXPECT_EQ(kernel_dump_stack_value(made.dump, UINT64_MAX - 17), 0u);
}

typedef std::u16string u16;

static const struct name_row {
    const char *row;
    std::u16string path;
    const char *name;
} s_name_rows[] = {
    {"neither path nor extension", u"one",                 "one"                             },
    {"case is kept",               u"\\a\\FLTMGR.SYS",     "FLTMGR"                          },
    {"only an extension",          u"\\a\\.sys",           ".sys"                            },
    {"three bytes",                u"\\a\\\u9A71.sys",     "\xE9\xA9\xB1"                    },
    {"four bytes",                 u"\\a\\\U0001F600.sys", "\xF0\x9F\x98\x80"                },
    {"half a pair",                u16({0xD800, 'x'}),     "\xEF\xBF\xBDx"                   },
    {"line feed, ! and +",         u"\\a\\x\ny!z+w.sys",   "x_y_z_w"                         },
    {"only a directory",           u"\\a\\",               "Unknown_Module_ffffd000`00000000"},
};

TEST(kernel_dump, test_names)
{
    for (const name_row &row : s_name_rows) {
        dump_model model;

        model.modules = {
            {row.path, 0xFFFFD00000000000, 0x1000}
        };
        EXPECT_EQ(read_valid(model).names, row.name) << row.row;
    }
    /* The maximum length in a file system, and one more. */
    for (const size_t chars : {255u, 256u}) {
        dump_model model;

        model.modules.push_back({u"\\a\\" + std::u16string(chars, u'x'), 0x1000, 0x1000});
        EXPECT_EQ(read(dump_build(model)).error == KERNEL_DUMP_DAMAGED, chars > 255) << chars;
    }
}

/* The kernel is the module that contains the head of the list of modules, whatever its name is. */
TEST(kernel_dump, test_kernel_by_address)
{
    dump_model model;

    model.rip = NT;
    model.stack = {TWO};
    model.loaded_modules = TWO_END - 1;
    EXPECT_EQ(read_valid(model).sites, "ntoskrnl+0x107 nt+0x1");
    model.loaded_modules = TWO_END;
    EXPECT_EQ(read_valid(model).sites, "ntoskrnl+0x107 two+0x1");
}

/* A truncated dump is always rejected. Bytes after a complete dump are ignored. */
TEST(kernel_dump, test_truncated_anywhere)
{
    const std::vector<uint8_t> whole = dump_build(dump_model());

    for (size_t size = 0; size < whole.size() + 9; size++) {
        std::vector<uint8_t> part = whole;

        part.resize(size);
        ASSERT_EQ(read(part).error, size < whole.size() ? KERNEL_DUMP_CUT_OFF : KERNEL_DUMP_OK)
            << size;
    }
    EXPECT_EQ(read(std::vector<uint8_t>({'M', 'D', 'M', 'P'})).error, KERNEL_DUMP_USER_MODE);
}
