#include "platform_test.h"

#include <liboxni_agentid/host.h>
#include <oxni/base/agentid.h>
#include <oxni/base/algo.h>
#include <oxni/base/registry.h>
#include <oxni/base/str.h>
#include <oxni/base/uuid.h>

namespace
{
class str : public platform_test
{
};

TEST_F(str, strlcpy_and_snprintf_cut_and_terminate)
{
    const struct {
        const char *source;
        size_t size;
        const char *copy;
        int printed; /* what snprintf answers */
    } rows[] = {
        {"",    1,  "",    0 },
        {"abc", 4,  "abc", 3 },
        {"abc", 3,  "ab",  -1},
        {"abc", 1,  "",    -1},
        {"abc", 0,  "###", -1},
        {"",    0,  "###", -1},
        {"abc", 10, "abc", 3 }
    };

    for (const auto &row : rows) {
        char copy[16] = "###", printed[16] = "###";
        EXPECT_EQ(strlen(row.source), oxni_strlcpy(copy, row.source, row.size));
        EXPECT_STREQ(row.copy, copy) << row.source << row.size;
        EXPECT_EQ(row.printed, oxni_str_snprintf(printed, row.size, "%s", row.source));
        EXPECT_STREQ(row.copy, printed) << row.source << row.size;
    }
}

TEST_F(str, formats_are_those_of_the_microsoft_runtime)
{
    char text[64];

    EXPECT_EQ(16, oxni_str_snprintf(text, sizeof(text), "%S %I64d", L"wide", INT64_C(-5000000000)));
    EXPECT_STREQ("wide -5000000000", text);
}

TEST_F(str, comparison_takes_null)
{
    EXPECT_EQ(0, oxni_strcmp(NULL, NULL));
    EXPECT_LT(oxni_strcmp(NULL, ""), 0);
    EXPECT_GT(oxni_strcmp("", NULL), 0);
    EXPECT_LT(oxni_strcmp("a", "b"), 0);
    EXPECT_GT(oxni_strcmp("\xc3\xa4", "z"), 0); /* by byte, unsigned */
    EXPECT_EQ(0, oxni_wcscmp(NULL, NULL));
    EXPECT_LT(oxni_wcscmp(NULL, L""), 0);
    EXPECT_NE(0, oxni_wcscmp(L"System", L"system"));
    EXPECT_EQ(0, oxni_wcscmp(L"System", L"System"));
}

TEST_F(str, wcsnlen_stays_inside_and_needs_no_alignment)
{
    char bytes[] = "#a\0b\0\0\0c";

    EXPECT_EQ(2U, oxni_wcsnlen(reinterpret_cast<const wchar_t *>(bytes + 1), 9));
    EXPECT_EQ(1U, oxni_wcsnlen(reinterpret_cast<const wchar_t *>(bytes + 1), 1));
    EXPECT_EQ(0U, oxni_wcsnlen(reinterpret_cast<const wchar_t *>(bytes + 1), 0));
    EXPECT_EQ(0U, oxni_wcsnlen(NULL, 5));
}

TEST_F(str, utf8_to_unicode)
{
    const struct {
        const char *text;
        const wchar_t *wide; /* NULL: refused */
    } rows[] = {
        {"",                 L""            },
        {"C:/x",             L"C:/x"        },
        {"\xe6\x97\xa5",     L"\x65e5"      },
        {"\xf0\x9f\x98\x80", L"\xd83d\xde00"},
        {"\xff",             NULL           },
        {"\xe6\x97",         NULL           },
        {NULL,               NULL           }
    };

    for (const auto &row : rows) {
        wchar_t *wide = oxni_str_utf8_to_unicode(row.text);
        EXPECT_EQ(0, oxni_wcscmp(row.wide, wide)) << row.text;
        oxni_str_free(wide);
    }
    oxnih_memory_fail(1, 0);
    EXPECT_EQ(nullptr, oxni_str_utf8_to_unicode("x"));
}

TEST_F(str, uuids)
{
    oxni_uuid uuid =
                  {
                      0x12345678, 0x9abc, 0xdef0, {1, 2, 3, 4, 5, 6, 0xfe, 0xff}
    },
              other;
    char text[37] = "#";

    EXPECT_EQ(-1, oxni_uuid_make_cstr(&uuid, text, 36));
    EXPECT_STREQ("", text);
    EXPECT_EQ(0, oxni_uuid_make_cstr(&uuid, text, 37));
    EXPECT_STREQ("12345678-9abc-def0-0102-03040506feff", text);
    EXPECT_EQ(0, oxni_uuid_create(&uuid));
    EXPECT_EQ(0, oxni_uuid_create(&other));
    EXPECT_NE(0, memcmp(&uuid, &other, sizeof(uuid)));
    for (uint32_t number : {7U, 8U}) {
        oxnih_uuid_fix(7);
        oxni_uuid_create(&uuid);
        if (number == 8)
            oxni_uuid_create(&uuid);
        EXPECT_EQ(number, uuid.data1);
    }
    oxnih_uuid_fix(0);
}

TEST_F(str, checksum_and_coding)
{
    char text[] = "the quick brown fox";
    std::string plain = text;

    EXPECT_EQ(0xcbf43926U, oxni_crc32_calc("123456789", 9));
    EXPECT_EQ(0U, oxni_crc32_calc("", 0));
    EXPECT_EQ(0xd202ef8dU, oxni_crc32_calc("\0", 1));
    xor_encry(text, 5, "ab");
    EXPECT_EQ(std::string("\x15\x0a\x04\x42\x10") + "uick brown fox", text);
    xor_decry(text, 5, "ab");
    EXPECT_EQ(plain, text);
    xor_encry(text, sizeof(text), "");
    xor_encry(text, sizeof(text), NULL);
    EXPECT_EQ(plain, text);
}

TEST_F(str, device_identity)
{
    char md5[33] = "#", again[33];

    oxnih_set_device_id("message digest");
    EXPECT_EQ(-1, oxni_dev_get_id_md5(md5, 32));
    EXPECT_STREQ("", md5);
    EXPECT_EQ(0, oxni_dev_get_id_md5(md5, 33));
    EXPECT_STREQ("f96b697d7cb7938d525a2f31aaf161d0", md5);
    EXPECT_EQ(0x20159d7fU, oxni_dev_get_id_crc32());
    oxnih_set_device_id(NULL); /* the machine's own: of use only if it stays */
    EXPECT_EQ(0, oxni_dev_get_id_md5(md5, 33));
    EXPECT_EQ(0, oxni_dev_get_id_md5(again, 33));
    EXPECT_STREQ(md5, again);
    EXPECT_STRNE("d41d8cd98f00b204e9800998ecf8427e", md5); /* of no text at all */
}

TEST_F(str, registry_qword)
{
    const wchar_t *const path = L"Software\\platform_tests";
    const uint64_t number = 0x123456789abcdef0;
    const struct {
        const wchar_t *name;
        DWORD type, bytes;
        int result;
    } rows[] = {
        {L"right",  REG_QWORD,  8, 1},
        {L"short",  REG_QWORD,  4, 0},
        {L"binary", REG_BINARY, 8, 0},
        {L"dword",  REG_DWORD,  4, 0},
        {L"none",   REG_NONE,   0, 0}
    };
    HKEY key = NULL;

    RegCreateKeyExW(HKEY_CURRENT_USER, path, 0, NULL, REG_OPTION_VOLATILE, KEY_ALL_ACCESS, NULL,
                    &key, NULL);
    for (const auto &row : rows) {
        uint64_t value = 5;
        if (row.type != REG_NONE)
            RegSetValueExW(key, row.name, 0, row.type, reinterpret_cast<const BYTE *>(&number),
                           row.bytes);
        EXPECT_EQ(row.result,
                  oxni_req_query_qword_w(HKEY_CURRENT_USER, path, row.name, &value) != 0)
            << row.type;
        EXPECT_EQ(row.result != 0 ? number : 5, value) << row.type;
    }
    RegCloseKey(key);
    RegDeleteKeyW(HKEY_CURRENT_USER, path);
    EXPECT_EQ(0, oxni_req_query_qword_w(HKEY_CURRENT_USER, path, L"right", NULL));
}
} // namespace
