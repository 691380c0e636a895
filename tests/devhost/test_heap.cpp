#include "calls/heap.h"

#include <cstdint>
#include <cstdlib>
#include <cstring>

#include <algorithm>
#include <map>
#include <string>
#include <thread>

#include <gtest/gtest.h>

#include <oxni/base/memory.h>

#include "../../platform/liboxnibase/host.h"

namespace
{
/* What the C runtime promises, with sizes around those at which blocks change their class. */
TEST(heap, blocks_keep_their_bytes)
{
    std::map<char *, std::pair<size_t, char>> blocks;
    char fill = 'a';
    auto is_kept = [](const char *block, size_t bytes, char filled) {
        return std::all_of(block, block + bytes, [filled](char c) { return c == filled; });
    };

    heap_open();
    for (size_t size : {0u, 1u, 15u, 16u, 17u, 511u, 512u, 513u, 640u, 641u, 1023u, 1024u, 1025u,
                        65536u, 65537u, 131072u, 131073u, 400000u})
        for (size_t then : {0u, 1u, 16u, 17u, 600u, 131072u, 131073u}) {
            char *block = static_cast<char *>(malloc(size));
            ASSERT_TRUE(block != nullptr && reinterpret_cast<uintptr_t>(block) % 16 == 0) << size;
            memset(block, fill, size);
            if (then != 0)
                block = static_cast<char *>(realloc(block, then));
            EXPECT_TRUE(is_kept(block, then != 0 ? std::min(size, then) : size, fill)) << size;
            memset(block, fill, then != 0 ? then : size);
            blocks[block] = {then != 0 ? then : size, fill++};
        }
    for (const auto &block : blocks) {
        EXPECT_TRUE(is_kept(block.first, block.second.first, block.second.second))
            << block.second.first;
        free(block.first);
    }
    for (size_t size : {1u, 600u, 131072u, 131073u}) {
        char *block = static_cast<char *>(calloc(1, size));
        EXPECT_TRUE(is_kept(block, size, '\0')) << size;
        free(block);
    }
    EXPECT_EQ(nullptr, realloc(malloc(10), 0));
    volatile size_t huge = SIZE_MAX / 2;
    EXPECT_EQ(nullptr, calloc(huge, 3));
}

TEST(heap, threads_free_each_others_blocks)
{
    heap_open();
    void *of_host = malloc(100), *of_thread = nullptr;
    const uintptr_t first = reinterpret_cast<uintptr_t>(of_host);

    std::thread([&] {
        of_thread = malloc(100);
        free(of_host);
    }).join();
    free(of_thread);
    void *next = malloc(100);
    EXPECT_NE(first, reinterpret_cast<uintptr_t>(next)) << "never reused";
    free(next);
}

std::string lost_blocks(void)
{
    std::string text;

    oxnih_memory_lost(
        GetModuleHandleW(nullptr),
        [](const char *, uint64_t blocks, uint64_t bytes, void *user) {
            *static_cast<std::string *>(user) +=
                std::to_string(blocks) + " of " + std::to_string(bytes) + " ";
        },
        &text);
    return text;
}

/* A block that only a block of the heap points to is not lost until that one is freed. */
TEST(heap, lost_blocks_are_looked_for_in_it)
{
    heap_open();
    oxnih_memory_set_mode(OXNIH_MEMORY_GUARD);
    for (size_t size : {32u, 4000u}) {
        void **holder = static_cast<void **>(malloc(size));
        const uintptr_t address = reinterpret_cast<uintptr_t>(holder);
        holder[size / sizeof(void *) - 1] = oxni_zero_malloc_(56);
        EXPECT_EQ("", lost_blocks()) << size;
        free(holder);
        EXPECT_EQ("1 of 56 ", lost_blocks()) << size;
        /* The rest of a block that is given out again does not count. */
        void *again = malloc(size - sizeof(void *));
        EXPECT_EQ(address, reinterpret_cast<uintptr_t>(again)) << size;
        EXPECT_EQ("1 of 56 ", lost_blocks()) << size;
        free(again);
        oxnih_memory_drop_all();
    }
    oxnih_memory_set_mode(OXNIH_MEMORY_PLAIN);
}
} // namespace
