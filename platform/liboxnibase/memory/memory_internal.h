/* Declarations that the files of the allocator share: blocks and allocation sites. */
#ifndef OXNIBASE_MEMORY_INTERNAL_H
#define OXNIBASE_MEMORY_INTERNAL_H

#include <deque>
#include <functional>
#include <map>
#include <new>
#include <set>
#include <vector>

#include "../base.h"

struct arena {
    char *base;
    size_t bytes, used; /* used: bytes allocated so far, from base on; never reused */
    size_t live;        /* number of live blocks */
};

/* A guarded block. */
struct block {
    size_t size;
    const void *caller;
    const void *freed_by; /* NULL while it is live */
    arena *guarded_in;    /* NULL: the block is in a slot */
    char *pages;          /* its first page */
    size_t page_bytes;    /* without the inaccessible page after them */
};

/* Header of a plain block, which comes from the C library. Plain blocks are many and short-lived: a
 * tree of them would cost more than all other operations on them. */
struct alignas(16) plain_block {
    plain_block *next, *previous; /* a ring of the live blocks */
    size_t size;
    const void *caller;
    /* Points to the header itself while the block is live, which other bytes are unlikely to do.
     * Volatile, since the compiler would drop a write right before the block is freed. */
    const plain_block *volatile self;
};

struct module_range {
    uintptr_t begin, end;
};

/* Returns the heap of the list of guarded blocks. The search for lost blocks skips this heap: its
 * addresses of blocks must not count as pointers to them. */
HANDLE memory_own_heap();

template <typename T> struct own_allocator {
    typedef T value_type;

    own_allocator() = default;
    template <typename U> own_allocator(const own_allocator<U> &)
    {
    }
    T *allocate(size_t count)
    {
        void *memory = HeapAlloc(memory_own_heap(), 0, count * sizeof(T));

        if (memory == nullptr)
            throw std::bad_alloc();
        return static_cast<T *>(memory);
    }
    void deallocate(T *memory, size_t)
    {
        HeapFree(memory_own_heap(), 0, memory);
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
    plain_block plain = {&plain, &plain, 0, nullptr, nullptr}; /* head of the ring */
    block_map blocks;           /* guarded blocks in arenas, including freed ones */
    std::deque<arena *> arenas; /* new blocks come from the last one */
    std::vector<module_range> seen_through;
    oxnih_memory_mode mode = OXNIH_MEMORY_PLAIN;
    oxnih_memory_stats stats = {};
    uint64_t fail_in = 0; /* allocations until one fails; 0: none fails */
    bool fail_forever = false;
    bool sites = true;
};

/* memory.cpp. Never destroyed: other libraries still free blocks while they are unloaded. */
extern memory_state &memory_all;
char *memory_bytes_of(plain_block *header);

/* memory_guard.cpp */

/* Allocates a zeroed block, guarded or fenced by the current mode. Returns its first byte; NULL when
 * memory runs out. */
char *guard_new(size_t size, const void *site);
/* Returns the guarded block that begins at an address, which may be freed; NULL when none does. */
block *guard_find(uintptr_t begin);
/* Calls fn for each guarded block, including freed ones. */
void guard_each(const std::function<void(uintptr_t begin, const block &block)> &fn);
void guard_release(block *old, const void *caller);
/* Returns whether an address is in the address space of guarded blocks. */
bool guard_contains(uintptr_t number);
/* Frees all guarded blocks. Complains about each fenced block that was written to after its
 * free. */
void guard_drop_all();

/* memory_sites.cpp */

/* Returns "module+0xoffset" of a code address. */
std::string memory_site_text(const void *address);
/* Returns the address to which an allocation is attributed: the first return address outside the
 * transparent modules. Walks the stack only when caller is in one of them. */
const void *memory_site_of(const void *caller);

#endif
