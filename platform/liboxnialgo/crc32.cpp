/* The CRC-32. Stateless; any thread. Folds 64 bytes at a time where the processor multiplies without
 * carry: readers of logs check every byte, and zlib is a fifth as fast. */
#include <oxni/base/algo.h>

#include <cstring>

#include <immintrin.h>
#include <zlib.h>

static constexpr size_t LANE_BYTES = 16, LANES = 4, FOLD_BYTES = LANE_BYTES * LANES;
static constexpr uint32_t POLYNOMIAL = 0xEDB88320u; /* reflected */

/* x to the power of n, modulo the polynomial; reflected, as the product of two reflected numbers needs
 * it. */
static constexpr long long power(unsigned n)
{
    uint32_t rest = 0x80000000u;

    for (; n > 0; n--)
        rest = rest >> 1 ^ (rest & 1 ? POLYNOMIAL : 0);
    return static_cast<long long>(static_cast<uint64_t>(rest) << 1);
}

__attribute__((target("sse2"))) static __m128i load(const uint8_t *bytes)
{
    return _mm_loadu_si128(reinterpret_cast<const __m128i *>(bytes));
}

/* What a lane contributes to the bytes that follow it at the distance of the powers. */
__attribute__((target("pclmul"))) static __m128i fold(__m128i lane, __m128i powers)
{
    return _mm_xor_si128(_mm_clmulepi64_si128(lane, powers, 0x00),
                         _mm_clmulepi64_si128(lane, powers, 0x11));
}

template <unsigned bits> static __m128i powers(void)
{
    constexpr long long LOW = power(bits + 32), HIGH = power(bits - 32);

    return _mm_set_epi64x(HIGH, LOW);
}

/* size: a multiple of LANE_BYTES, at least FOLD_BYTES. rest: the bytes that have the same remainder, where
 * the calculation begins with 0. */
__attribute__((target("pclmul"))) static void fold_all(const uint8_t *bytes, size_t size,
                                                       uint8_t rest[LANE_BYTES])
{
    const uint8_t *const end = bytes + size;
    const __m128i far = powers<8 * FOLD_BYTES>(), near = powers<8 * LANE_BYTES>();
    __m128i lanes[LANES];

    for (size_t i = 0; i < LANES; i++)
        lanes[i] = load(bytes + i * LANE_BYTES);
    lanes[0] = _mm_xor_si128(lanes[0], _mm_cvtsi32_si128(-1)); /* the initial value */
    for (bytes += FOLD_BYTES; bytes + FOLD_BYTES <= end; bytes += FOLD_BYTES)
        for (size_t i = 0; i < LANES; i++)
            lanes[i] = _mm_xor_si128(fold(lanes[i], far), load(bytes + i * LANE_BYTES));
    for (size_t i = 1; i < LANES; i++)
        lanes[i] = _mm_xor_si128(fold(lanes[i - 1], near), lanes[i]);
    for (; bytes < end; bytes += LANE_BYTES)
        lanes[LANES - 1] = _mm_xor_si128(fold(lanes[LANES - 1], near), load(bytes));
    memcpy(rest, &lanes[LANES - 1], LANE_BYTES);
}

uint32_t oxni_crc32_calc(const void *data, size_t length)
{
    static const bool s_folds = __builtin_cpu_supports("pclmul");
    const uint8_t *bytes = static_cast<const uint8_t *>(data);
    const size_t folded = length / LANE_BYTES * LANE_BYTES;
    uint8_t rest[LANE_BYTES];

    if (!s_folds || length < FOLD_BYTES)
        return static_cast<uint32_t>(crc32_z(0, bytes, length));
    fold_all(bytes, folded, rest);
    /* zlib inverts what it is given: all ones are its 0. */
    const uLong sum = crc32_z(UINT32_MAX, rest, sizeof(rest));

    return static_cast<uint32_t>(crc32_z(sum, bytes + folded, length - folded));
}
