/*
 * The allocator of platform, plug-ins and Jansson. Owns the list of blocks; the host's thread.
 */
#include "base.h"

#include <algorithm>
#include <cstring>
#include <deque>
#include <map>
#include <new>
#include <set>
#include <unordered_map>
#include <vector>

#include <oxni/base/log.h>
#include <oxni/base/memory.h>

static constexpr size_t PAGE_BYTES = 4096;
/* Address space is reserved in steps of 64 KB at best, so guarded blocks share large pieces. */
static constexpr size_t ARENA_BYTES = 64u << 20;
/* Pieces kept back after their last block was freed: 4 GB in which a stale pointer still faults. */
static constexpr size_t ARENAS_KEPT = 64;
/* Frames between an allocation and the plug-in's own code; Jansson's deepest way is about ten. */
static constexpr int CALLER_FRAMES = 24;

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
    arena *guarded_in;
    char *pages;       /* the first */
    size_t page_bytes; /* without the inaccessible page behind them */
};

/* Stands before the bytes of a plain block, from the C library. Plain blocks are many and short
 * lived: a tree of them would cost more than everything that is done with them. */
struct alignas(16) plain_block {
    plain_block *next, *previous; /* a ring of those that live */
    size_t size;
    const void *caller;
    /* Itself while it lives, which no other bytes are likely to say. Volatile: what is written right
     * before the block is freed would be left out. */
    const plain_block *volatile self;
};

struct module_range {
    uintptr_t begin, end;
};

/* The list of guarded blocks lies in a heap of its own: what it knows of a block must not look like somebody's
 * pointer to it. */
static HANDLE own_heap()
{
    static const HANDLE heap = HeapCreate(HEAP_NO_SERIALIZE, 0, 0);

    return heap;
}

template <typename T> struct own_allocator {
    typedef T value_type;

    own_allocator() = default;
    template <typename U> own_allocator(const own_allocator<U> &)
    {
    }
    T *allocate(size_t count)
    {
        void *room = HeapAlloc(own_heap(), 0, count * sizeof(T));

        if (room == NULL)
            throw std::bad_alloc();
        return static_cast<T *>(room);
    }
    void deallocate(T *room, size_t)
    {
        HeapFree(own_heap(), 0, room);
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

/* Never destroyed: other libraries free blocks while the process unloads them. */
static memory_state &s_memory = *new memory_state;

static const char *module_base(const void *address)
{
    HMODULE module = NULL;

    if (!GetModuleHandleExW(GET_MODULE_HANDLE_EX_FLAG_FROM_ADDRESS |
                                GET_MODULE_HANDLE_EX_FLAG_UNCHANGED_REFCOUNT,
                            static_cast<const wchar_t *>(address), &module))
        return NULL;
    return reinterpret_cast<const char *>(module);
}

static std::string site_text(const void *address)
{
    const char *base = module_base(address);
    wchar_t path[MAX_PATH];
    char text[64];
    std::string name;

    if (base != NULL &&
        GetModuleFileNameW(reinterpret_cast<HMODULE>(const_cast<char *>(base)), path, MAX_PATH)) {
        name = str_to_utf8(path);
        name.erase(0, name.find_last_of("/\\") + 1);
        name += "+";
    }
    snprintf(text, sizeof(text), "0x%llx",
             static_cast<unsigned long long>(reinterpret_cast<uintptr_t>(address) -
                                             reinterpret_cast<uintptr_t>(base)));
    return name + text;
}

static bool is_seen_through(uintptr_t address)
{
    for (const module_range &range : s_memory.seen_through)
        if (address >= range.begin && address < range.end)
            return true;
    return false;
}

void oxnih_memory_see_through(const void *address)
{
    const char *base = module_base(address);
    IMAGE_DOS_HEADER dos;
    IMAGE_NT_HEADERS64 nt;

    if (base == NULL || is_seen_through(reinterpret_cast<uintptr_t>(address)))
        return;
    memcpy(&dos, base, sizeof(dos));
    memcpy(&nt, base + dos.e_lfanew, sizeof(nt));
    uintptr_t begin = reinterpret_cast<uintptr_t>(base);
    s_memory.seen_through.push_back({begin, begin + nt.OptionalHeader.SizeOfImage});
}

/* This library too: a copied string belongs to who asked for it. */
[[maybe_unused]] static const bool s_own_registered =
    (oxnih_memory_see_through(reinterpret_cast<const void *>(&oxni_free_)), true);

/* The first return address outside the platform's libraries: who wanted the JSON value, not where
 * Jansson asks for memory. The stack is walked only when the direct caller is such a library. */
static const void *site_of(const void *caller)
{
    CONTEXT context;
    UNWIND_HISTORY_TABLE history = {};

    if (!is_seen_through(reinterpret_cast<uintptr_t>(caller)))
        return caller;
    RtlCaptureContext(&context);
    for (int frame = 0; frame < CALLER_FRAMES && context.Rip != 0; frame++) {
        DWORD64 image = 0, established = 0;
        void *handler_data = NULL;
        PRUNTIME_FUNCTION function = RtlLookupFunctionEntry(context.Rip, &image, &history);
        if (function == NULL)
            break;
        RtlVirtualUnwind(UNW_FLAG_NHANDLER, image, context.Rip, function, &context, &handler_data,
                         &established, NULL);
        if (!is_seen_through(context.Rip))
            return reinterpret_cast<const void *>(context.Rip);
    }
    return caller;
}

static bool arena_open(size_t bytes)
{
    arena *fresh = new arena{NULL, std::max(bytes, ARENA_BYTES), 0, 0};

    fresh->base = static_cast<char *>(VirtualAlloc(NULL, fresh->bytes, MEM_RESERVE, PAGE_NOACCESS));
    if (fresh->base == NULL) {
        delete fresh;
        return false;
    }
    s_memory.arenas.push_back(fresh);
    return true;
}

static void arena_close(arena *old)
{
    auto first = s_memory.blocks.lower_bound(reinterpret_cast<uintptr_t>(old->base));
    auto last = s_memory.blocks.lower_bound(reinterpret_cast<uintptr_t>(old->base) + old->bytes);

    s_memory.blocks.erase(first, last);
    VirtualFree(old->base, 0, MEM_RELEASE);
    s_memory.arenas.erase(std::find(s_memory.arenas.begin(), s_memory.arenas.end(), old));
    delete old;
}

static void arenas_trim()
{
    while (s_memory.arenas.size() > ARENAS_KEPT) {
        auto empty = std::find_if(s_memory.arenas.begin(), s_memory.arenas.end() - 1,
                                  [](const arena *a) { return a->live == 0; });
        if (empty == s_memory.arenas.end() - 1)
            return;
        arena_close(*empty);
    }
}

/* A block that ends where an inaccessible page begins, so that the first byte behind it faults,
 * whatever that costs in alignment: structures have sizes that keep them aligned. */
static char *guarded_new(block *made)
{
    arena *home;
    char *end;

    if (made->size > SIZE_MAX - 2 * PAGE_BYTES)
        return NULL;
    made->page_bytes = (made->size + PAGE_BYTES - 1) / PAGE_BYTES * PAGE_BYTES;
    home = s_memory.arenas.empty() ? NULL : s_memory.arenas.back();
    if (home == NULL || home->bytes - home->used < made->page_bytes + PAGE_BYTES) {
        if (!arena_open(made->page_bytes + PAGE_BYTES))
            return NULL;
        arenas_trim();
        home = s_memory.arenas.back();
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

static bool must_fail()
{
    s_memory.stats.allocations++;
    if (s_memory.fail_also.count(s_memory.stats.allocations) != 0) {
        s_memory.stats.failed++;
        return true;
    }
    if (s_memory.fail_in == 0 || --s_memory.fail_in > 0)
        return false;
    s_memory.fail_in = s_memory.fail_forever ? 1 : 0;
    s_memory.stats.failed++;
    return true;
}

static char *bytes_of(plain_block *header)
{
    return reinterpret_cast<char *>(header + 1);
}

static char *plain_new(size_t size, const void *site)
{
    plain_block *made = size > SIZE_MAX - sizeof(plain_block)
                            ? NULL
                            : static_cast<plain_block *>(calloc(1, sizeof(plain_block) + size));

    if (made == NULL)
        return NULL;
    *made = {&s_memory.plain, s_memory.plain.previous, size, site, made};
    made->previous->next = made;
    made->next->previous = made;
    return bytes_of(made);
}

static void plain_release(plain_block *old)
{
    old->previous->next = old->next;
    old->next->previous = old->previous;
    old->self = NULL;
    free(old);
}

void *memory_allocate(size_t size, const void *caller)
{
    block made = {size, NULL, NULL, NULL, NULL, 0};
    char *address;

    if (must_fail())
        return NULL;
    made.caller = s_memory.sites ? site_of(caller) : caller;
    if (s_memory.mode == OXNIH_MEMORY_PLAIN) {
        address = plain_new(size, made.caller);
    } else {
        address = guarded_new(&made);
        if (address != NULL)
            s_memory.blocks[reinterpret_cast<uintptr_t>(address)] = made;
    }
    if (address == NULL)
        return NULL;
    s_memory.stats.live_blocks++;
    s_memory.stats.live_bytes += size;
    return address;
}

static void guarded_release(block *old, const void *caller)
{
    if (old->page_bytes != 0)
        VirtualFree(old->pages, old->page_bytes, MEM_DECOMMIT);
    old->guarded_in->live--;
    old->freed_by = caller;
}

/* A block that an address lies in; size 0: there is none. */
struct block_place {
    uintptr_t begin;
    size_t size;
    const void *caller;
    const void *freed_by;
};

static block_place place_of(uintptr_t number)
{
    auto behind = s_memory.blocks.upper_bound(number);

    if (behind != s_memory.blocks.begin()) {
        auto below = std::prev(behind);
        if (number - below->first < below->second.size)
            return {below->first, below->second.size, below->second.caller, below->second.freed_by};
    }
    for (plain_block *at = s_memory.plain.next; at != &s_memory.plain; at = at->next) {
        uintptr_t begin = reinterpret_cast<uintptr_t>(bytes_of(at));
        if (number >= begin && number - begin < at->size)
            return {begin, at->size, at->caller, NULL};
    }
    return {};
}

/* The run ends here: after a bad free nothing that follows can be trusted. */
[[noreturn]] static void end_bad_free(const void *address, const void *caller)
{
    uintptr_t number = reinterpret_cast<uintptr_t>(address);
    block_place inside = place_of(number);
    std::string by = site_text(site_of(caller));

    if (inside.size != 0 && inside.begin == number && inside.freed_by != NULL)
        oxnih_complain("bad free by %s: block %p of %llu bytes from %s was freed before by %s",
                       by.c_str(), address, static_cast<unsigned long long>(inside.size),
                       site_text(inside.caller).c_str(), site_text(inside.freed_by).c_str());
    else if (inside.size != 0)
        oxnih_complain("bad free by %s: %p lies %llu bytes inside block %p of %llu bytes from %s",
                       by.c_str(), address, static_cast<unsigned long long>(number - inside.begin),
                       reinterpret_cast<const void *>(inside.begin),
                       static_cast<unsigned long long>(inside.size),
                       site_text(inside.caller).c_str());
    else
        oxnih_complain("bad free by %s: no allocation gave %p, or it was freed before", by.c_str(),
                       address);
    log_end_process(3);
}

/* A live block; one of the two is NULL. */
struct found_block {
    plain_block *plain;
    block *guarded;

    size_t size() const
    {
        return plain != NULL ? plain->size : guarded->size;
    }
};

static bool is_in_arena(uintptr_t number)
{
    for (const arena *each : s_memory.arenas)
        if (number - reinterpret_cast<uintptr_t>(each->base) < each->bytes)
            return true;
    return false;
}

static found_block block_find(void *address, const void *caller)
{
    uintptr_t number = reinterpret_cast<uintptr_t>(address);
    plain_block *header = reinterpret_cast<plain_block *>(address) - 1;
    auto guarded = s_memory.blocks.find(number);

    if (guarded != s_memory.blocks.end() && guarded->second.freed_by == NULL)
        return {NULL, &guarded->second};
    /* A pointer to nowhere faults here, which tells as much. */
    if (is_in_arena(number) || header->self != header)
        end_bad_free(address, caller);
    return {header, NULL};
}

static void block_release(found_block old, const void *caller)
{
    s_memory.stats.live_blocks--;
    s_memory.stats.live_bytes -= old.size();
    if (old.plain != NULL)
        plain_release(old.plain);
    else
        guarded_release(old.guarded, caller);
}

void memory_free(void *address, const void *caller)
{
    if (address != NULL)
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

    if (address == NULL)
        return memory_allocate(size, caller);
    found_block old = block_find(address, caller);
    /* The block moves each time, so that a pointer to its old place is found out. */
    fresh = memory_allocate(size, caller);
    if (fresh == NULL)
        return NULL;
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
    size_t bytes = text == NULL ? 0 : strlen(text) + 1;
    char *copy = text == NULL ? NULL : static_cast<char *>(memory_allocate(bytes, BASE_CALLER()));

    if (copy != NULL)
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
    s_memory.mode = mode;
}

void oxnih_memory_find_sites(int on)
{
    s_memory.sites = on != 0;
}

void oxnih_memory_fail(uint64_t nth, int forever)
{
    s_memory.fail_in = nth;
    s_memory.fail_forever = forever != 0;
    s_memory.fail_also.clear();
}

void oxnih_memory_fail_also(uint64_t nth)
{
    s_memory.fail_also.insert(s_memory.stats.allocations + nth);
}

void oxnih_memory_get_stats(oxnih_memory_stats *stats)
{
    *stats = s_memory.stats;
}

struct leak {
    std::string site;
    uint64_t blocks, bytes;
};
/* By caller. */
typedef std::unordered_map<const void *, leak> leak_map;

static void add_leak(leak_map &found, const void *caller, size_t size)
{
    leak &at = found[caller];

    at.blocks++;
    at.bytes += size;
}

static void report_leaks(leak_map &found, oxnih_leak_fn fn, void *user)
{
    std::vector<leak> sorted;

    for (auto &entry : found) {
        entry.second.site = site_text(entry.first);
        sorted.push_back(entry.second);
    }
    std::sort(sorted.begin(), sorted.end(), [](const leak &a, const leak &b) {
        return a.bytes != b.bytes ? a.bytes > b.bytes : a.site < b.site;
    });
    for (const leak &each : sorted)
        fn(each.site.c_str(), each.blocks, each.bytes, user);
}

void oxnih_memory_leaks(oxnih_leak_fn fn, void *user)
{
    leak_map found;

    for (const auto &entry : s_memory.blocks)
        if (entry.second.freed_by == NULL)
            add_leak(found, entry.second.caller, entry.second.size);
    for (plain_block *each = s_memory.plain.next; each != &s_memory.plain; each = each->next)
        add_leak(found, each->caller, each->size);
    report_leaks(found, fn, user);
}

/* Which of the guarded blocks are pointed to, wherever into them. */
class reach
{
  public:
    reach()
    {
        for (const auto &entry : s_memory.blocks)
            if (entry.second.freed_by == NULL && entry.second.guarded_in != NULL)
                targets_.push_back({entry.first, &entry.second, false});
    }

    /* Whatever looks like a pointer there is one, 8 bytes by 8 from begin on: a guarded block may
     * begin anywhere. */
    void scan(uintptr_t begin, uintptr_t end)
    {
        for (uintptr_t pointer; begin + sizeof(pointer) <= end; begin += sizeof(pointer)) {
            memcpy(&pointer, reinterpret_cast<const void *>(begin), sizeof(pointer));
            mark(pointer);
        }
    }

    /* Goes on from the blocks that were found. */
    void follow()
    {
        while (!found_.empty()) {
            const target at = targets_[found_.back()];

            found_.pop_back();
            scan(at.begin, at.begin + at.is->size);
        }
    }

    void missing(leak_map &leaks) const
    {
        for (const target &each : targets_)
            if (!each.reached)
                add_leak(leaks, each.is->caller, each.is->size);
    }

  private:
    struct target {
        uintptr_t begin;
        const block *is;
        bool reached;
    };

    void mark(uintptr_t pointer)
    {
        if (targets_.empty() || pointer < targets_.front().begin)
            return;
        auto behind = std::upper_bound(
            targets_.begin(), targets_.end(), pointer,
            [](uintptr_t value, const target &other) { return value < other.begin; });
        target &at = *std::prev(behind);
        if (at.reached || (pointer != at.begin && pointer - at.begin >= at.is->size))
            return;
        at.reached = true;
        found_.push_back(static_cast<size_t>(&at - targets_.data()));
    }

    /* Where they would not be found themselves, nor move what is being walked. */
    std::vector<target, own_allocator<target>> targets_; /* by address */
    std::vector<size_t, own_allocator<size_t>> found_;   /* not followed yet */
};

/* The data of a module that it can write to. */
static void scan_module(reach &reach, char *base)
{
    const IMAGE_DOS_HEADER *dos = reinterpret_cast<const IMAGE_DOS_HEADER *>(base);
    IMAGE_NT_HEADERS64 *nt = reinterpret_cast<IMAGE_NT_HEADERS64 *>(base + dos->e_lfanew);
    const IMAGE_SECTION_HEADER *section = IMAGE_FIRST_SECTION(nt);

    for (WORD i = 0; i < nt->FileHeader.NumberOfSections; i++, section++) {
        uintptr_t begin = reinterpret_cast<uintptr_t>(base) + section->VirtualAddress;

        if ((section->Characteristics & IMAGE_SCN_MEM_WRITE) != 0)
            reach.scan(begin, begin + section->Misc.VirtualSize);
    }
}

static void scan_heap(reach &reach, HANDLE heap)
{
    PROCESS_HEAP_ENTRY entry = {};

    while (HeapWalk(heap, &entry)) {
        uintptr_t begin = reinterpret_cast<uintptr_t>(entry.lpData);

        if ((entry.wFlags & PROCESS_HEAP_ENTRY_BUSY) != 0)
            reach.scan(begin, begin + entry.cbData);
    }
}

void oxnih_memory_lost(const void *plugin, oxnih_leak_fn fn, void *user)
{
    HANDLE heaps[64];
    DWORD count = GetProcessHeaps(ARRAYSIZE(heaps), heaps);
    leak_map lost;
    reach reach;

    for (const module_range &module : s_memory.seen_through)
        scan_module(reach, reinterpret_cast<char *>(module.begin));
    scan_module(reach, const_cast<char *>(static_cast<const char *>(plugin)));
    for (DWORD i = 0; i < std::min<DWORD>(count, ARRAYSIZE(heaps)); i++)
        if (heaps[i] != own_heap())
            scan_heap(reach, heaps[i]);
    reach.follow();
    reach.missing(lost);
    report_leaks(lost, fn, user);
}

void oxnih_memory_drop_all(void)
{
    while (s_memory.plain.next != &s_memory.plain)
        plain_release(s_memory.plain.next);
    s_memory.blocks.clear();
    for (arena *each : s_memory.arenas) {
        VirtualFree(each->base, 0, MEM_RELEASE);
        delete each;
    }
    s_memory.arenas.clear();
    s_memory.stats.live_blocks = 0;
    s_memory.stats.live_bytes = 0;
}
