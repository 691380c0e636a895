/* Tests of memory dumps: every kind of dump of one machine gives the same result, and missing data
 * is reported, not invented. */
#include "engine_fixture.h"
#include "kernel_dump.h"
#include "memory_model.h"

#include <algorithm>

#include <winioctl.h>

#define TWO_BASE 0xFFFFF80100010000ull
#define SPAN     0x1000ull

static const struct kind_row {
    const char *row;
    uint32_t kind;
    enum memory_layout layout;
} s_kinds[] = {
    {"complete",              1, MEMORY_RUNS},
    {"kernel",                2, MEMORY_RUNS},
    {"kernel with a summary", 2, MEMORY_SDMP},
    {"complete, bitmap",      5, MEMORY_FDMP},
    {"kernel, bitmap",        6, MEMORY_SDMP},
};

static const char s_sites[] = "one+0x1234 two+0x1 nt+0x107 two+0x22";

/* Returns a machine whose call sites are s_sites. The last one is on the page after Rsp's. */
static dump_model machine()
{
    dump_model model = crashed_model();

    model.stack.resize(0x1010 / 8);
    model.stack[0x1000 / 8] = TWO_BASE + 0x22;
    return model;
}

static enum kernel_dump_error read(const std::vector<uint8_t> &bytes, kernel_dump *dump,
                                   std::string *reason)
{
    return kernel_dump_read(bytes.data(), bytes.size(), dump, reason);
}

static std::string sites_of(const kernel_dump &dump)
{
    std::string text;

    for (const kernel_dump_frame &frame : kernel_dump_walk(dump, 99))
        text += (text.empty() ? "" : " ") + kernel_dump_call_site(dump, frame.instruction);
    return text;
}

static std::string names_of(const kernel_dump &dump)
{
    std::string text;

    for (const kernel_dump_module &module : dump.modules)
        text += (text.empty() ? "" : " ") + module.name;
    return text;
}

static std::string gaps_of(const kernel_dump &dump)
{
    std::string text;

    for (const std::string &gap : dump.gaps)
        text += gap + "\n";
    return text;
}

/* Expects that part contains only data of whole, and that no gap could be parsed as a frame. */
static void expect_part_of(const kernel_dump &part, const kernel_dump &whole, uint64_t row)
{
    ASSERT_LE(part.stack.size(), whole.stack.size()) << row;
    EXPECT_TRUE(std::equal(part.stack.begin(), part.stack.end(), whole.stack.begin())) << row;
    EXPECT_EQ(part.rip, whole.rip) << row;
    for (const kernel_dump_module &module : part.modules) {
        const kernel_dump_module *same = kernel_dump_module_at(whole, module.base);

        ASSERT_NE(same, nullptr) << row;
        EXPECT_TRUE(module.bytes == same->bytes && module.base == same->base) << row;
        EXPECT_TRUE(module.name == same->name || module.name.compare(0, 15, "Unknown_Module_") == 0)
            << row << ": " << module.name;
    }
    for (const std::string &gap : part.gaps)
        EXPECT_EQ(gap.find_first_of("!+\n"), std::string::npos) << row << ": " << gap;
}

TEST(memory_dump, test_same_result_as_small_dump)
{
    kernel_dump small;
    std::string reason;

    ASSERT_EQ(read(dump_build(machine()), &small, &reason), KERNEL_DUMP_OK) << reason;
    for (const kind_row &row : s_kinds) {
        for (const unsigned large : {12u, 21u, 30u}) {
            const memory_model memory(machine(), large);
            kernel_dump dump;

            EXPECT_EQ(read(memory.build(row.kind, row.layout), &dump, &reason), KERNEL_DUMP_OK)
                << row.row << large << reason;
            EXPECT_EQ(gaps_of(dump), "") << row.row << large;
            EXPECT_EQ(dump.kind, row.kind) << row.row << large;
            EXPECT_EQ(dump.crash_time_100ns, small.crash_time_100ns) << row.row << large;
            EXPECT_EQ(names_of(dump), names_of(small)) << row.row << large;
            EXPECT_EQ(sites_of(dump), s_sites) << row.row << large;
            EXPECT_EQ(sites_of(dump), sites_of(small)) << row.row << large;
            for (size_t i = 0; i < dump.modules.size() && i < small.modules.size(); i++) {
                EXPECT_EQ(dump.modules[i].base, small.modules[i].base) << row.row << large;
                EXPECT_EQ(dump.modules[i].bytes, small.modules[i].bytes) << row.row << large;
            }
        }
    }
}

/* Abbreviations for the rows: virtual addresses of the machine, and levels of its page tables. */
#define HEAD     0xFFFFF80000200000ull
#define ENTRY(i) memory_model::entry_of(i)
#define TEXTS(i) memory_model::text_of(i)
#define STACK    0xFFFF850000001000ull
#define STACK_2  (STACK + SPAN)
#define PAGE     0
#define PT       12
#define PD       21
#define PDPT     30
#define PML4     39
#define ALL      "nt one two"
#define RIP      "one+0x1234"
#define REST     " two+0x1 nt+0x107 two+0x22"
#define ADDRESS  "0xfffff801`00001234"
#define NAMELESS "Unknown_Module_fffff801`00000000"
#define NO_ONE   "nt " NAMELESS " two"

/* The page at address, or the table that contains its entry of a level, is missing from the file.
 * Expected: names of the modules, call sites, part of the gap or, without names, of the reason. */
static const struct missing_row {
    const char *row;
    uint64_t address;
    unsigned level;
    const char *names;
    const char *sites;
    const char *told;
} s_missing_rows[] = {
    {"head",          HEAD,     PAGE, NULL,      "",                      "page is not"       },
    {"head's table",  HEAD,     PT,   NULL,      "",                      "table is not"      },
    {"its directory", HEAD,     PD,   NULL,      "",                      "table is not"      },
    {"directories",   HEAD,     PDPT, NULL,      "",                      "table is not"      },
    {"topmost table", HEAD,     PML4, NULL,      "",                      "table is not"      },
    {"all entries",   ENTRY(0), PT,   NULL,      "",                      "table is not"      },
    {"first entry",   ENTRY(0), PAGE, "one two", RIP " two+0x1 two+0x22", ", 0 are"           },
    {"second entry",  ENTRY(1), PAGE, "nt two",  ADDRESS REST,            ", 1 are"           },
    {"last entry",    ENTRY(2), PAGE, "nt one",  RIP " nt+0x107",         ", 2 are"           },
    {"a name",        TEXTS(1), PAGE, NO_ONE,    NAMELESS "+0x1234" REST, "names of 1"        },
    {"stack",         STACK,    PAGE, ALL,       RIP,                     ", 0 bytes"         },
    {"its second",    STACK_2,  PAGE, ALL,       RIP " two+0x1 nt+0x107", "4096 bytes"        },
    {"its table",     STACK,    PT,   ALL,       RIP,                     "read: a page table"},
};

TEST(memory_dump, test_missing_pages)
{
    for (const missing_row &row : s_missing_rows) {
        for (const kind_row &kind : s_kinds) {
            const enum kernel_dump_error expected =
                row.names != NULL ? KERNEL_DUMP_OK : KERNEL_DUMP_NO_MODULES;
            memory_model memory(machine());
            kernel_dump dump;
            std::string reason;

            memory.drop(row.level == PAGE ? memory.physical(row.address)
                                          : memory.entry_place(row.address, row.level));
            EXPECT_EQ(read(memory.build(kind.kind, kind.layout), &dump, &reason), expected)
                << row.row;
            const std::string told = reason + gaps_of(dump);

            EXPECT_NE(told.find(row.told), std::string::npos) << row.row << ": " << told;
            EXPECT_EQ(names_of(dump), row.names != NULL ? row.names : "") << row.row;
            if (row.names != NULL) {
                EXPECT_EQ(sites_of(dump), row.sites) << row.row;
            }
        }
    }
}

/* Bits of the page table entries of the modules' texts, or of the directory above them, besides the
 * frame number. */
static const struct entry_row {
    const char *row;
    unsigned shift;
    uint64_t bits;
    bool found;
} s_entry_rows[] = {
    {"present",                 PT, MEMORY_PRESENT,                       true },
    {"present and transition",  PT, MEMORY_PRESENT | 0xC00,               true },
    {"ignored bits",            PT, MEMORY_PRESENT | 0xFFF0000000000F7E,  true },
    {"transition",              PT, MEMORY_TRANSITION,                    true },
    {"prototype",               PT, MEMORY_PROTOTYPE,                     false},
    {"transition, prototype",   PT, MEMORY_TRANSITION | MEMORY_PROTOTYPE, false},
    {"neither",                 PT, 0,                                    false},
    {"transition, hidden",      PT, MEMORY_TRANSITION | 1ull << 45,       false},
    {"directory in transition", PD, MEMORY_TRANSITION,                    false},
    {"table as a large page",   PD, MEMORY_PRESENT | MEMORY_LARGE,        false},
};

TEST(memory_dump, test_page_table_entry)
{
    for (const entry_row &row : s_entry_rows) {
        for (const kind_row &kind : s_kinds) {
            memory_model memory(machine());
            kernel_dump dump;
            std::string reason;

            for (size_t i = 0; i < (row.shift == PT ? 3 : 1); i++) {
                const uint64_t place = memory.entry_place(TEXTS(i), row.shift);
                const uint64_t frame = memory.get_physical(place) & 0x000FFFFFFFFFF000;

                memory.put_physical(place, frame | row.bits);
            }
            EXPECT_EQ(read(memory.build(kind.kind, kind.layout), &dump, &reason), KERNEL_DUMP_OK)
                << row.row << reason;
            EXPECT_EQ(names_of(dump) == ALL, row.found) << row.row << ": " << names_of(dump);
            EXPECT_EQ(gaps_of(dump), row.found ? "" : "the names of 3 modules cannot be read\n")
                << row.row;
        }
    }
}

/* The unused bits of the bitmap's last byte are set, and the file is longer than its pages. The
 * reader must ignore both. */
TEST(memory_dump, test_page_after_bitmap)
{
    memory_model memory(machine());
    const uint64_t behind = memory.pages().back() + 1;
    kernel_dump dump;
    std::string reason;

    ASSERT_NE(behind % 8, 0u);
    memory.put_physical(memory.entry_place(TEXTS(1), PT), behind * SPAN | MEMORY_PRESENT);
    std::vector<uint8_t> bytes = memory.build(6, MEMORY_SDMP);

    bytes.resize(bytes.size() + SPAN, 'A');
    EXPECT_EQ(read(bytes, &dump, &reason), KERNEL_DUMP_OK) << reason;
    EXPECT_EQ(names_of(dump), NO_ONE);
}

#define NEXT(i)     (ENTRY(i) + MEMORY_NEXT)
#define PREVIOUS(i) (ENTRY(i) + MEMORY_PREVIOUS)
#define BASE(i)     (ENTRY(i) + MEMORY_BASE)
#define NAME(i)     (ENTRY(i) + MEMORY_NAME)

/* address and value of a change to the list, its bytes; modules read from its start and from its
 * end; the reason why reading from the start stopped */
static const struct list_row {
    const char *row;
    uint64_t address;
    uint64_t value;
    size_t bytes;
    size_t from_start;
    size_t from_end;
    const char *fault;
} s_list_rows[] = {
    {"next is itself",  NEXT(1),                ENTRY(1),             8, 2, 1, "point back"  },
    {"last to first",   NEXT(2),                ENTRY(0),             8, 3, 0, "point back"  },
    {"past one",        NEXT(0),                ENTRY(2),             8, 1, 2, "point back"  },
    {"back to itself",  PREVIOUS(1),            ENTRY(1),             8, 1, 2, "point back"  },
    {"next is nowhere", NEXT(0),                0,                    8, 1, 2, "not mapped"  },
    {"no address",      NEXT(0),                ENTRY(1) << 16 >> 16, 8, 1, 2, "not mapped"  },
    {"next wraps",      NEXT(0),                UINT64_MAX - 7,       8, 1, 2, "not mapped"  },
    {"head to itself",  HEAD + MEMORY_NEXT,     HEAD,                 8, 0, 3, "point back"  },
    {"head to first",   HEAD + MEMORY_PREVIOUS, ENTRY(0),             8, 3, 0, "point back"  },
    {"image wraps",     BASE(1),                UINT64_MAX - 0xFFFE,  8, 1, 1, "does not fit"},
    {"no name",         NAME(1),                0,                    2, 3, 0, NULL          },
    {"odd name",        NAME(1),                3,                    2, 3, 0, NULL          },
    {"beyond capacity", NAME(1),                0x20004,              4, 3, 0, NULL          },
    {"name too long",   NAME(1),                0x4000400,            4, 3, 0, NULL          },
    {"name nowhere",    NAME(1) + 8,            0,                    8, 3, 0, NULL          },
    {"name wraps",      NAME(1) + 8,            UINT64_MAX,           8, 3, 0, NULL          },
};

TEST(memory_dump, test_list)
{
    for (const list_row &row : s_list_rows) {
        const std::string told = ", " + std::to_string(row.from_start) +
                                 " are read from its start and " + std::to_string(row.from_end) +
                                 " from its end: ";
        memory_model memory(machine());
        kernel_dump dump;
        std::string reason;

        memory.put(row.address, row.value, row.bytes);
        EXPECT_EQ(read(memory.build(6, MEMORY_SDMP), &dump, &reason), KERNEL_DUMP_OK)
            << row.row << reason;
        EXPECT_EQ(names_of(dump), row.from_start + row.from_end == 3 ? ALL : "nt two") << row.row;
        EXPECT_EQ(dump.gaps.size(), row.fault != NULL ? 1u : 0u) << row.row << gaps_of(dump);
        if (row.fault != NULL) {
            EXPECT_NE(gaps_of(dump).find(told), std::string::npos) << row.row << gaps_of(dump);
            EXPECT_NE(gaps_of(dump).find(row.fault), std::string::npos) << row.row << gaps_of(dump);
        }
    }
}

TEST(memory_dump, test_list_empty)
{
    memory_model memory(machine());
    kernel_dump dump;
    std::string reason;

    memory.put(HEAD + MEMORY_NEXT, HEAD, 8);
    memory.put(HEAD + MEMORY_PREVIOUS, HEAD, 8);
    EXPECT_EQ(read(memory.build(1, MEMORY_RUNS), &dump, &reason), KERNEL_DUMP_NO_MODULES);
    EXPECT_NE(reason.find("empty"), std::string::npos) << reason;
}

TEST(memory_dump, test_list_length)
{
    for (const size_t more : {4093u, 4094u}) {
        dump_model model = machine();
        kernel_dump dump;
        std::string reason;

        for (size_t i = 0; i < more; i++)
            model.modules.push_back({u"x", 0xFFFFA00000000000 + 0x1000 * i, 0x1000});
        EXPECT_EQ(read(memory_model(model).build(6, MEMORY_SDMP), &dump, &reason), KERNEL_DUMP_OK)
            << reason;
        EXPECT_EQ(dump.modules.size(), 4096u);
        EXPECT_EQ(gaps_of(dump).find("too many") != std::string::npos, more == 4094)
            << gaps_of(dump);
    }
}

/* Rsp relative to the start of a stack of 20 pages, bytes that are read, part of the gap. */
static const struct stack_row {
    const char *row;
    uint64_t rsp;
    size_t bytes;
    const char *gap;
} s_stack_rows[] = {
    {"start",             0,                          0x10000, ""          },
    {"inside a page",     0xFF8,                      0x10000, ""          },
    {"unaligned",         0x1003,                     0x10000, ""          },
    {"limit at its end",  0x4000,                     0x10000, ""          },
    {"less than limit",   0x4008,                     0xFFF8,  ""          },
    {"last value",        0x13FF8,                    8,       ""          },
    {"after it",          0x14000,                    0,       "not mapped"},
    {"before it",         0 - 8ull,                   0,       "not mapped"},
    {"nowhere",           0 - STACK,                  0,       "not mapped"},
    {"no address",        0x800000000000 - STACK,     0,       "not mapped"},
    {"end of all memory", 0xFFFFFFFFFFFFFFF8 - STACK, 0,       "not mapped"},
};

TEST(memory_dump, test_stack)
{
    for (const stack_row &row : s_stack_rows) {
        dump_model model = machine();
        kernel_dump dump;
        std::string reason;

        model.rsp = STACK + row.rsp;
        memory_model memory(model);

        for (uint64_t page = 2; page < 20; page++)
            memory.put(STACK + page * SPAN, page, 8);
        memory.put(0 - 8ull, 1, 8); /* the highest page exists, but a stack in it would wrap */
        EXPECT_EQ(read(memory.build(5, MEMORY_FDMP), &dump, &reason), KERNEL_DUMP_OK) << row.row;
        EXPECT_EQ(dump.stack.size(), row.bytes) << row.row;
        EXPECT_EQ(gaps_of(dump).empty(), row.gap[0] == '\0') << row.row << gaps_of(dump);
        EXPECT_NE(gaps_of(dump).find(row.gap), std::string::npos) << row.row << gaps_of(dump);
        EXPECT_EQ(kernel_dump_stack_value(dump, STACK + 2 * SPAN), row.rsp <= 2 * SPAN ? 2u : 0u)
            << row.row;
    }
}

#define RUNS_1   1, MEMORY_RUNS
#define FDMP_5   5, MEMORY_FDMP
#define SDMP_6   6, MEMORY_SDMP
#define COUNT    MEMORY_RUN_COUNT
#define PAGES    MEMORY_RUN_PAGES
#define RUN_0    MEMORY_RUN_FIRST
#define RUN_1    (MEMORY_RUN_FIRST + 16)
#define FIRST    MEMORY_FIRST_PAGE
#define BITS     MEMORY_BITMAP_BITS
#define PRESENT  MEMORY_BITMAP_PRESENT
#define BITMAP   MEMORY_BITMAP
#define MARK     (MEMORY_BITMAP + 4)
#define FLAGS    (DUMP_CONTEXT + 0x30)
#define TABLES   0x10
#define LIST     0x20
#define TWO_40   0x10000000000ull
#define DAMAGED  KERNEL_DUMP_DAMAGED
#define CUT_OFF  KERNEL_DUMP_CUT_OFF
#define NOT_CTX  KERNEL_DUMP_NO_CONTEXT
#define NOT_LIST KERNEL_DUMP_NO_MODULES

/* kind and layout, offset in the file, value, its bytes, result, part of the reason */
static const struct refused_memory_row {
    const char *row;
    uint32_t kind;
    enum memory_layout layout;
    uint64_t place;
    uint64_t value;
    size_t bytes;
    enum kernel_dump_error error;
    const char *reason;
} s_refused_rows[] = {
    {"no runs",           RUNS_1, COUNT,       0,            4, DAMAGED,  "hold 0 runs"          },
    {"too many runs",     RUNS_1, COUNT,       44,           4, DAMAGED,  "hold 44 runs"         },
    {"never filled",      RUNS_1, COUNT,       0x45474150,   4, DAMAGED,  "runs"                 },
    {"runs left out",     RUNS_1, COUNT,       2,            4, DAMAGED,  "have 6 pages"         },
    {"pages do not fit",  RUNS_1, PAGES,       7,            8, DAMAGED,  "counts 7"             },
    {"huge page count",   RUNS_1, PAGES,       UINT64_MAX,   8, DAMAGED,  "counts 1844"          },
    {"run too far out",   RUNS_1, RUN_1,       TWO_40 + 1,   8, DAMAGED,  "run 1"                },
    {"run wraps",         RUNS_1, RUN_0 + 8,   UINT64_MAX,   8, DAMAGED,  "run 0"                },
    {"run ends too far",  RUNS_1, RUN_0 + 8,   0xFFFFFFFF01, 8, DAMAGED,  "run 0"                },
    {"runs overlap",      RUNS_1, RUN_1,       0x102,        8, DAMAGED,  "run 1"                },
    {"runs for a bitmap", RUNS_1, DUMP_KIND,   5,            4, DAMAGED,  "bitmap is missing"    },
    {"no bitmap",         FDMP_5, BITMAP,      'X',          1, DAMAGED,  "bitmap is missing"    },
    {"not finished",      SDMP_6, MARK,        'X',          1, DAMAGED,  "bitmap is missing"    },
    {"bitmap for runs",   SDMP_6, DUMP_KIND,   1,            4, DAMAGED,  "hold 0 runs"          },
    {"pages in bitmap",   SDMP_6, FIRST,       MEMORY_BITS,  8, DAMAGED,  "reaches into"         },
    {"pages at 0",        SDMP_6, FIRST,       0,            8, DAMAGED,  "reaches into"         },
    {"pages far out",     SDMP_6, FIRST,       UINT64_MAX,   8, CUT_OFF,  "first page"           },
    {"no bits",           SDMP_6, BITS,        0,            8, DAMAGED,  "has 0 pages"          },
    {"too many bits",     SDMP_6, BITS,        TWO_40 + 1,   8, DAMAGED,  "no machine"           },
    {"bits do not fit",   SDMP_6, BITS,        0x7E41,       8, DAMAGED,  "of 4041 bytes"        },
    {"bits left out",     SDMP_6, BITS,        0x101,        8, DAMAGED,  "marks 1 pages"        },
    {"huge count",        SDMP_6, PRESENT,     UINT64_MAX,   8, DAMAGED,  "counts 1844"          },
    {"a bit too many",    SDMP_6, MEMORY_BITS, 1,            1, DAMAGED,  "pages, and its header"},
    {"no context",        SDMP_6, FLAGS,       0x45474150,   4, NOT_CTX,  "Rip"                  },
    {"no page tables",    RUNS_1, TABLES,      0,            8, NOT_LIST, "table is not"         },
    {"tables far out",    RUNS_1, TABLES,      UINT64_MAX,   8, NOT_LIST, "table is not"         },
    {"no list",           RUNS_1, LIST,        0,            8, NOT_LIST, "not mapped"           },
    {"list nowhere",      RUNS_1, LIST,        UINT64_MAX,   8, NOT_LIST, "not mapped"           },
};

TEST(memory_dump, test_rejected)
{
    const memory_model memory(machine());

    for (const refused_memory_row &row : s_refused_rows) {
        std::vector<uint8_t> bytes = memory.build(row.kind, row.layout);
        kernel_dump dump;
        std::string reason;

        dump_put(&bytes, row.place, row.value, row.bytes);
        EXPECT_EQ(read(bytes, &dump, &reason), row.error) << row.row << ": " << reason;
        EXPECT_NE(reason.find(row.reason), std::string::npos) << row.row << ": " << reason;
        EXPECT_TRUE(dump.modules.empty() && dump.gaps.empty() && dump.rip == 0) << row.row;
    }
}

/* A truncated dump gives partial results and reports the truncation, or is rejected as
 * truncated. */
TEST(memory_dump, test_truncated_anywhere)
{
    const memory_model memory(machine());

    for (const kind_row &row : s_kinds) {
        const std::vector<uint8_t> bytes = memory.build(row.kind, row.layout);
        kernel_dump whole;
        std::string reason;
        int shown = 0;

        ASSERT_EQ(read(bytes, &whole, &reason), KERNEL_DUMP_OK) << reason;
        for (size_t size = 8; size < bytes.size(); size += size < 0x2100 ? 1 : 61) {
            const std::vector<uint8_t> begin(bytes.begin(), bytes.begin() + (ptrdiff_t)size);
            const std::string told = "the file is truncated, " + std::to_string(size) + " of ";
            kernel_dump dump;
            const enum kernel_dump_error error = read(begin, &dump, &reason);

            ASSERT_EQ(error, dump.modules.empty() ? KERNEL_DUMP_CUT_OFF : KERNEL_DUMP_OK)
                << row.row << size << reason;
            if (error != KERNEL_DUMP_OK)
                continue;
            shown++;
            ASSERT_NE(gaps_of(dump).find(told), std::string::npos) << row.row << size;
            expect_part_of(dump, whole, size);
        }
        EXPECT_GT(shown, 10) << row.row;
    }
}

/* Each page of the model is needed: without it, the dump is rejected or reports a gap. */
TEST(memory_dump, test_missing_page_anywhere)
{
    const memory_model memory(machine());
    kernel_dump whole;
    std::string reason;

    ASSERT_EQ(read(memory.build(6, MEMORY_SDMP), &whole, &reason), KERNEL_DUMP_OK) << reason;
    for (const uint64_t number : memory.pages()) {
        memory_model part = memory;
        kernel_dump dump;

        part.drop(number * SPAN);
        if (read(part.build(6, MEMORY_SDMP), &dump, &reason) != KERNEL_DUMP_OK)
            continue;
        EXPECT_NE(gaps_of(dump), "") << number;
        expect_part_of(dump, whole, number);
    }
}

/* The gaps precede the stack. */
TEST_F(engine_test, test_incomplete_dump)
{
    memory_model memory(machine());
    collector output;

    memory.drop(memory.physical(STACK_2));
    write(memory.build(6, MEMORY_SDMP));
    create();
    EXPECT_EQ(play(m_path.c_str(), STACK_FLAGS, 99, &output), S_OK);
    EXPECT_EQ(m_filled, 3u);
    EXPECT_EQ(output.text,
              "The dump is incomplete: the stack from 0xffff850000001000 is incomplete, 4096 bytes "
              "are read: the page is not in the dump.\n"
              "Call Site\none+0x1234\n" UNWIND_NOTE "two+0x1\nnt+0x107\n");
}

/* The reader reads only the needed parts of a file as large as memory. The test never writes the
 * middle of the file. */
TEST_F(engine_test, test_dump_of_several_gib)
{
    const uint64_t far_out = 0x180001000;
    const memory_model memory(machine());
    std::vector<uint8_t> begin = memory.build(5, MEMORY_FDMP);
    const uint64_t first = memory.place_in_file(memory.pages()[0] * SPAN, MEMORY_FDMP);
    const std::vector<uint8_t> pages(begin.begin() + (ptrdiff_t)first, begin.end());
    collector output;
    LARGE_INTEGER place = {};
    DWORD written = 0;

    begin.resize(first);
    dump_put(&begin, MEMORY_FIRST_PAGE, far_out, 8);
    write(begin);
    HANDLE file = CreateFileW(m_path.c_str(), GENERIC_WRITE, 0, NULL, OPEN_EXISTING, 0, NULL);

    ASSERT_NE(file, INVALID_HANDLE_VALUE) << GetLastError();
    /* If this fails, files are sparse by default, or the test uses the space temporarily. */
    (void)DeviceIoControl(file, FSCTL_SET_SPARSE, NULL, 0, NULL, 0, &written, NULL);
    place.QuadPart = (LONGLONG)far_out;
    EXPECT_TRUE(SetFilePointerEx(file, place, NULL, FILE_BEGIN)) << GetLastError();
    EXPECT_TRUE(WriteFile(file, pages.data(), (DWORD)pages.size(), &written, NULL));
    CloseHandle(file);
    create();
    EXPECT_EQ(play(m_path.c_str(), 0, 99, &output), S_OK);
    EXPECT_EQ(output.text, "one+0x1234\n" UNWIND_NOTE "two+0x1\nnt+0x107\ntwo+0x22\n");
}
