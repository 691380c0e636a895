/* What the files of the allocator share: its blocks, and who asked for them. */
#ifndef OXNIBASE_MEMORY_INTERNAL_H
#define OXNIBASE_MEMORY_INTERNAL_H

#include <deque>
#include <map>
#include <new>
#include <set>
#include <vector>

#include "base.h"

struct arena {
    char *base;
    size_t bytes, used; /* used: handed out ever, from the start */
    size_t live;        /* blocks */
};

/* A guarded block. */
struct block {
    size_t size;
    const void *caller;
    const void *freed_by; /* NULL while it lives */
    arena *guarded_in;    /* NULL: it is in a slot */
    char *pages;          /* the first */
    size_t page_bytes;    /* without the inaccessible page behind them */
};

/* Stands before the bytes of a plain block, from the C library. Plain blocks are many and short
 * lived: a tree of them would cost more than everything that is done with them. */
struct alignas(16) plain_block {
    plain_block *next, *previous; /* a ring of those that live */
    size_t size;
    const void *caller;
    /* Itself while it lives, which no other bytes are likely to say. Volatile: what is written
     * right before the block is freed would be left out. */
    const plain_block *volatile self;
};

struct module_range {
    uintptr_t begin, end;
};

/* The list of guarded blocks lies in a heap of its own: what it knows of a block must not look like
 * somebody's pointer to it. */
HANDLE memory_own_heap();

template <typename T> struct own_allocator {
    typedef T value_type;

    own_allocator() = default;
    template <typename U> own_allocator(const own_allocator<U> &)
    {
    }
    T *allocate(size_t count)
    {
        void *room = HeapAlloc(memory_own_heap(), 0, count * sizeof(T));

        if (room == NULL)
            throw std::bad_alloc();
        return static_cast<T *>(room);
    }
    void deallocate(T *room, size_t)
    {
        HeapFree(memory_own_heap(), 0, room);
    }
    bool operator==(const own_allocator &) const
    {
        return true;
    }
    bool operator!=(const own_allocator &) const
    {
        return false;
    }
};

typedef std::map<uintptr_t, block, std::less<>, own_allocator<std::pair<const uintptr_t, block>>>
    block_map;

struct memory_state {
    plain_block plain = {&plain, &plain, 0, NULL, NULL}; /* head of the ring */
    block_map blocks;           /* guarded ones; they stay listed when they are freed */
    std::deque<arena *> arenas; /* the last one is being filled */
    std::vector<module_range> seen_through;
    oxnih_memory_mode mode = OXNIH_MEMORY_PLAIN;
    oxnih_memory_stats stats = {};
    uint64_t fail_in = 0; /* allocations until one fails; 0 never */
    bool fail_forever = false;
    std::set<uint64_t> fail_also; /* counts of allocations that fail as well */
    bool sites = true;
};

/* memory.cpp. Never destroyed: other libraries free blocks while the process unloads them. */
extern memory_state &memory_all;
char *memory_bytes_of(plain_block *header);

/* memory_guard.cpp */

/* A new block in the mode that is set, guarded or fenced, zeroed. Result: its first byte, and what
 * the table must say of it. NULL: no memory. */
char *guard_new(block *made);
void guard_release(block *old, const void *caller);
/* Whether an address is in what guarded blocks are made of. */
bool guard_contains(uintptr_t number);
/* Frees all of them, and complains about each fenced one that was written to after its free. */
void guard_drop_all();

/* memory_sites.cpp */

/* "module+0xoffset" of an address of code. */
std::string memory_site_text(const void *address);
/* Who a call from there is booked on: the first return address outside the modules that are seen
 * through. The stack is walked only when caller lies in one. */
const void *memory_site_of(const void *caller);

#endif
