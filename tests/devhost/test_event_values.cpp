/* The library's text of signed integers in event records, of every size: our build corrects it. */
#include <stdint.h>
#include <string.h>

#include <string>

#include <gtest/gtest.h>

/* Functions of the library that its header does not declare. */
extern "C" {
int libfvalue_integer_initialize(intptr_t **integer, intptr_t **error);
int libfvalue_integer_free(intptr_t **integer, intptr_t **error);
int libfvalue_integer_copy_from_byte_stream(intptr_t *integer, const uint8_t *bytes, size_t size,
                                            int encoding, intptr_t **error);
int libfvalue_integer_get_string_size(intptr_t *integer, size_t *size, uint32_t flags,
                                      intptr_t **error);
int libfvalue_integer_copy_to_utf8_string_with_index(intptr_t *integer, uint8_t *text, size_t size,
                                                     size_t *index, uint32_t flags,
                                                     intptr_t **error);
}

#define LITTLE_ENDIAN_BYTES 'l'
#define SIGNED_DECIMAL      0x101u

static std::string text_of(int64_t value, size_t bytes)
{
    intptr_t *integer = NULL;
    uint8_t stream[sizeof(value)], text[32] = {};
    size_t size = 0, index = 0;

    memcpy(stream, &value, sizeof(value));
    EXPECT_EQ(1, libfvalue_integer_initialize(&integer, NULL));
    EXPECT_EQ(1, libfvalue_integer_copy_from_byte_stream(integer, stream, bytes,
                                                         LITTLE_ENDIAN_BYTES, NULL));
    EXPECT_EQ(1, libfvalue_integer_get_string_size(integer, &size, SIGNED_DECIMAL, NULL));
    EXPECT_EQ(1, libfvalue_integer_copy_to_utf8_string_with_index(integer, text, size, &index,
                                                                  SIGNED_DECIMAL, NULL));
    libfvalue_integer_free(&integer, NULL);
    return reinterpret_cast<const char *>(text);
}

TEST(event_values, signed_integers)
{
    static const struct {
        int64_t value;
        size_t bytes;
    } rows[] = {
        {-1,          1},
        {INT8_MIN,    1},
        {-180,        2},
        {INT16_MIN,   2},
        {-180,        4},
        {-1,          4},
        {-2147024891, 4},
        {INT32_MIN,   4},
        {-180,        8},
        {INT64_MIN,   8},
        {0,           4},
        {INT32_MAX,   4},
        {INT64_MAX,   8},
    };

    for (const auto &row : rows)
        EXPECT_EQ(std::to_string(row.value), text_of(row.value, row.bytes))
            << row.bytes << " bytes";
}
