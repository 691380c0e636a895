#include "platform_test.h"

#include <oxni/base/memory.h>
#include <oxni/base/str.h>

namespace
{
class memory : public platform_test
{
  protected:
    static oxnih_memory_stats stats()
    {
        oxnih_memory_stats now;
        oxnih_memory_get_stats(&now);
        return now;
    }
    /* Asks for the page's state, because a fault could not be caught. */
    static bool readable(const void *address)
    {
        MEMORY_BASIC_INFORMATION page;
        return VirtualQuery(address, &page, sizeof(page)) != 0 && page.State == MEM_COMMIT &&
               (page.Protect & PAGE_READWRITE) != 0;
    }
    static bool all(const unsigned char *bytes, size_t from, size_t to, unsigned char value)
    {
        for (size_t i = from; i < to; i++)
            if (bytes[i] != value)
                return false;
        return true;
    }
};

const enum oxnih_memory_mode MODES[] = {OXNIH_MEMORY_PLAIN, OXNIH_MEMORY_GUARD};

TEST_F(memory, blocks_are_zero_and_growing_keeps_bytes)
{
    const struct {
        size_t size, then;
    } rows[] = {
        {0,      0     },
        {0,      1     },
        {1,      0     },
        {1,      2     },
        {15,     4096  },
        {4096,   4097  },
        {4097,   4096  },
        {100,    200000},
        {200000, 3     },
        {4095,   4095  }
    };

    for (enum oxnih_memory_mode mode : MODES)
        for (const auto &row : rows) {
            oxnih_memory_stats before = stats();
            size_t kept = row.size < row.then ? row.size : row.then;
            oxnih_memory_set_mode(mode);
            auto *block = static_cast<unsigned char *>(oxni_zero_malloc_(row.size));
            ASSERT_NE(nullptr, block);
            EXPECT_TRUE(all(block, 0, row.size, 0)) << row.size;
            memset(block, 0x5a, row.size);
            block = static_cast<unsigned char *>(oxni_ralloc_(block, row.then));
            ASSERT_NE(nullptr, block);
            EXPECT_TRUE(all(block, 0, kept, 0x5a)) << row.size << " " << row.then;
            EXPECT_TRUE(all(block, kept, row.then, 0)) << row.size << " " << row.then;
            EXPECT_EQ(before.live_blocks + 1, stats().live_blocks);
            EXPECT_EQ(before.live_bytes + row.then, stats().live_bytes);
            EXPECT_EQ(before.allocations + 2, stats().allocations);
            oxni_free_(block);
            EXPECT_EQ(before.live_bytes, stats().live_bytes);
        }
}

TEST_F(memory, a_block_of_no_bytes_is_one_of_its_own)
{
    for (enum oxnih_memory_mode mode : MODES) {
        oxnih_memory_set_mode(mode);
        void *a = oxni_zero_malloc_(0), *b = oxni_zero_malloc_(0);
        EXPECT_NE(a, b);
        EXPECT_NE(nullptr, a);
        oxni_free_(a);
        oxni_free_(b);
        oxni_free_(NULL);
    }
    EXPECT_EQ(nullptr, oxni_strdup(NULL));
    EXPECT_EQ(nullptr, oxni_zero_malloc_(SIZE_MAX));
    oxnih_memory_set_mode(OXNIH_MEMORY_GUARD);
    EXPECT_EQ(nullptr, oxni_zero_malloc_(SIZE_MAX));
}

TEST_F(memory, guarded_blocks_end_at_an_inaccessible_page)
{
    const size_t sizes[] = {1, 7, 8, 16, 780, 4095, 4096, 4097, 65536, 70 * 1024 * 1024};

    oxnih_memory_set_mode(OXNIH_MEMORY_GUARD);
    for (size_t size : sizes) {
        char *block = static_cast<char *>(oxni_zero_malloc_(size));
        ASSERT_NE(nullptr, block) << size;
        EXPECT_TRUE(readable(block)) << size;
        EXPECT_TRUE(readable(block + size - 1)) << size;
        EXPECT_FALSE(readable(block + size)) << size;
        oxni_free_(block);
        EXPECT_FALSE(readable(block)) << size;
        EXPECT_FALSE(readable(block + size - 1)) << size;
    }
}

TEST_F(memory, guard_mode_lasts_for_whole_runs)
{
    void *first;
    char *kept;

    oxnih_memory_set_mode(OXNIH_MEMORY_GUARD);
    first = oxni_zero_malloc_(5000);
    kept = oxni_strdup("kept");
    /* More address space than is kept back after blocks are freed. */
    for (int i = 0; i < 80; i++)
        oxni_free_(oxni_zero_malloc_(60 * 1024 * 1024));
    for (int i = 0; i < 50000; i++)
        oxni_free_(oxni_zero_malloc_(100));
    EXPECT_STREQ("kept", kept);
    oxni_free_(first);
    oxni_free_(kept);
}

TEST_F(memory, the_nth_allocation_fails)
{
    const struct {
        uint64_t nth;
        int forever;
        const char *outcome; /* of six in a row */
    } rows[] = {
        {0, 0, "......"},
        {1, 0, "x....."},
        {3, 0, "..x..."},
        {6, 0, ".....x"},
        {7, 0, "......"},
        {1, 1, "xxxxxx"},
        {4, 1, "...xxx"},
        {0, 1, "......"}
    };

    for (const auto &row : rows) {
        std::string outcome;
        uint64_t failed = stats().failed;
        oxnih_memory_fail(row.nth, row.forever);
        for (int i = 0; i < 6; i++) {
            void *block = i % 2 == 0 ? oxni_zero_malloc_(8) : oxni_strdup("text");
            outcome += block == NULL ? 'x' : '.';
            oxni_free_(block);
        }
        oxnih_memory_fail(0, 0);
        EXPECT_EQ(row.outcome, outcome) << row.nth << " " << row.forever;
        EXPECT_EQ(failed + static_cast<uint64_t>(std::count(outcome.begin(), outcome.end(), 'x')),
                  stats().failed);
    }
}

TEST_F(memory, growing_that_fails_leaves_the_block)
{
    char *block = oxni_strdup("text");

    oxnih_memory_fail(1, 0);
    EXPECT_EQ(nullptr, oxni_ralloc_(block, 1000));
    EXPECT_STREQ("text", block);
    EXPECT_EQ(nullptr, (oxnih_memory_fail(1, 0), json_object()));
    oxni_free_(block);
}

TEST_F(memory, a_bad_free_ends_the_run_and_says_what_it_was)
{
    static char elsewhere[16];
    const struct {
        const char *row;
        enum oxnih_memory_mode mode;
        int kind; /* 0 freed twice, 1 inside a block, 2 not from here, 3 grown after it was freed */
        const char *said;
    } rows[] = {
        {"twice, guarded",  OXNIH_MEMORY_GUARD, 0, "of 24 bytes from platform_tests.exe+0x"   },
        {"twice, plain",    OXNIH_MEMORY_PLAIN, 0, "or it was freed before"                   },
        {"inside, guarded", OXNIH_MEMORY_GUARD, 1, "lies 4 bytes inside block"                },
        {"inside, plain",   OXNIH_MEMORY_PLAIN, 1, "lies 4 bytes inside block"                },
        {"not a block",     OXNIH_MEMORY_PLAIN, 2, "no allocation gave"                       },
        {"grown, guarded",  OXNIH_MEMORY_GUARD, 3, "was freed before by platform_tests.exe+0x"},
    };

    for (const auto &row : rows) {
        oxnih_memory_set_mode(row.mode);
        char *block = static_cast<char *>(oxni_zero_malloc_(24));
        if (row.kind == 0 || row.kind == 3)
            oxni_free_(block);
        EXPECT_THROW((void)(row.kind == 3   ? oxni_ralloc_(block, 50)
                            : row.kind == 2 ? (oxni_free_(elsewhere), nullptr)
                                            : (oxni_free_(block + 4 * row.kind), nullptr)),
                     run_ended)
            << row.row;
        std::string said = complaints();
        EXPECT_NE(std::string::npos, said.find("bad free by platform_tests.exe+0x")) << said;
        EXPECT_NE(std::string::npos, said.find(row.said)) << row.row << ": " << said;
        if (row.kind == 1 || row.kind == 2)
            oxni_free_(block);
    }
}

TEST_F(memory, leaks_are_booked_on_who_asked)
{
    static std::vector<std::string> sites;
    uint64_t before = stats().live_blocks;
    void *block = oxni_zero_malloc_(100000);
    /* Text of Jansson and of the platform: not theirs, but of who called them. */
    json_t *value = json_string(std::string(90000, 'x').c_str());
    void *wide = oxni_str_utf8_to_unicode(std::string(40000, 'x').c_str());

    sites.clear();
    oxnih_memory_leaks(
        [](const char *site, uint64_t blocks, uint64_t bytes, void *) {
            if (bytes >= 80000)
                sites.push_back(std::string(site).substr(0, 21) + std::to_string(bytes / 1000) +
                                "k in " + std::to_string(blocks));
        },
        NULL);
    ASSERT_EQ(3U, sites.size());
    EXPECT_EQ("platform_tests.exe+0x100k in 1", sites[0]);
    EXPECT_EQ("platform_tests.exe+0x90k in 2", sites[1]);
    EXPECT_EQ("platform_tests.exe+0x80k in 1", sites[2]);
    oxni_free_(block);
    json_decref(value);
    oxni_str_free(wide);
    EXPECT_EQ(before, stats().live_blocks);
}

TEST_F(memory, dropping_all_forgets_blocks_of_both_modes)
{
    oxni_zero_malloc_(10);
    oxnih_memory_set_mode(OXNIH_MEMORY_GUARD);
    void *block = oxni_zero_malloc_(10);
    oxnih_memory_drop_all();
    EXPECT_EQ(0U, stats().live_blocks);
    EXPECT_EQ(0U, stats().live_bytes);
    EXPECT_FALSE(readable(block));
}

TEST_F(memory, running_out_for_good_ends_the_process)
{
    EXPECT_THROW(oxni_out_of_memory_("x.cpp", 12), run_ended);
    EXPECT_EQ("[vkl] [x.cpp:12] Out of memory\n",
              logged("Out of memory").substr(logged("Out of memory").find("[vkl]")));
    EXPECT_NE("", logged("] [fatal] [pid:"));
}
} // namespace
