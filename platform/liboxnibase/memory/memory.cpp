/* The allocator of platform, plug-ins and Jansson. Owns the blocks. The host's thread. */
#include "memory_internal.h"

#include <algorithm>
#include <cstring>

#include <oxni/base/log.h>
#include <oxni/base/memory.h>

memory_state &memory_all = *new memory_state;

/* This library is transparent too: a copied string is attributed to the caller of oxni_strdup. */
[[maybe_unused]] static const bool s_own_registered =
    (oxnih_memory_see_through(reinterpret_cast<const void *>(&oxni_free_)), true);

HANDLE memory_own_heap()
{
    static const HANDLE heap = HeapCreate(HEAP_NO_SERIALIZE, 0, 0);

    return heap;
}

static bool must_fail()
{
    memory_all.stats.allocations++;
    if (memory_all.fail_in == 0 || --memory_all.fail_in > 0)
        return false;
    memory_all.fail_in = memory_all.fail_forever ? 1 : 0;
    memory_all.stats.failed++;
    return true;
}

char *memory_bytes_of(plain_block *header)
{
    return reinterpret_cast<char *>(header + 1);
}

static char *plain_new(size_t size, const void *site)
{
    plain_block *made = size > SIZE_MAX - sizeof(plain_block)
                            ? nullptr
                            : static_cast<plain_block *>(calloc(1, sizeof(plain_block) + size));

    if (made == nullptr)
        return nullptr;
    *made = {&memory_all.plain, memory_all.plain.previous, size, site, made};
    made->previous->next = made;
    made->next->previous = made;
    return memory_bytes_of(made);
}

static void plain_release(plain_block *old)
{
    old->previous->next = old->next;
    old->next->previous = old->previous;
    old->self = nullptr;
    free(old);
}

void *memory_allocate(size_t size, const void *caller)
{
    if (must_fail())
        return nullptr;
    const void *site = memory_all.sites ? memory_site_of(caller) : caller;
    char *address =
        memory_all.mode == OXNIH_MEMORY_PLAIN ? plain_new(size, site) : guard_new(size, site);
    if (address == nullptr)
        return nullptr;
    memory_all.stats.live_blocks++;
    memory_all.stats.live_bytes += size;
    return address;
}

/* The block that contains an address; size is 0 when no block does. */
struct block_place {
    uintptr_t begin;
    size_t size;
    const void *caller;
    const void *freed_by;
};

static block_place place_of(uintptr_t number)
{
    block_place found = {};

    guard_each([&](uintptr_t begin, const block &at) {
        if (number >= begin && number - begin < at.size)
            found = {begin, at.size, at.caller, at.freed_by};
    });
    if (found.size != 0)
        return found;
    for (plain_block *at = memory_all.plain.next; at != &memory_all.plain; at = at->next) {
        uintptr_t begin = reinterpret_cast<uintptr_t>(memory_bytes_of(at));
        if (number >= begin && number - begin < at->size)
            return {begin, at->size, at->caller, nullptr};
    }
    return {};
}

/* Ends the run: after a bad free later results cannot be trusted. */
[[noreturn]] static void end_bad_free(const void *address, const void *caller)
{
    uintptr_t number = reinterpret_cast<uintptr_t>(address);
    block_place inside = place_of(number);
    std::string by = memory_site_text(memory_site_of(caller));

    if (inside.size != 0 && inside.begin == number && inside.freed_by != nullptr)
        oxnih_complain("bad free by %s: block %p of %llu bytes from %s was freed before by %s",
                       by.c_str(), address, static_cast<unsigned long long>(inside.size),
                       memory_site_text(inside.caller).c_str(),
                       memory_site_text(inside.freed_by).c_str());
    else if (inside.size != 0)
        oxnih_complain("bad free by %s: %p lies %llu bytes inside block %p of %llu bytes from %s",
                       by.c_str(), address, static_cast<unsigned long long>(number - inside.begin),
                       reinterpret_cast<const void *>(inside.begin),
                       static_cast<unsigned long long>(inside.size),
                       memory_site_text(inside.caller).c_str());
    else
        oxnih_complain("bad free by %s: no allocation gave %p, or it was freed before", by.c_str(),
                       address);
    log_end_process(3);
}

/* A live block. Exactly one of the two pointers is NULL. */
struct found_block {
    plain_block *plain;
    block *guarded;

    size_t size() const
    {
        return plain != nullptr ? plain->size : guarded->size;
    }
};

static found_block block_find(void *address, const void *caller)
{
    uintptr_t number = reinterpret_cast<uintptr_t>(address);
    plain_block *header = reinterpret_cast<plain_block *>(address) - 1;
    block *guarded = guard_find(number);

    if (guarded != nullptr && guarded->freed_by == nullptr)
        return {nullptr, guarded};
    /* An invalid pointer faults here, which reports the bad free as well. */
    if (guard_contains(number) || header->self != header)
        end_bad_free(address, caller);
    return {header, nullptr};
}

static void block_release(found_block old, const void *caller)
{
    memory_all.stats.live_blocks--;
    memory_all.stats.live_bytes -= old.size();
    if (old.plain != nullptr)
        plain_release(old.plain);
    else
        guard_release(old.guarded, caller);
}

void memory_free(void *address, const void *caller)
{
    if (address != nullptr)
        block_release(block_find(address, caller), caller);
}

void *oxni_zero_malloc_(size_t size)
{
    return memory_allocate(size, BASE_CALLER());
}

void *oxni_ralloc_(void *address, size_t size)
{
    const void *caller = BASE_CALLER();
    void *fresh;

    if (address == nullptr)
        return memory_allocate(size, caller);
    found_block old = block_find(address, caller);
    /* Always moves the block, so that stale pointers to it are detected. */
    fresh = memory_allocate(size, caller);
    if (fresh == nullptr)
        return nullptr;
    memcpy(fresh, address, std::min(size, old.size()));
    block_release(old, caller);
    return fresh;
}

void oxni_free_(void *address)
{
    memory_free(address, BASE_CALLER());
}

char *oxni_strdup(const char *text)
{
    size_t bytes = text == nullptr ? 0 : strlen(text) + 1;
    char *copy =
        text == nullptr ? nullptr : static_cast<char *>(memory_allocate(bytes, BASE_CALLER()));

    if (copy != nullptr)
        memcpy(copy, text, bytes);
    return copy;
}

void oxni_out_of_memory_(const char *file, int line)
{
    oxni_log_output(OXNI_LOG_FATAL, "[%s] [fatal] [pid:%d] [tid:%d] [vkl] [%s:%d] Out of memory\n",
                    time_text_now().c_str(), static_cast<int>(GetCurrentProcessId()),
                    static_cast<int>(GetCurrentThreadId()), file, line);
    log_end_process(0);
}

void oxnih_memory_set_mode(enum oxnih_memory_mode mode)
{
    memory_all.mode = mode;
}

void oxnih_memory_find_sites(int on)
{
    memory_all.sites = on != 0;
}

void oxnih_memory_fail(uint64_t nth, int forever)
{
    memory_all.fail_in = nth;
    memory_all.fail_forever = forever != 0;
}

void oxnih_memory_get_stats(oxnih_memory_stats *stats)
{
    *stats = memory_all.stats;
}

void oxnih_memory_drop_all(void)
{
    while (memory_all.plain.next != &memory_all.plain)
        plain_release(memory_all.plain.next);
    guard_drop_all();
    memory_all.stats.live_blocks = 0;
    memory_all.stats.live_bytes = 0;
}
