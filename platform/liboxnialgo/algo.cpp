/* CRC-32 and the XOR encoding of driver files. Stateless; any thread. */
#include <oxni/base/algo.h>

#include <cstring>

#include <zlib.h>

uint32_t oxni_crc32_calc(const void *data, size_t length)
{
    return static_cast<uint32_t>(crc32_z(0, static_cast<const Bytef *>(data), length));
}

void xor_encry(void *data, size_t length, const char *key)
{
    uint8_t *bytes = static_cast<uint8_t *>(data);
    size_t key_length = key == nullptr ? 0 : strlen(key);

    if (data == nullptr || key_length == 0)
        return;
    for (size_t i = 0; i < length; i++)
        bytes[i] = static_cast<uint8_t>(bytes[i] ^ static_cast<uint8_t>(key[i % key_length]));
}

void xor_decry(void *data, size_t length, const char *key)
{
    xor_encry(data, length, key);
}
