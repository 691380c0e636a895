/*
 * Guarded blocks: each ends where an inaccessible page begins, so that the first byte behind it
 * faults. That costs alignment: structures have sizes that keep them aligned. The host's thread.
 */
#include "memory_internal.h"

#include <algorithm>
#include <cstring>

static constexpr size_t PAGE_BYTES = 4096;
/* Address space is reserved in steps of 64 KB at best, so guarded blocks share large pieces. */
static constexpr size_t ARENA_BYTES = 64u << 20;
/* Pieces kept back after their last block was freed: 4 GB in which a stale pointer still faults. */
static constexpr size_t ARENAS_KEPT = 64;

/* A slot is a page and an inaccessible one behind it, for a block of a page at most. It is given out
 * once until all blocks are dropped, so that a stale pointer leads to no other block. Limited since
 * each slot takes two entries of the kernel's table of mappings, which has 65,530 by default. */
static constexpr size_t SLOT_BYTES = 2 * PAGE_BYTES;
static constexpr size_t SLOTS = 1u << 14;
/* Fills a freed block. No address looks like it. */
static constexpr char FREED = '\xdd';

static struct {
    char *base;
    size_t used, committed;
    bool closed[SLOTS]; /* inaccessible until they are given out again */
} s_slots;

static bool arena_open(size_t bytes)
{
    arena *fresh = new arena{NULL, std::max(bytes, ARENA_BYTES), 0, 0};

    fresh->base = static_cast<char *>(VirtualAlloc(NULL, fresh->bytes, MEM_RESERVE, PAGE_NOACCESS));
    if (fresh->base == NULL) {
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

static char *arena_block_new(block *made)
{
    arena *home;
    char *end;

    if (made->size > SIZE_MAX - 2 * PAGE_BYTES)
        return NULL;
    made->page_bytes = (made->size + PAGE_BYTES - 1) / PAGE_BYTES * PAGE_BYTES;
    home = memory_all.arenas.empty() ? NULL : memory_all.arenas.back();
    if (home == NULL || home->bytes - home->used < made->page_bytes + PAGE_BYTES) {
        if (!arena_open(made->page_bytes + PAGE_BYTES))
            return NULL;
        arenas_trim();
        home = memory_all.arenas.back();
    }
    made->pages = home->base + home->used;
    if (made->page_bytes != 0 &&
        VirtualAlloc(made->pages, made->page_bytes, MEM_COMMIT, PAGE_READWRITE) == NULL)
        return NULL;
    home->used += made->page_bytes + PAGE_BYTES;
    home->live++;
    made->guarded_in = home;
    end = made->pages + made->page_bytes;
    return end - made->size;
}

static bool slot_commit()
{
    if (s_slots.base == NULL)
        s_slots.base =
            static_cast<char *>(VirtualAlloc(NULL, SLOTS * SLOT_BYTES, MEM_RESERVE, PAGE_NOACCESS));
    if (s_slots.base == NULL || s_slots.committed == SLOTS ||
        VirtualAlloc(s_slots.base + s_slots.committed * SLOT_BYTES, PAGE_BYTES, MEM_COMMIT,
                     PAGE_READWRITE) == NULL)
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

/* NULL: the block does not fit, or no slot is left. */
static char *slot_block_new(block *made)
{
    char *address;

    if (made->size == 0 || made->size > PAGE_BYTES ||
        (s_slots.used == s_slots.committed && !slot_commit()))
        return NULL;
    made->pages = s_slots.base + s_slots.used++ * SLOT_BYTES;
    slot_set_closed(made->pages, false);
    address = made->pages + PAGE_BYTES - made->size;
    memset(address, 0, made->size);
    return address;
}

static bool is_slot(uintptr_t number)
{
    return s_slots.base != NULL &&
           number - reinterpret_cast<uintptr_t>(s_slots.base) < SLOTS * SLOT_BYTES;
}

/* A fenced block stays accessible after its free, since closing its page takes longer than all else
 * that is done with it; what is written to it then is found at the end. */
static void slot_release(const block &old)
{
    if (memory_all.mode == OXNIH_MEMORY_GUARD)
        slot_set_closed(old.pages, true);
    else
        memset(old.pages + PAGE_BYTES - old.size, FREED, old.size);
}

static void check_freed(const char *bytes, const block &freed)
{
    if (s_slots.closed[static_cast<size_t>(freed.pages - s_slots.base) / SLOT_BYTES] ||
        std::all_of(bytes, bytes + freed.size, [](char c) { return c == FREED; }))
        return;
    oxnih_complain("block %p of %llu bytes from %s was written to after its free by %s", bytes,
                   static_cast<unsigned long long>(freed.size),
                   memory_site_text(freed.caller).c_str(),
                   memory_site_text(freed.freed_by).c_str());
}

/* The slots are given out anew from here on. */
static void slots_end()
{
    for (const auto &entry : memory_all.blocks) {
        if (entry.second.guarded_in != NULL)
            continue;
        if (entry.second.freed_by != NULL)
            check_freed(reinterpret_cast<const char *>(entry.first), entry.second);
        else
            slot_release(entry.second);
    }
    s_slots.used = 0;
}

char *guard_new(block *made)
{
    char *address = slot_block_new(made);

    return address != NULL ? address : arena_block_new(made);
}

void guard_release(block *old, const void *caller)
{
    old->freed_by = caller;
    if (old->guarded_in == NULL) {
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
