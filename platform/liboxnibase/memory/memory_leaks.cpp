/* Leaks: live blocks by allocation site, and unreachable blocks. */
#include "memory_internal.h"

#include <algorithm>
#include <cstring>
#include <unordered_map>

struct leak {
    std::string site;
    uint64_t blocks, bytes;
};
/* Leaks by caller. */
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
        entry.second.site = memory_site_text(entry.first);
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

    guard_each([&found](uintptr_t, const block &each) {
        if (each.freed_by == nullptr)
            add_leak(found, each.caller, each.size);
    });
    for (plain_block *each = memory_all.plain.next; each != &memory_all.plain; each = each->next)
        add_leak(found, each->caller, each->size);
    report_leaks(found, fn, user);
}

/* Finds the reachable guarded blocks. Pointers into a block count as well as pointers to its
 * start. */
class reach
{
  public:
    reach()
    {
        guard_each([this](uintptr_t begin, const block &each) {
            if (each.freed_by == nullptr)
                targets_.push_back({begin, &each, false});
        });
        std::sort(targets_.begin(), targets_.end(),
                  [](const target &one, const target &other) { return one.begin < other.begin; });
        if (!targets_.empty()) {
            begin_ = targets_.front().begin;
            bytes_ = targets_.back().begin + targets_.back().is->size - begin_;
        }
    }

    bool has_targets() const
    {
        return !targets_.empty();
    }

    /* Treats every 8 bytes from begin on as a pointer. begin may be unaligned, since a guarded
     * block may start anywhere. */
    void scan(uintptr_t begin, uintptr_t end)
    {
        for (uintptr_t pointer; begin + sizeof(pointer) <= end; begin += sizeof(pointer)) {
            memcpy(&pointer, reinterpret_cast<const void *>(begin), sizeof(pointer));
            /* Most values are outside the range of the blocks: they skip the search. */
            if (pointer - begin_ <= bytes_)
                mark(pointer);
        }
    }

    /* Scans the blocks that were found, until no new one is. */
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
        auto next = std::upper_bound(
            targets_.begin(), targets_.end(), pointer,
            [](uintptr_t value, const target &other) { return value < other.begin; });
        target &at = *std::prev(next);
        if (at.reached || (pointer != at.begin && pointer - at.begin >= at.is->size))
            return;
        at.reached = true;
        found_.push_back(static_cast<size_t>(&at - targets_.data()));
    }

    /* In a heap of their own: they must neither count as pointers nor change a heap during its
     * walk. */
    std::vector<target, own_allocator<target>> targets_; /* sorted by address */
    uintptr_t begin_ = UINTPTR_MAX, bytes_ = 0;          /* of all targets */
    std::vector<size_t, own_allocator<size_t>> found_;   /* not scanned yet */
};

/* Scans the writable sections of a module. */
static void scan_module(reach &reach, char *base)
{
    const IMAGE_DOS_HEADER *dos = reinterpret_cast<const IMAGE_DOS_HEADER *>(base);
    IMAGE_NT_HEADERS64 *nt = reinterpret_cast<IMAGE_NT_HEADERS64 *>(base + dos->e_lfanew);
    const IMAGE_SECTION_HEADER *section = reinterpret_cast<const IMAGE_SECTION_HEADER *>(
        reinterpret_cast<const BYTE *>(&nt->OptionalHeader) + nt->FileHeader.SizeOfOptionalHeader);

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

static void (*s_each_block_of_host)(oxnih_range_fn fn, void *user);

void oxnih_memory_search_also(void (*each_block)(oxnih_range_fn fn, void *user))
{
    s_each_block_of_host = each_block;
}

static void scan_range(const void *begin, size_t bytes, void *user)
{
    const uintptr_t first = reinterpret_cast<uintptr_t>(begin);

    static_cast<reach *>(user)->scan(first, first + bytes);
}

void oxnih_memory_lost(const void *plugin, oxnih_leak_fn fn, void *user)
{
    HANDLE heaps[64];
    DWORD count;
    leak_map lost;
    reach reach;

    /* Walking the heaps takes longer than a simulated boot, and most agents have no guarded
     * block. */
    if (!reach.has_targets())
        return;
    for (const module_range &module : memory_all.seen_through)
        scan_module(reach, reinterpret_cast<char *>(module.begin));
    scan_module(reach, const_cast<char *>(static_cast<const char *>(plugin)));
    count = GetProcessHeaps(ARRAYSIZE(heaps), heaps);
    for (DWORD i = 0; i < std::min<DWORD>(count, ARRAYSIZE(heaps)); i++)
        if (heaps[i] != memory_own_heap())
            scan_heap(reach, heaps[i]);
    if (s_each_block_of_host != nullptr)
        s_each_block_of_host(scan_range, &reach);
    reach.follow();
    reach.missing(lost);
    report_leaks(lost, fn, user);
}
