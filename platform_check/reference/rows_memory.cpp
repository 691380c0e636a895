/* What the reference platform promises to hosts about memory, in liboxnibase/host.h. */
#include "reference.h"

#include <vector>

#include <oxni/base/memory.h>
#include <oxni/base/mutex.h>
#include <oxni/base/str.h>

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

static void blocks_end_at_a_page(std::initializer_list<unsigned> sizes, bool freed_are_readable)
{
    for (size_t size : sizes) {
        char *block = make(size);
        check_case(std::to_string(size) + " bytes");
        HOLDS(readable(block) && readable(block + size - 1));
        HOLDS(!readable(block + size));
        SAME(std::string(size, '\0'), std::string(block, size));
        memset(block, 'x', size);
        oxni_free_(block);
        HOLDS(freed_are_readable || !readable(block));
    }
}

PROMISE(host_memory, "OXNIH_MEMORY_FENCE", "The same without a Windows call per block")
{
    std::vector<char *> blocks;

    oxnih_memory_set_mode(OXNIH_MEMORY_FENCE);
    for (int agent = 1; agent <= 2; agent++) {
        blocks_end_at_a_page({1, 780, 4095, 4096}, true);
        blocks_end_at_a_page({4097}, false);
        make(780);
        oxnih_memory_drop_all(); /* the next agent reuses the pages */
    }
    for (int i = 0; i < 20000; i++) /* more than the fence mode has slots */
        blocks.push_back(make(24));
    for (char *block : blocks) {
        HOLDS(!readable(block + 24));
        oxni_free_(block);
    }
    SAME(0, memory_stats().live_blocks);
}

PROMISE(host_memory, "OXNIH_MEMORY_FENCE",
        "A freed block stays readable, filled with a pattern; oxnih_memory_drop_all reports writes "
        "to it.")
{
    for (size_t at : {0U, 23U}) {
        oxnih_memory_set_mode(OXNIH_MEMORY_FENCE);
        char *block = make(24), *other = make(24);
        oxni_free_(other);
        oxni_free_(block);
        SAME(std::string(24, '\xdd'), std::string(block, 24));
        block[at] = 'x';
        oxnih_memory_drop_all();
        const std::string said = complaints();
        SAME(0, said.find("block "));
        HOLDS(contains(said, " of 24 bytes from platform_check.exe+0x"));
        HOLDS(contains(said, " was written to after its free by platform_check.exe+0x"));
        SAME(said.find("block "), said.rfind("block "));
        oxnih_memory_drop_all();
        SAME("", complaints());
    }
}

PROMISE(host_memory, "oxni_free_", "a bad free causes a complaint and ends the run")
{
    static char elsewhere[16];
    /* clang-format off */
    static const struct {
        enum oxnih_memory_mode mode;
        void (*misuse)(char *block);
        const char *said;
    } rows[] = {
        {OXNIH_MEMORY_PLAIN, [](char *block) { oxni_free_(block); oxni_free_(block); },
         "or it was freed before"},
        {OXNIH_MEMORY_GUARD, [](char *block) { oxni_free_(block); oxni_ralloc_(block, 50); },
         " of 24 bytes from platform_check.exe+0x"},
        {OXNIH_MEMORY_FENCE, [](char *block) { oxni_free_(block); oxni_free_(block); },
         " was freed before by platform_check.exe+0x"},
        {OXNIH_MEMORY_PLAIN, [](char *block) { oxni_free_(block + 4); }, "lies 4 bytes inside"},
        {OXNIH_MEMORY_GUARD, [](char *) { oxni_free_(elsewhere); }, "no allocation gave"},
    };
    /* clang-format on */

    oxnih_set_exit([](void *) { throw run_ended(); }, nullptr);
    for (const auto &row : rows) {
        bool ended = false;
        check_case(row.said);
        oxnih_memory_set_mode(row.mode);
        try {
            row.misuse(make(24));
        } catch (const run_ended &) {
            ended = true;
        }
        const std::string said = complaints();
        HOLDS(ended);
        SAME(0, said.find("bad free by platform_check.exe+0x"));
        HOLDS(contains(said, row.said));
    }
    oxnih_memory_drop_all();
}

PROMISE(host_memory, "oxnih_memory_fail", "Makes the nth allocation from now on fail")
{
    for (uint64_t nth : {0U, 1U, 4U})
        for (int forever : {0, 1}) {
            oxnih_memory_fail(nth, forever);
            for (uint64_t i = 1; i <= 6; i++) {
                char *made = i % 2 == 0 ? oxni_strdup("text") : make(8);
                check_case(std::to_string(nth) + " of " + std::to_string(i));
                SAME(nth != 0 && (i == nth || (forever != 0 && i > nth)), made == nullptr);
                oxni_free_(made);
            }
        }
    oxnih_memory_fail(2, 0);
    char *block = oxni_strdup("text");
    HOLDS(oxni_ralloc_(block, 1000) == nullptr);
    SAME("text", block);
    oxni_free_(block);
}

/* Allocations by Jansson and by the platform are attributed to their callers. */
PROMISE(host_memory, "oxnih_memory_leaks",
        "Calls fn for each site that allocated live blocks, most bytes first.")
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
    SAME("platform_check.exe+0x100k in 1 platform_check.exe+0x90k in 2 "
         "platform_check.exe+0x80k in 1",
         notes());
    oxni_free_(block);
    json_decref(value);
    oxni_str_free(wide);
}

/* A process that ends does not destroy its mutexes. */
PROMISE(host_memory, "oxnih_memory_drop_all",
        "Frees all live blocks, as the end of the agent's process does.")
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
        SAME(0, oxni_mutex_init(&mutex));
    }
    make(10);
    oxnih_memory_set_mode(OXNIH_MEMORY_GUARD);
    char *block = make(10);
    oxnih_memory_drop_all();
    HOLDS(heap_blocks() < before + 50);
    SAME(0, memory_stats().live_blocks);
    HOLDS(!readable(block));
}

PROMISE(host_memory, "OXNIH_MEMORY_GUARD",
        "Each block ends at an inaccessible page, and freed blocks become inaccessible.")
{
    oxnih_memory_set_mode(OXNIH_MEMORY_GUARD);
    blocks_end_at_a_page({1, 780, 4095, 4096, 4097, 70 * 1024 * 1024}, false);
}
