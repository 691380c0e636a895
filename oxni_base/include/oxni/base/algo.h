/* Checksums and the simple coding of the platform's driver files (liboxnialgo). */
#ifndef OXNI_BASE_ALGO_H
#define OXNI_BASE_ALGO_H

#include <oxni/base/api.h>

/* CRC-32 as in zlib and ISO-HDLC (reflected 0x04C11DB7, start and end value inverted). */
OXNI_API uint32_t oxni_crc32_calc(const void *data, size_t length);

/*
 * Codes, and decodes, length bytes in place with the key's characters. Each undoes the other.
 *
 * key      At least one character; otherwise nothing is changed.
 */
OXNI_API void xor_encry(void *data, size_t length, const char *key);
OXNI_API void xor_decry(void *data, size_t length, const char *key);

#endif
