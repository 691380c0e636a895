/* The XOR encoding of driver files. Stateless; any thread. */
#include <oxni/base/algo.h>

#include <cstring>

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
