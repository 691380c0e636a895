/* The CRC-32 checksum and the XOR encoding of the platform's driver files (liboxnialgo). */
#ifndef OXNI_BASE_ALGO_H
#define OXNI_BASE_ALGO_H

#include <oxni/base/api.h>

/* Returns the CRC-32 as in zlib and ISO-HDLC: reflected polynomial 0x04C11DB7, initial and final
 * value inverted. */
OXNI_API uint32_t oxni_crc32_calc(const void *data, size_t length);

/*
 * Encode and decode length bytes in place with the key's characters. Each reverses the other.
 *
 * key      At least one character. An empty or null key leaves the data unchanged.
 */
OXNI_API void xor_encry(void *data, size_t length, const char *key);
OXNI_API void xor_decry(void *data, size_t length, const char *key);

#endif
