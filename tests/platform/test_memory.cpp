#include "platform_test.h"

#include <oxni/base/memory.h>
#include <oxni/base/mutex.h>
#include <oxni/base/str.h>

namespace
{
class memory : public platform_test
{
  protected:
    static char *make(size_t size)
    {
        return static_cast<char *>(oxni_zero_malloc_(size));
    }
    /* Queries the page's state, because a fault could not be caught. */
    static bool readable(const void *address)
    {
        MEMORY_BASIC_INFORMATION page;
        return VirtualQuery(address, &page, sizeof(page)) != 0 && page.State == MEM_COMMIT &&
               (page.Protect & PAGE_READWRITE) != 0;
    }
};

TEST_F(memory, blocks_are_zero_and_resizing_keeps_bytes)
{
    const size_t sizes[] = {0, 1, 15, 4096, 4097, 200000};

    for (enum oxnih_memory_mode mode : {OXNIH_MEMORY_PLAIN, OXNIH_MEMORY_GUARD, OXNIH_MEMORY_FENCE})
        for (size_t size : sizes)
            for (size_t then : sizes) {
                oxnih_memory_set_mode(mode);
                char *block = make(size), *other = make(0);
                EXPECT_EQ(std::string(size, '\0'), std::string(block, size));
                EXPECT_NE(other, block); /* also for 0 bytes */
                oxni_free_(other);
                memset(block, 'x', size);
                block = static_cast<char *>(oxni_ralloc_(block, then));
                std::string kept(std::min(size, then), 'x');
                kept.resize(then);
                EXPECT_EQ(kept, std::string(block, then)) << size;
                EXPECT_EQ(then, memory_stats().live_bytes);
                oxni_free_(block);
                EXPECT_EQ(nullptr, make(SIZE_MAX));
            }
}

TEST_F(memory, guarded_blocks_end_at_an_inaccessible_page)
{
    oxnih_memory_set_mode(OXNIH_MEMORY_GUARD);
    for (size_t size : {1U, 780U, 4095U, 4096U, 4097U, 70U * 1024 * 1024}) {
        char *block = make(size);
        EXPECT_TRUE(readable(block) && readable(block + size - 1)) << size;
        EXPECT_FALSE(readable(block + size)) << size;
        oxni_free_(block);
        EXPECT_FALSE(readable(block)) << size;
    }
}

TEST_F(memory, fenced_blocks_end_at_an_inaccessible_page)
{
    oxnih_memory_set_mode(OXNIH_MEMORY_FENCE);
    for (int agent = 1; agent <= 2; agent++) {
        for (size_t size : {1U, 780U, 4095U, 4096U, 4097U}) {
            char *block = make(size);
            EXPECT_TRUE(readable(block) && readable(block + size - 1)) << size;
            EXPECT_FALSE(readable(block + size)) << size;
            EXPECT_EQ(std::string(size, '\0'), std::string(block, size)) << agent;
            memset(block, 'x', size);
        }
        oxnih_memory_drop_all(); /* the next agent reuses the pages */
    }
    std::vector<char *> blocks;
    for (int i = 0; i < 20000; i++) /* more than the fence mode has slots */
        blocks.push_back(make(24));
    for (char *block : blocks) {
        EXPECT_FALSE(readable(block + 24));
        oxni_free_(block);
    }
    EXPECT_EQ(0U, memory_stats().live_blocks);
}

TEST_F(memory, writing_to_a_freed_fenced_block_is_reported_at_the_end)
{
    for (size_t at : {0U, 23U}) {
        oxnih_memory_set_mode(OXNIH_MEMORY_FENCE);
        char *block = make(24), *other = make(24);
        oxni_free_(other);
        oxni_free_(block);
        EXPECT_EQ(std::string(24, '\xdd'), std::string(block, 24));
        block[at] = 'x';
        oxnih_memory_drop_all();
        std::string said = complaints();
        EXPECT_EQ(0U, said.find("block ")) << said;
        EXPECT_NE(std::string::npos, said.find(" of 24 bytes from platform_tests.exe+0x")) << said;
        EXPECT_NE(std::string::npos,
                  said.find(" was written to after its free by platform_tests.exe+0x"))
            << said;
        EXPECT_EQ(said.find("block "), said.rfind("block ")) << said;
        oxnih_memory_drop_all();
        EXPECT_EQ("", complaints());
    }
}

TEST_F(memory, drop_all_frees_blocks_of_both_modes)
{
    make(10);
    oxnih_memory_set_mode(OXNIH_MEMORY_GUARD);
    char *block = make(10);
    oxnih_memory_drop_all();
    EXPECT_EQ(0U, memory_stats().live_blocks);
    EXPECT_FALSE(readable(block));
}

/* A process that ends does not destroy its mutexes. */
TEST_F(memory, drop_all_frees_mutexes_completely)
{
    auto heap_blocks = [] {
        PROCESS_HEAP_ENTRY entry = {};
        int blocks = 0;

        while (HeapWalk(GetProcessHeap(), &entry))
            blocks += (entry.wFlags & PROCESS_HEAP_ENTRY_BUSY) != 0;
        return blocks;
    };
    const int before = heap_blocks();

    for (int i = 0; i < 100; i++) {
        oxni_mutex *mutex;
        EXPECT_EQ(0, oxni_mutex_init(&mutex));
    }
    oxnih_memory_drop_all();
    EXPECT_LT(heap_blocks(), before + 50);
}

TEST_F(memory, the_nth_allocation_fails)
{
    for (uint64_t nth : {0U, 1U, 4U})
        for (int forever : {0, 1}) {
            oxnih_memory_fail(nth, forever);
            for (uint64_t i = 1; i <= 6; i++) {
                char *made = i % 2 == 0 ? oxni_strdup("text") : make(8);
                bool fails = nth != 0 && (i == nth || (forever != 0 && i > nth));
                EXPECT_EQ(fails, made == nullptr) << nth << forever << i;
                oxni_free_(made);
            }
        }
    oxnih_memory_fail(2, 0);
    char *block = oxni_strdup("text");
    EXPECT_EQ(nullptr, oxni_ralloc_(block, 1000));
    EXPECT_STREQ("text", block);
    oxni_free_(block);
    oxnih_memory_fail(1, 0);
    EXPECT_EQ(nullptr, json_object());
}

TEST_F(memory, a_bad_free_is_described_and_ends_the_run)
{
    static char elsewhere[16];
    /* clang-format off */
    const struct {
        enum oxnih_memory_mode mode;
        void (*misuse)(char *block);
        const char *said;
    } rows[] = {
        {OXNIH_MEMORY_PLAIN, [](char *block) { oxni_free_(block); oxni_free_(block); },
         "or it was freed before"},
        {OXNIH_MEMORY_GUARD, [](char *block) { oxni_free_(block); oxni_ralloc_(block, 50); },
         " of 24 bytes from platform_tests.exe+0x"},
        {OXNIH_MEMORY_FENCE, [](char *block) { oxni_free_(block); oxni_free_(block); },
         " was freed before by platform_tests.exe+0x"},
        {OXNIH_MEMORY_PLAIN, [](char *block) { oxni_free_(block + 4); }, "lies 4 bytes inside"},
        {OXNIH_MEMORY_GUARD, [](char *) { oxni_free_(elsewhere); }, "no allocation gave"},
    };
    /* clang-format on */

    for (const auto &row : rows) {
        oxnih_memory_set_mode(row.mode);
        EXPECT_THROW(row.misuse(make(24)), run_ended) << row.said;
        std::string said = complaints();
        EXPECT_EQ(0U, said.find("bad free by platform_tests.exe+0x")) << said;
        EXPECT_NE(std::string::npos, said.find(row.said)) << said;
    }
    oxnih_memory_drop_all();
    EXPECT_THROW(oxni_out_of_memory_("x.cpp", 12), run_ended);
    EXPECT_TRUE(logged("] [fatal] [pid:"));
    EXPECT_TRUE(logged("] [vkl] [x.cpp:12] Out of memory\n"));
}

/* Allocations by Jansson and by the platform are attributed to their callers. */
TEST_F(memory, leaks_are_attributed_to_the_caller)
{
    void *block = make(100000);
    json_t *value = json_string(std::string(90000, 'x').c_str());
    void *wide = oxni_str_utf8_to_unicode(std::string(40000, 'x').c_str());

    oxnih_memory_leaks(
        [](const char *site, uint64_t blocks, uint64_t bytes, void *) {
            if (bytes >= 80000)
                note(std::string(site).substr(0, 21) + std::to_string(bytes / 1000) + "k in " +
                     std::to_string(blocks));
        },
        nullptr);
    EXPECT_EQ("platform_tests.exe+0x100k in 1 platform_tests.exe+0x90k in 2 "
              "platform_tests.exe+0x80k in 1",
              notes());
    oxni_free_(block);
    json_decref(value);
    oxni_str_free(wide);
}
} // namespace
