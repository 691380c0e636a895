/* Tests of memory dumps: every kind of dump of one machine gives the same result, and missing data
 * is reported, not invented. */
#include "engine_fixture.h"
#include "dump_writer/memory_model.h"

#include <algorithm>

#include <winioctl.h>

static constexpr uint64_t TWO_BASE = 0xFFFFF80100010000ull;
static constexpr uint64_t SPAN = 0x1000ull;

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
    const reading small = read(dump_build(machine()));

    ASSERT_EQ(small.error, KERNEL_DUMP_OK) << small.findings;
    EXPECT_EQ(small.sites, s_sites);
    for (const kind_row &row : s_kinds) {
        for (const unsigned large : {12u, 21u, 30u}) {
            SCOPED_TRACE(testing::Message() << row.row << large);
            const reading made = read(memory_model(machine(), large).build(row.kind, row.layout));

            EXPECT_EQ(made.error, KERNEL_DUMP_OK);
            EXPECT_EQ(made.findings, "");
            EXPECT_EQ(made.dump.kind, row.kind);
            EXPECT_EQ(made.dump.crash_time_100ns, small.dump.crash_time_100ns);
            EXPECT_EQ(made.names, small.names);
            EXPECT_EQ(made.sites, s_sites);
            expect_part_of(small.dump, made.dump, large);
        }
    }
}

/* Abbreviations for the rows: virtual addresses of the machine, and levels of its page tables. */
static constexpr uint64_t HEAD = 0xFFFFF80000200000ull;
#define ENTRY(i) memory_model::entry_of(i)
#define TEXTS(i) memory_model::text_of(i)
static constexpr uint64_t STACK = 0xFFFF850000001000ull;
static constexpr uint64_t STACK_2 = STACK + SPAN;
static constexpr int PAGE = 0;
static constexpr int PT = 12;
static constexpr int PD = 21;
static constexpr int PDPT = 30;
static constexpr int PML4 = 39;
static constexpr char ALL[] = "nt one two";
#define RIP         "one+0x1234"
#define REST        " two+0x1 nt+0x107 two+0x22"
#define ADDRESS     "0xfffff801`00001234"
#define NAMELESS    "Unknown_Module_fffff801`00000000"
#define NO_ONE      "nt " NAMELESS " two"

#define NEXT(i)     (ENTRY(i) + MEMORY_NEXT)
#define PREVIOUS(i) (ENTRY(i) + MEMORY_PREVIOUS)
#define BASE(i)     (ENTRY(i) + MEMORY_BASE)
#define NAME(i)     (ENTRY(i) + MEMORY_NAME)
#define FROM(n, m)  #n " are read from its start and " #m " from its end: "
static constexpr DWORD TRANSITION = MEMORY_TRANSITION;
static constexpr DWORD PROTOTYPE = MEMORY_PROTOTYPE;
static constexpr char UNNAMED[] = "the names of 3 modules cannot be read";
#define UNKNOWN "nt " NAMELESS " Unknown_Module_fffff801`00010000"

enum edit {
    DROP,    /* omits the page of the address, or the table with its entry of a level */
    ENTRIES, /* replaces the bits besides the frame in the texts' entries of a level */
    PUT,     /* writes a value of some bytes to the address */
};

/* Changes of the memory, and what is read then: names of the modules (NULL: rejected), call sites
 * (NULL: not compared), two parts of the reason or of the only gap (empty: there is none). */
static const struct memory_row {
    const char *row;
    enum edit edit;
    uint64_t address, value;
    unsigned of; /* level, or bytes */
    const char *names, *sites, *findings, *also;
} s_memory_rows[] = {
  /* clang-format off */
    {"head",            DROP, HEAD,     0, PAGE, nullptr,      nullptr,                    "page is not",        ""},
    {"head's table",    DROP, HEAD,     0, PT,   nullptr,      nullptr,                    "table is not",       ""},
    {"its directory",   DROP, HEAD,     0, PD,   nullptr,      nullptr,                    "table is not",       ""},
    {"directories",     DROP, HEAD,     0, PDPT, nullptr,      nullptr,                    "table is not",       ""},
    {"topmost table",   DROP, HEAD,     0, PML4, nullptr,      nullptr,                    "table is not",       ""},
    {"all entries",     DROP, ENTRY(0), 0, PT,   nullptr,      nullptr,                    "table is not",       ""},
    {"first entry",     DROP, ENTRY(0), 0, PAGE, "one two", RIP " two+0x1 two+0x22", ", 0 are",            ""},
    {"second entry",    DROP, ENTRY(1), 0, PAGE, "nt two",  ADDRESS REST,            ", 1 are",            ""},
    {"last entry",      DROP, ENTRY(2), 0, PAGE, "nt one",  RIP " nt+0x107",         ", 2 are",            ""},
    {"a name",          DROP, TEXTS(1), 0, PAGE, NO_ONE,    NAMELESS "+0x1234" REST, "names of 1",         ""},
    {"stack",           DROP, STACK,    0, PAGE, ALL,       RIP,                     ", 0 bytes",          ""},
    {"its second",      DROP, STACK_2,  0, PAGE, ALL,       RIP " two+0x1 nt+0x107", "4096 bytes",         ""},
    {"its table",       DROP, STACK,    0, PT,   ALL,       RIP,                     "read: a page table", ""},
    {"present",                 ENTRIES, 0, MEMORY_PRESENT,                      PT, ALL,     s_sites, "",      ""},
    {"present and transition",  ENTRIES, 0, MEMORY_PRESENT | 0xC00,              PT, ALL,     s_sites, "",      ""},
    {"ignored bits",            ENTRIES, 0, MEMORY_PRESENT | 0xFFF0000000000F7E, PT, ALL,     s_sites, "",      ""},
    {"transition",              ENTRIES, 0, TRANSITION,                          PT, ALL,     s_sites, "",      ""},
    {"prototype",               ENTRIES, 0, PROTOTYPE,                           PT, UNKNOWN, nullptr,    UNNAMED, ""},
    {"transition, prototype",   ENTRIES, 0, TRANSITION | PROTOTYPE,              PT, UNKNOWN, nullptr,    UNNAMED, ""},
    {"neither",                 ENTRIES, 0, 0,                                   PT, UNKNOWN, nullptr,    UNNAMED, ""},
    {"transition, hidden",      ENTRIES, 0, TRANSITION | 1ull << 45,             PT, UNKNOWN, nullptr,    UNNAMED, ""},
    {"directory in transition", ENTRIES, 0, TRANSITION,                          PD, UNKNOWN, nullptr,    UNNAMED, ""},
    {"table as a large page",   ENTRIES, 0, MEMORY_PRESENT | MEMORY_LARGE,       PD, UNKNOWN, nullptr,    UNNAMED, ""},
    {"next is itself",  PUT, NEXT(1),                ENTRY(1),             8, ALL,      nullptr,    FROM(2, 1), "point back"},
    {"last to first",   PUT, NEXT(2),                ENTRY(0),             8, ALL,      nullptr,    FROM(3, 0), "point back"},
    {"past one",        PUT, NEXT(0),                ENTRY(2),             8, ALL,      nullptr,    FROM(1, 2), "point back"},
    {"back to itself",  PUT, PREVIOUS(1),            ENTRY(1),             8, ALL,      nullptr,    FROM(1, 2), "point back"},
    {"next is nowhere", PUT, NEXT(0),                0,                    8, ALL,      nullptr,    FROM(1, 2), "not mapped"},
    {"no address",      PUT, NEXT(0),                ENTRY(1) << 16 >> 16, 8, ALL,      nullptr,    FROM(1, 2), "not mapped"},
    {"next wraps",      PUT, NEXT(0),                UINT64_MAX - 7,       8, ALL,      nullptr,    FROM(1, 2), "not mapped"},
    {"head to itself",  PUT, HEAD + MEMORY_NEXT,     HEAD,                 8, ALL,      nullptr,    FROM(0, 3), "point back"},
    {"head to first",   PUT, HEAD + MEMORY_PREVIOUS, ENTRY(0),             8, ALL,      nullptr,    FROM(3, 0), "point back"},
    {"image wraps",     PUT, BASE(1),                UINT64_MAX - 0xFFFE,  8, "nt two", nullptr,    FROM(1, 1), "does not fit"},
    {"no name",         PUT, NAME(1),                0,                    2, ALL,      s_sites, "",         ""},
    {"odd name",        PUT, NAME(1),                3,                    2, ALL,      s_sites, "",         ""},
    {"beyond capacity", PUT, NAME(1),                0x20004,              4, ALL,      s_sites, "",         ""},
    {"name too long",   PUT, NAME(1),                0x4000400,            4, ALL,      s_sites, "",         ""},
    {"name nowhere",    PUT, NAME(1) + 8,            0,                    8, ALL,      s_sites, "",         ""},
    {"name wraps",      PUT, NAME(1) + 8,            UINT64_MAX,           8, ALL,      s_sites, "",         ""},
  /* clang-format on */
};

static void change(const memory_row &row, memory_model *memory)
{
    if (row.edit == PUT)
        memory->put(row.address, row.value, row.of);
    if (row.edit == DROP)
        memory->drop(row.of == PAGE ? memory->physical(row.address)
                                    : memory->entry_place(row.address, row.of));
    for (size_t i = 0; row.edit == ENTRIES && i < (row.of == PT ? 3 : 1); i++) {
        const uint64_t place = memory->entry_place(TEXTS(i), row.of);

        memory->put_physical(place, (memory->get_physical(place) & 0x000FFFFFFFFFF000) | row.value);
    }
}

TEST(memory_dump, test_changed_memory)
{
    for (const memory_row &row : s_memory_rows) {
        for (const kind_row &kind : s_kinds) {
            SCOPED_TRACE(testing::Message() << row.row << ", " << kind.row);
            memory_model memory(machine());

            change(row, &memory);
            const reading made = read(memory.build(kind.kind, kind.layout));

            EXPECT_EQ(made.error, row.names != nullptr ? KERNEL_DUMP_OK : KERNEL_DUMP_NO_MODULES);
            EXPECT_TRUE(made.mentions(row.findings) &&
                        (row.also[0] == '\0' || made.mentions(row.also)))
                << made.findings;
            EXPECT_LE(made.dump.gaps.size(), 1u) << made.findings;
            EXPECT_EQ(made.names, row.names != nullptr ? row.names : "");
            if (row.sites != nullptr) {
                EXPECT_EQ(made.sites, row.sites);
            }
        }
    }
}

/* The unused bits of the bitmap's last byte are set, and the file is longer than its pages. The
 * reader must ignore both. */
TEST(memory_dump, test_page_after_bitmap)
{
    memory_model memory(machine());
    const uint64_t after = memory.pages().back() + 1;

    ASSERT_NE(after % 8, 0u);
    memory.put_physical(memory.entry_place(TEXTS(1), PT), after * SPAN | MEMORY_PRESENT);
    std::vector<uint8_t> bytes = memory.build(6, MEMORY_SDMP);

    bytes.resize(bytes.size() + SPAN, 'A');
    EXPECT_EQ(read(bytes).names, NO_ONE);
}

TEST(memory_dump, test_list_length)
{
    memory_model empty(machine());

    empty.put(HEAD + MEMORY_NEXT, HEAD, 8);
    empty.put(HEAD + MEMORY_PREVIOUS, HEAD, 8);
    const reading none = read(empty.build(1, MEMORY_RUNS));

    EXPECT_EQ(none.error, KERNEL_DUMP_NO_MODULES);
    EXPECT_TRUE(none.mentions("empty")) << none.findings;
    for (const size_t more : {4093u, 4094u}) {
        dump_model model = machine();

        for (size_t i = 0; i < more; i++)
            model.modules.push_back({u"x", 0xFFFFA00000000000 + 0x1000 * i, 0x1000});
        const reading made = read(memory_model(model).build(6, MEMORY_SDMP));

        EXPECT_EQ(made.dump.modules.size(), 4096u);
        EXPECT_TRUE(made.mentions(more == 4094 ? "too many" : "")) << made.findings;
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
        SCOPED_TRACE(row.row);
        dump_model model = machine();

        model.rsp = STACK + row.rsp;
        memory_model memory(model);

        for (uint64_t page = 2; page < 20; page++)
            memory.put(STACK + page * SPAN, page, 8);
        memory.put(0 - 8ull, 1, 8); /* the highest page exists, but a stack in it would wrap */
        const reading made = read(memory.build(5, MEMORY_FDMP));

        EXPECT_EQ(made.error, KERNEL_DUMP_OK);
        EXPECT_EQ(made.dump.stack.size(), row.bytes);
        EXPECT_TRUE(made.mentions(row.gap)) << made.findings;
        EXPECT_EQ(kernel_dump_stack_value(made.dump, STACK + 2 * SPAN),
                  row.rsp <= 2 * SPAN ? 2u : 0u);
    }
}

/* Offsets in a small dump: names and a base in the list of modules; and the file size. */
static constexpr size_t NAME_0 = DUMP_STACK + 64;
static constexpr size_t NAME_1 = NAME_0 + 0x90;
static constexpr size_t NAME_2 = NAME_1 + 0x90;
static constexpr size_t BASE_1 = NAME_1 + 0x38;
static constexpr uint64_t FILE_BYTES = 0x2336;

#define SMALL  4, MEMORY_RUNS
#define RUNS_1 1, MEMORY_RUNS
#define FDMP_5 5, MEMORY_FDMP
#define SDMP_6 6, MEMORY_SDMP
static constexpr size_t FLAGS = DUMP_CONTEXT + 0x30;
static constexpr uint64_t TWO_40 = 0x10000000000ull;
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
    {"unknown kind",      SMALL,  DUMP_KIND,             3,                  4, KERNEL_DUMP_KIND, "unknown"              },
    {"no context",        SMALL,  DUMP_CONTEXT_AT,       0,                  4, NOT_CTX,          "contains no"          },
    {"no Rip in it",      SMALL,  DUMP_CONTEXT + 0x30,   0x100002,           4, NOT_CTX,          "0x100002"             },
    {"context cut",       SMALL,  DUMP_CONTEXT_AT,       FILE_BYTES - 0x4CF, 4, DAMAGED,          "context"              },
    {"mark runs out",     SMALL,  DUMP_VALID,            FILE_BYTES - 3,     4, DAMAGED,          "mark"                 },
    {"mark missing",      SMALL,  FILE_BYTES - 4,        'X',                1, DAMAGED,          "mark"                 },
    {"says longer",       SMALL,  DUMP_SIZE,             FILE_BYTES + 1,     4, CUT_OFF,          "truncated"            },
    {"stack runs out",    SMALL,  DUMP_STACK_AT,         FILE_BYTES - 63,    4, DAMAGED,          "stack"                },
    {"stack wraps",       SMALL,  DUMP_STACK_START,      0 - 63ull,          8, DAMAGED,          "space"                },
    {"count wraps",       SMALL,  DUMP_DRIVER_COUNT,     29826162,           4, DAMAGED,          "29826162"             },
    {"name outside",      SMALL,  NAME_0,                UINT32_MAX,         4, DAMAGED,          "module 0"             },
    {"length runs out",   SMALL,  NAME_1,                FILE_BYTES - 3,     4, DAMAGED,          "module 1"             },
    {"name runs out",     SMALL,  NAME_2,                FILE_BYTES - 4,     4, DAMAGED,          "module 2"             },
    {"module wraps",      SMALL,  BASE_1,                0 - 0xFFFFull,      8, DAMAGED,          "space"                },
    {"no runs",           RUNS_1, MEMORY_RUN_COUNT,      0,                  4, DAMAGED,          "hold 0 runs"          },
    {"too many runs",     RUNS_1, MEMORY_RUN_COUNT,      44,                 4, DAMAGED,          "hold 44 runs"         },
    {"never filled",      RUNS_1, MEMORY_RUN_COUNT,      0x45474150,         4, DAMAGED,          "runs"                 },
    {"runs left out",     RUNS_1, MEMORY_RUN_COUNT,      2,                  4, DAMAGED,          "have 6 pages"         },
    {"pages do not fit",  RUNS_1, MEMORY_RUN_PAGES,      7,                  8, DAMAGED,          "counts 7"             },
    {"huge page count",   RUNS_1, MEMORY_RUN_PAGES,      UINT64_MAX,         8, DAMAGED,          "counts 1844"          },
    {"run too far out",   RUNS_1, MEMORY_RUN_FIRST + 16, TWO_40 + 1,         8, DAMAGED,          "run 1"                },
    {"run wraps",         RUNS_1, MEMORY_RUN_FIRST + 8,  UINT64_MAX,         8, DAMAGED,          "run 0"                },
    {"run ends too far",  RUNS_1, MEMORY_RUN_FIRST + 8,  0xFFFFFFFF01,       8, DAMAGED,          "run 0"                },
    {"runs overlap",      RUNS_1, MEMORY_RUN_FIRST + 16, 0x102,              8, DAMAGED,          "run 1"                },
    {"runs for a bitmap", RUNS_1, DUMP_KIND,             5,                  4, DAMAGED,          "bitmap is missing"    },
    {"no bitmap",         FDMP_5, MEMORY_BITMAP,         'X',                1, DAMAGED,          "bitmap is missing"    },
    {"not finished",      SDMP_6, MEMORY_BITMAP + 4,     'X',                1, DAMAGED,          "bitmap is missing"    },
    {"bitmap for runs",   SDMP_6, DUMP_KIND,             1,                  4, DAMAGED,          "hold 0 runs"          },
    {"pages in bitmap",   SDMP_6, MEMORY_FIRST_PAGE,     MEMORY_BITS,        8, DAMAGED,          "reaches into"         },
    {"pages at 0",        SDMP_6, MEMORY_FIRST_PAGE,     0,                  8, DAMAGED,          "reaches into"         },
    {"pages far out",     SDMP_6, MEMORY_FIRST_PAGE,     UINT64_MAX,         8, CUT_OFF,          "first page"           },
    {"no bits",           SDMP_6, MEMORY_BITMAP_BITS,    0,                  8, DAMAGED,          "has 0 pages"          },
    {"too many bits",     SDMP_6, MEMORY_BITMAP_BITS,    TWO_40 + 1,         8, DAMAGED,          "no machine"           },
    {"bits do not fit",   SDMP_6, MEMORY_BITMAP_BITS,    0x7E41,             8, DAMAGED,          "of 4041 bytes"        },
    {"bits left out",     SDMP_6, MEMORY_BITMAP_BITS,    0x101,              8, DAMAGED,          "marks 1 pages"        },
    {"huge count",        SDMP_6, MEMORY_BITMAP_PRESENT, UINT64_MAX,         8, DAMAGED,          "counts 1844"          },
    {"a bit too many",    SDMP_6, MEMORY_BITS,           1,                  1, DAMAGED,          "pages, and its header"},
    {"no context",        SDMP_6, FLAGS,                 0x45474150,         4, NOT_CTX,          "Rip"                  },
    {"no page tables",    RUNS_1, DUMP_DIRECTORY_TABLE,  0,                  8, NOT_LIST,         "table is not"         },
    {"tables far out",    RUNS_1, DUMP_DIRECTORY_TABLE,  UINT64_MAX,         8, NOT_LIST,         "table is not"         },
    {"no list",           RUNS_1, DUMP_LOADED_MODULES,   0,                  8, NOT_LIST,         "not mapped"           },
    {"list nowhere",      RUNS_1, DUMP_LOADED_MODULES,   UINT64_MAX,         8, NOT_LIST,         "not mapped"           },
};

TEST(memory_dump, test_rejected)
{
    const memory_model memory(machine());

    for (const refused_memory_row &row : s_refused_rows) {
        SCOPED_TRACE(row.row);
        std::vector<uint8_t> bytes = row.kind == KERNEL_DUMP_KIND_TRIAGE
                                         ? dump_build(dump_model())
                                         : memory.build(row.kind, row.layout);

        dump_put(&bytes, row.place, row.value, row.bytes);
        const reading made = read(bytes);

        EXPECT_EQ(made.error, row.error) << made.findings;
        EXPECT_TRUE(made.mentions(row.reason)) << made.findings;
        EXPECT_TRUE(made.dump.modules.empty() && made.dump.gaps.empty() && made.dump.rip == 0);
        EXPECT_TRUE(made.dump.stack.empty());
    }
}

/* A truncated dump gives partial results and reports the truncation, or is rejected as
 * truncated. */
TEST(memory_dump, test_truncated_anywhere)
{
    const memory_model memory(machine());

    for (const kind_row &row : s_kinds) {
        const std::vector<uint8_t> bytes = memory.build(row.kind, row.layout);
        const reading whole = read(bytes);
        int shown = 0;

        for (size_t size = 8; size < bytes.size(); size += size < 0x2100 ? 1 : 241) {
            SCOPED_TRACE(testing::Message() << row.row << size);
            const reading made =
                read({bytes.begin(), bytes.begin() + static_cast<ptrdiff_t>(size)});

            ASSERT_EQ(made.error, made.dump.modules.empty() ? KERNEL_DUMP_CUT_OFF : KERNEL_DUMP_OK);
            if (made.error != KERNEL_DUMP_OK)
                continue;
            shown++;
            ASSERT_TRUE(made.mentions(", " + std::to_string(size) + " of "));
            expect_part_of(made.dump, whole.dump, size);
        }
        EXPECT_GT(shown, 10) << row.row;
    }
}

/* Each page of the model is needed: without it, the dump is rejected or reports a gap. */
TEST(memory_dump, test_missing_page_anywhere)
{
    const memory_model memory(machine());
    const reading whole = read(memory.build(6, MEMORY_SDMP));

    ASSERT_EQ(whole.error, KERNEL_DUMP_OK) << whole.findings;
    for (const uint64_t number : memory.pages()) {
        memory_model part = memory;

        part.drop(number * SPAN);
        const reading made = read(part.build(6, MEMORY_SDMP));

        EXPECT_NE(made.findings, "") << number;
        if (made.error == KERNEL_DUMP_OK)
            expect_part_of(made.dump, whole.dump, number);
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
    EXPECT_EQ(play(path_.c_str(), STACK_FLAGS, 99, &output), S_OK);
    EXPECT_EQ(filled_, 3u);
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
    const std::vector<uint8_t> pages(begin.begin() + static_cast<ptrdiff_t>(first), begin.end());
    collector output;
    LARGE_INTEGER place = {};
    DWORD written = 0;

    begin.resize(first);
    dump_put(&begin, MEMORY_FIRST_PAGE, far_out, 8);
    write(begin);
    HANDLE file = CreateFileW(path_.c_str(), GENERIC_WRITE, 0, nullptr, OPEN_EXISTING, 0, nullptr);

    ASSERT_NE(file, INVALID_HANDLE_VALUE) << GetLastError();
    /* If this fails, files are sparse by default, or the test uses the space temporarily. */
    (void)DeviceIoControl(file, FSCTL_SET_SPARSE, nullptr, 0, nullptr, 0, &written, nullptr);
    place.QuadPart = static_cast<LONGLONG>(far_out);
    EXPECT_TRUE(SetFilePointerEx(file, place, nullptr, FILE_BEGIN)) << GetLastError();
    EXPECT_TRUE(WriteFile(file, pages.data(), static_cast<DWORD>(pages.size()), &written, nullptr));
    CloseHandle(file);
    create();
    EXPECT_EQ(play(path_.c_str(), 0, 99, &output), S_OK);
    EXPECT_EQ(output.text, "one+0x1234\n" UNWIND_NOTE "two+0x1\nnt+0x107\ntwo+0x22\n");
}
