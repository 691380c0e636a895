/* Copies, comparisons and lengths, 16 bytes at a time. None reads a page that the caller's bytes do
 * not touch, so that guarded blocks fault as with the functions of the C runtime. Stateless. */
#include "quick_functions.h"

#include <cstdint>
#include <emmintrin.h>

#include "quick_format.h"
#include "stand_in.h"

static constexpr size_t STEP = sizeof(__m128i);

static __m128i load(const void *from)
{
    return _mm_loadu_si128(static_cast<const __m128i *>(from));
}

static void store(void *to, __m128i value)
{
    _mm_storeu_si128(static_cast<__m128i *>(to), value);
}

/* Copies one to two words, which overlap; both are read before the first is written. */
template <typename Word> static void copy_ends(char *to, const char *from, size_t bytes)
{
    Word first, last;

    memcpy(&first, from, sizeof(Word));
    memcpy(&last, from + bytes - sizeof(Word), sizeof(Word));
    memcpy(to, &first, sizeof(Word));
    memcpy(to + bytes - sizeof(Word), &last, sizeof(Word));
}

static void copy_many(char *to, const char *from, size_t bytes)
{
    const __m128i first = load(from), last = load(from + bytes - STEP);

    if (static_cast<size_t>(to - from) >= bytes)
        for (size_t at = STEP; at < bytes - STEP; at += STEP)
            store(to + at, load(from + at));
    else
        for (size_t at = bytes - STEP; at > STEP; at -= STEP)
            store(to + at - STEP, load(from + at - STEP));
    store(to, first);
    store(to + bytes - STEP, last);
}

/* Also in place of memcpy: the runtime's takes blocks that overlap, too. */
static void *stand_in_memmove(void *to, const void *from, size_t bytes)
{
    char *out = static_cast<char *>(to);
    const char *in = static_cast<const char *>(from);

    if (bytes > 2 * STEP)
        copy_many(out, in, bytes);
    else if (bytes >= STEP)
        copy_ends<__m128i>(out, in, bytes);
    else if (bytes >= sizeof(uint64_t))
        copy_ends<uint64_t>(out, in, bytes);
    else if (bytes >= sizeof(uint32_t))
        copy_ends<uint32_t>(out, in, bytes);
    else if (bytes >= sizeof(uint16_t))
        copy_ends<uint16_t>(out, in, bytes);
    else if (bytes != 0)
        *out = *in;
    return to;
}

/* The order of the 16 bytes from a place on; 0 when they are equal. */
static int compare_step(const uint8_t *a, const uint8_t *b)
{
    const int equal = _mm_movemask_epi8(_mm_cmpeq_epi8(load(a), load(b)));
    const unsigned at = static_cast<unsigned>(__builtin_ctz(static_cast<unsigned>(~equal)));

    return equal == 0xffff ? 0 : a[at] < b[at] ? -1 : 1;
}

/* The same of one to two words, which overlap. */
static int compare_words(const uint8_t *a, const uint8_t *b, size_t bytes)
{
    uint64_t one, other;

    memcpy(&one, a, sizeof(one));
    memcpy(&other, b, sizeof(other));
    if (one == other) {
        memcpy(&one, a + bytes - sizeof(one), sizeof(one));
        memcpy(&other, b + bytes - sizeof(other), sizeof(other));
    }
    if (one == other)
        return 0;
    return __builtin_bswap64(one) < __builtin_bswap64(other) ? -1 : 1;
}

static int stand_in_memcmp(const void *one, const void *other, size_t bytes)
{
    const uint8_t *a = static_cast<const uint8_t *>(one), *b = static_cast<const uint8_t *>(other);
    int order = 0;

    if (bytes >= STEP) {
        for (size_t at = 0; order == 0 && at + STEP <= bytes; at += STEP)
            order = compare_step(a + at, b + at);
        return order != 0 ? order : compare_step(a + bytes - STEP, b + bytes - STEP);
    }
    if (bytes >= sizeof(uint64_t))
        return compare_words(a, b, bytes);
    for (size_t at = 0; at < bytes; at++)
        if (a[at] != b[at])
            return a[at] < b[at] ? -1 : 1;
    return 0;
}

/* Bit i: byte i of the aligned 16 bytes belongs to a zero of the text's type. */
template <typename Char> static unsigned zeros(uintptr_t aligned)
{
    const __m128i bytes = *reinterpret_cast<const __m128i *>(aligned), zero = _mm_setzero_si128();

    return static_cast<unsigned>(_mm_movemask_epi8(
        sizeof(Char) == 1 ? _mm_cmpeq_epi8(bytes, zero) : _mm_cmpeq_epi16(bytes, zero)));
}

template <typename Char> static size_t length_of(const Char *text)
{
    const uintptr_t begin = reinterpret_cast<uintptr_t>(text);
    uintptr_t at = begin / STEP * STEP;
    unsigned found;

    if (begin % sizeof(Char) != 0) { /* in a packed structure */
        const Char *end = text;

        while (*end != 0)
            end++;
        return static_cast<size_t>(end - text);
    }
    found = zeros<Char>(at) >> (begin - at) << (begin - at);
    while (found == 0)
        found = zeros<Char>(at += STEP);
    return (at + static_cast<unsigned>(__builtin_ctz(found)) - begin) / sizeof(Char);
}

static size_t stand_in_strlen(const char *text)
{
    return length_of(text);
}

static size_t stand_in_wcslen(const wchar_t *text)
{
    return length_of(text);
}

void *quick_function(const char *name)
{
    static const stand_in_row rows[] = {
        {"memcpy",     reinterpret_cast<void *>(stand_in_memmove)},
        STAND_IN(memmove),
        STAND_IN(memcmp),
        STAND_IN(strlen),
        STAND_IN(wcslen),
        {"_vsnprintf", reinterpret_cast<void *>(quick_vsnprintf) },
        {"_snprintf",  reinterpret_cast<void *>(quick_snprintf)  },
    };

    return stand_in_find(rows, name);
}
