/*
 * Guarded blocks: each ends where an inaccessible page begins, so that an access to the first byte
 * after it faults. Blocks are therefore aligned only as far as their size is. The host's thread.
 */
#include "memory_internal.h"

#include <algorithm>
#include <cstring>

static constexpr size_t PAGE_BYTES = 4096;
/* Windows reserves address space in units of 64 KB, so guarded blocks share large arenas. */
static constexpr size_t ARENA_BYTES = 64u << 20;
/* Arenas kept after their last block was freed: 4 GB in which a stale pointer still faults. */
static constexpr size_t ARENAS_KEPT = 64;

/* A slot is a page followed by an inaccessible page, for a block of at most one page. It is not
 * reused until all blocks are dropped, so that a stale pointer reaches no other block. The number
 * is limited because each slot takes two of the kernel's memory mappings, 65,530 by default. */
static constexpr size_t SLOT_BYTES = 2 * PAGE_BYTES;
static constexpr size_t SLOTS = 1u << 14;
/* Fills a freed block. No valid address consists of it. */
static constexpr char FREED = '\xdd';

static struct {
    char *base;
    block *blocks; /* by slot; in pages that the search for lost blocks does not look at */
    size_t used, committed;
    bool closed[SLOTS]; /* first page inaccessible until the slot is reused */
} s_slots;

static bool arena_open(size_t bytes)
{
    arena *fresh = new arena{nullptr, std::max(bytes, ARENA_BYTES), 0, 0};

    fresh->base =
        static_cast<char *>(VirtualAlloc(nullptr, fresh->bytes, MEM_RESERVE, PAGE_NOACCESS));
    if (fresh->base == nullptr) {
        delete fresh;
        return false;
    }
    memory_all.arenas.push_back(fresh);
    return true;
}

static void arena_close(arena *old)
{
    auto first = memory_all.blocks.lower_bound(reinterpret_cast<uintptr_t>(old->base));
    auto last = memory_all.blocks.lower_bound(reinterpret_cast<uintptr_t>(old->base) + old->bytes);

    memory_all.blocks.erase(first, last);
    VirtualFree(old->base, 0, MEM_RELEASE);
    memory_all.arenas.erase(std::find(memory_all.arenas.begin(), memory_all.arenas.end(), old));
    delete old;
}

static void arenas_trim()
{
    while (memory_all.arenas.size() > ARENAS_KEPT) {
        auto empty = std::find_if(memory_all.arenas.begin(), memory_all.arenas.end() - 1,
                                  [](const arena *a) { return a->live == 0; });
        if (empty == memory_all.arenas.end() - 1)
            return;
        arena_close(*empty);
    }
}

static char *arena_block_new(size_t size, const void *site)
{
    arena *home;
    char *pages;

    if (size > SIZE_MAX - 2 * PAGE_BYTES)
        return nullptr;
    const size_t page_bytes = (size + PAGE_BYTES - 1) / PAGE_BYTES * PAGE_BYTES;
    home = memory_all.arenas.empty() ? nullptr : memory_all.arenas.back();
    if (home == nullptr || home->bytes - home->used < page_bytes + PAGE_BYTES) {
        if (!arena_open(page_bytes + PAGE_BYTES))
            return nullptr;
        arenas_trim();
        home = memory_all.arenas.back();
    }
    pages = home->base + home->used;
    if (page_bytes != 0 && VirtualAlloc(pages, page_bytes, MEM_COMMIT, PAGE_READWRITE) == nullptr)
        return nullptr;
    home->used += page_bytes + PAGE_BYTES;
    home->live++;
    char *address = pages + page_bytes - size;
    memory_all.blocks[reinterpret_cast<uintptr_t>(address)] = {size, site,  nullptr,
                                                               home, pages, page_bytes};
    return address;
}

static bool slot_commit()
{
    if (s_slots.blocks == nullptr)
        s_slots.blocks = static_cast<block *>(
            VirtualAlloc(nullptr, SLOTS * sizeof(block), MEM_RESERVE | MEM_COMMIT, PAGE_READWRITE));
    if (s_slots.base == nullptr)
        s_slots.base = static_cast<char *>(
            VirtualAlloc(nullptr, SLOTS * SLOT_BYTES, MEM_RESERVE, PAGE_NOACCESS));
    if (s_slots.blocks == nullptr || s_slots.base == nullptr || s_slots.committed == SLOTS ||
        VirtualAlloc(s_slots.base + s_slots.committed * SLOT_BYTES, PAGE_BYTES, MEM_COMMIT,
                     PAGE_READWRITE) == nullptr)
        return false;
    s_slots.committed++;
    return true;
}

static void slot_set_closed(char *pages, bool closed)
{
    bool &is_closed = s_slots.closed[static_cast<size_t>(pages - s_slots.base) / SLOT_BYTES];
    DWORD before;

    if (is_closed != closed)
        VirtualProtect(pages, PAGE_BYTES, closed ? PAGE_NOACCESS : PAGE_READWRITE, &before);
    is_closed = closed;
}

static char *begin_of_slot_block(const block &block)
{
    return block.pages + PAGE_BYTES - block.size;
}

/* Returns NULL when the block does not fit or all slots are used. */
static char *slot_block_new(size_t size, const void *site)
{
    if (size == 0 || size > PAGE_BYTES || (s_slots.used == s_slots.committed && !slot_commit()))
        return nullptr;
    block &made = s_slots.blocks[s_slots.used];
    made = {size, site, nullptr, nullptr, s_slots.base + s_slots.used++ * SLOT_BYTES, 0};
    slot_set_closed(made.pages, false);
    return static_cast<char *>(memset(begin_of_slot_block(made), 0, size));
}

static bool is_slot(uintptr_t number)
{
    return s_slots.base != nullptr &&
           number - reinterpret_cast<uintptr_t>(s_slots.base) < SLOTS * SLOT_BYTES;
}

/* A fenced block stays accessible after its free: protecting its page would take longer than all
 * other operations on it. Writes to it are detected at the end. */
static void slot_release(const block &old)
{
    if (memory_all.mode == OXNIH_MEMORY_GUARD)
        slot_set_closed(old.pages, true);
    else
        memset(begin_of_slot_block(old), FREED, old.size);
}

static void check_freed(const block &freed)
{
    const char *bytes = begin_of_slot_block(freed);

    if (s_slots.closed[static_cast<size_t>(freed.pages - s_slots.base) / SLOT_BYTES] ||
        (bytes[0] == FREED && memcmp(bytes, bytes + 1, freed.size - 1) == 0))
        return;
    oxnih_complain("block %p of %llu bytes from %s was written to after its free by %s", bytes,
                   static_cast<unsigned long long>(freed.size),
                   memory_site_text(freed.caller).c_str(),
                   memory_site_text(freed.freed_by).c_str());
}

/* Checks and releases all slots, so that they can be reused. */
static void slots_end()
{
    for (size_t slot = 0; slot < s_slots.used; slot++)
        if (s_slots.blocks[slot].freed_by != nullptr)
            check_freed(s_slots.blocks[slot]);
        else
            slot_release(s_slots.blocks[slot]);
    s_slots.used = 0;
}

char *guard_new(size_t size, const void *site)
{
    char *address = slot_block_new(size, site);

    return address != nullptr ? address : arena_block_new(size, site);
}

block *guard_find(uintptr_t begin)
{
    if (is_slot(begin)) {
        const size_t slot = (begin - reinterpret_cast<uintptr_t>(s_slots.base)) / SLOT_BYTES;

        return slot < s_slots.used && begin == reinterpret_cast<uintptr_t>(
                                                   begin_of_slot_block(s_slots.blocks[slot]))
                   ? &s_slots.blocks[slot]
                   : nullptr;
    }
    auto found = memory_all.blocks.find(begin);
    return found != memory_all.blocks.end() ? &found->second : nullptr;
}

void guard_each(const std::function<void(uintptr_t begin, const block &block)> &fn)
{
    for (size_t slot = 0; slot < s_slots.used; slot++)
        fn(reinterpret_cast<uintptr_t>(begin_of_slot_block(s_slots.blocks[slot])),
           s_slots.blocks[slot]);
    for (const auto &entry : memory_all.blocks)
        fn(entry.first, entry.second);
}

void guard_release(block *old, const void *caller)
{
    old->freed_by = caller;
    if (old->guarded_in == nullptr) {
        slot_release(*old);
        return;
    }
    if (old->page_bytes != 0)
        VirtualFree(old->pages, old->page_bytes, MEM_DECOMMIT);
    old->guarded_in->live--;
}

bool guard_contains(uintptr_t number)
{
    if (is_slot(number))
        return true;
    for (const arena *each : memory_all.arenas)
        if (number - reinterpret_cast<uintptr_t>(each->base) < each->bytes)
            return true;
    return false;
}

void guard_drop_all()
{
    slots_end();
    memory_all.blocks.clear();
    for (arena *each : memory_all.arenas) {
        VirtualFree(each->base, 0, MEM_RELEASE);
        delete each;
    }
    memory_all.arenas.clear();
}
