/* Lists of free blocks, one for each size. */
#include "heap.h"

#include <cstdint>
#include <cstdlib>
#include <cstring>

#include <algorithm>
#include <string>
#include <vector>

#include "../../platform/liboxnibase/host.h"
#include "imports.h"
#include "quick_functions.h"
#include "stand_in.h"

/* A span is cut into blocks of one class, which is a size: steps of 16 bytes up to 512, and above it
 * four to each doubling. */
static constexpr uint32_t SPAN_SHIFT = 18u;
static constexpr size_t SPAN_BYTES = static_cast<size_t>(1) << SPAN_SHIFT;
static constexpr size_t SPANS = static_cast<size_t>(1) << 14; /* 4 GiB of address space */
static constexpr uint32_t STEP_BYTES = 16u;
static constexpr uint32_t SMALL_SHIFT = 9u;
static constexpr size_t SMALL_BYTES = static_cast<size_t>(1) << SMALL_SHIFT;
static constexpr size_t SMALL_CLASSES = SMALL_BYTES / STEP_BYTES;
static constexpr size_t LARGEST_BYTES = SPAN_BYTES / 2;
static constexpr size_t CLASSES =
    (SMALL_CLASSES + static_cast<size_t>(4) * (SPAN_SHIFT - 1 - SMALL_SHIFT));

struct free_block {
    free_block *next;
};

static struct {
    const void *thread; /* that opened it */
    uint8_t *base;      /* of all spans; NULL: not open */
    size_t spans;       /* in use */
    uint8_t span_class[SPANS];
    free_block *free[CLASSES];
    uint8_t *unused[CLASSES], *unused_end[CLASSES]; /* of the newest span, never given out so far */
} s_heap;

/* The C runtime's functions. */
static struct {
    decltype(&malloc) malloc;
    decltype(&calloc) calloc;
    decltype(&realloc) realloc;
    decltype(&free) free;
} s_real;

static size_t class_of(size_t bytes)
{
    if (bytes <= SMALL_BYTES)
        return bytes == 0 ? 0 : (bytes - 1) / STEP_BYTES;
    const size_t shift = 63u - static_cast<size_t>(__builtin_clzll(bytes - 1));
    return SMALL_CLASSES + (shift - SMALL_SHIFT) * 4 + (((bytes - 1) >> (shift - 2)) & 3);
}

static size_t class_bytes(size_t which)
{
    if (which < SMALL_CLASSES)
        return (which + 1) * STEP_BYTES;
    const size_t quarters = which - SMALL_CLASSES;
    return (5 + quarters % 4) << (SMALL_SHIFT + quarters / 4 - 2);
}

static size_t offset_of(const void *block)
{
    return static_cast<size_t>(static_cast<const uint8_t *>(block) - s_heap.base);
}

static bool is_ours(const void *block)
{
    return offset_of(block) < SPANS * SPAN_BYTES;
}

static size_t block_class(const void *block)
{
    return s_heap.span_class[offset_of(block) >> SPAN_SHIFT];
}

/* The address of the thread's block, read as NtCurrentTeb does, which compilers warn of: asking for
 * the thread's id takes a call at each block. */
static const void *this_thread(void)
{
    const void *block;

    __asm__("movq %%gs:0x30, %0" : "=r"(block));
    return block;
}

static bool is_our_thread(void)
{
    return this_thread() == s_heap.thread;
}

static bool add_span(size_t which)
{
    uint8_t *span = s_heap.base + s_heap.spans * SPAN_BYTES;

    if (s_heap.spans == SPANS ||
        VirtualAlloc(span, SPAN_BYTES, MEM_COMMIT, PAGE_READWRITE) == nullptr)
        return false;
    s_heap.span_class[s_heap.spans++] = static_cast<uint8_t>(which);
    s_heap.unused[which] = span;
    s_heap.unused_end[which] = span + SPAN_BYTES / class_bytes(which) * class_bytes(which);
    return true;
}

/* A block of a class; NULL: no memory. */
static void *take(size_t which)
{
    free_block *block = s_heap.free[which];

    if (block != nullptr) {
        s_heap.free[which] = block->next;
        return block;
    }
    if (s_heap.unused[which] == s_heap.unused_end[which] && !add_span(which))
        return nullptr;
    void *fresh = s_heap.unused[which];
    s_heap.unused[which] += class_bytes(which);
    return fresh;
}

/* What a block has beyond the bytes that were asked for may hold an old pointer, by which the search
 * for lost blocks would find one. */
static void clear_rest(void *block, size_t bytes)
{
    memset(static_cast<uint8_t *>(block) + bytes, 0, class_bytes(block_class(block)) - bytes);
}

/* The same for a new block, whose bytes may be written over: in a small one the rest is below a
 * step, and a call of memset for it would take longer than all else. */
static void clear_rest_of_new(void *block, size_t bytes)
{
    uint64_t *end;

    if (bytes > SMALL_BYTES) {
        clear_rest(block, bytes);
        return;
    }
    end = static_cast<uint64_t *>(block) + (class_of(bytes) + 1) * (STEP_BYTES / sizeof(*end));
    end[-1] = end[-2] = 0;
}

static void *heap_malloc(size_t bytes)
{
    void *block = bytes <= LARGEST_BYTES && is_our_thread() ? take(class_of(bytes)) : nullptr;

    if (block == nullptr)
        return s_real.malloc(bytes);
    clear_rest_of_new(block, bytes);
    return block;
}

static void *heap_calloc(size_t count, size_t bytes)
{
    size_t all;

    if (__builtin_mul_overflow(count, bytes, &all) || all > LARGEST_BYTES || !is_our_thread())
        return s_real.calloc(count, bytes);
    void *block = heap_malloc(all);
    return block != nullptr ? memset(block, 0, all) : nullptr;
}

static void heap_free(void *block)
{
    if (!is_ours(block)) {
        s_real.free(block);
        return;
    }
    if (!is_our_thread())
        return;
    free_block *freed = static_cast<free_block *>(block);
    free_block **list = &s_heap.free[block_class(block)];
    freed->next = *list;
    *list = freed;
}

static void *heap_realloc(void *old, size_t bytes)
{
    if (old == nullptr)
        return heap_malloc(bytes);
    if (!is_ours(old))
        return s_real.realloc(old, bytes);
    const size_t size = class_bytes(block_class(old));
    if (bytes != 0 && class_of(std::min(bytes, LARGEST_BYTES)) == block_class(old) &&
        bytes <= size) {
        clear_rest(old, bytes);
        return old;
    }
    void *block = bytes != 0 ? heap_malloc(bytes) : nullptr;
    if (block != nullptr)
        memcpy(block, old, std::min(bytes, size));
    if (block != nullptr || bytes == 0)
        heap_free(old);
    return block;
}

/* Which 16 bytes begin a free block. */
static std::vector<bool> free_blocks(void)
{
    std::vector<bool> is_free(s_heap.spans * (SPAN_BYTES / STEP_BYTES));

    for (const free_block *block : s_heap.free)
        for (; block != nullptr; block = block->next)
            is_free[offset_of(block) / STEP_BYTES] = true;
    return is_free;
}

/* Calls fn for each block that is given out. */
static void each_block(oxnih_range_fn fn, void *user)
{
    const std::vector<bool> is_free = free_blocks();

    for (size_t i = 0; i < is_free.size() / (SPAN_BYTES / STEP_BYTES); i++) {
        uint8_t *span = s_heap.base + i * SPAN_BYTES;
        const size_t which = s_heap.span_class[i], bytes = class_bytes(which);
        const uint8_t *end = span + SPAN_BYTES / bytes * bytes;

        if (end == s_heap.unused_end[which])
            end = s_heap.unused[which];
        for (uint8_t *block = span; block < end; block += bytes)
            if (!is_free[offset_of(block) / STEP_BYTES])
                fn(block, bytes, user);
    }
}

void heap_redirect(HMODULE module)
{
    static const stand_in_row rows[] = {
        {"malloc",  reinterpret_cast<void *>(heap_malloc) },
        {"calloc",  reinterpret_cast<void *>(heap_calloc) },
        {"realloc", reinterpret_cast<void *>(heap_realloc)},
        {"free",    reinterpret_cast<void *>(heap_free)   },
    };

    if (s_heap.base == nullptr || module == nullptr)
        return;
    imports_each(module, [](const std::string &library, const char *name, void **entry) {
        if (library != "msvcrt.dll")
            return;
        void *function = stand_in_find(rows, name);

        if (function == nullptr)
            function = quick_function(name);
        if (function != nullptr)
            imports_redirect(entry, function);
    });
}

template <typename Function> static Function runtime_function(const char *name)
{
    return reinterpret_cast<Function>(
        reinterpret_cast<void *>(GetProcAddress(GetModuleHandleW(L"msvcrt.dll"), name)));
}

void heap_open(void)
{
    static const wchar_t *const modules[] = {nullptr, /* this program */ PLATFORM_DLLS};

    if (s_heap.base != nullptr)
        return;
    s_real = {runtime_function<decltype(&malloc)>("malloc"),
              runtime_function<decltype(&calloc)>("calloc"),
              runtime_function<decltype(&realloc)>("realloc"),
              runtime_function<decltype(&free)>("free")};
    s_heap.thread = this_thread();
    s_heap.base = static_cast<uint8_t *>(
        VirtualAlloc(nullptr, SPANS * SPAN_BYTES, MEM_RESERVE, PAGE_NOACCESS));
    for (const wchar_t *module : modules)
        heap_redirect(GetModuleHandleW(module));
    oxnih_memory_search_also(each_block);
}
