#include "platform_test.h"

#include <liboxni_agentid/host.h>
#include <oxni/base/agentid.h>
#include <oxni/base/algo.h>
#include <oxni/base/registry.h>
#include <oxni/base/str.h>
#include <oxni/base/uuid.h>

namespace
{
using str = platform_test;

TEST_F(str, strlcpy_and_snprintf_truncate_and_terminate)
{
    const struct {
        size_t size;
        const char *copy;
        int printed; /* result of snprintf */
    } rows[] = {
        {4, "abc", 3 },
        {3, "ab",  -1},
        {1, "",    -1},
        {0, "###", -1},
    };

    for (const auto &row : rows) {
        char copy[16] = "###", printed[16] = "###";
        EXPECT_EQ(3U, oxni_strlcpy(copy, "abc", row.size));
        EXPECT_STREQ(row.copy, copy) << row.size;
        EXPECT_EQ(row.printed, oxni_str_snprintf(printed, row.size, "%s", "abc"));
        EXPECT_STREQ(row.copy, printed) << row.size;
    }
}

TEST_F(str, wide_text)
{
    const char bytes[] = "#a\0b\0\0\0c"; /* at an odd address */
    const wchar_t *odd = reinterpret_cast<const wchar_t *>(bytes + 1);
    wchar_t *wide = oxni_str_utf8_to_unicode("a\xf0\x9f\x98\x80");

    EXPECT_STREQ(L"a\xd83d\xde00", wide);
    oxni_str_free(wide);
    for (const char *text : {"\xff", "a\xe6\x97", static_cast<const char *>(nullptr)})
        EXPECT_EQ(nullptr, oxni_str_utf8_to_unicode(text));
    oxnih_memory_fail(1, 0);
    EXPECT_EQ(nullptr, oxni_str_utf8_to_unicode("x"));
    EXPECT_EQ(2U, oxni_wcsnlen(odd, 9));
    EXPECT_EQ(1U, oxni_wcsnlen(odd, 1));
    EXPECT_NE(0, oxni_wcscmp(L"System", L"system"));
    EXPECT_GT(oxni_strcmp("\xc3\xa4", "z"), 0); /* by byte, unsigned */
}

/* Every length, limit and alignment, before an inaccessible page. */
TEST_F(str, wcsnlen_at_every_alignment)
{
    static constexpr size_t PAGE = 4096, LONGEST = 20;
    char *page = static_cast<char *>(VirtualAlloc(nullptr, 2 * PAGE, MEM_RESERVE, PAGE_NOACCESS));
    VirtualAlloc(page, PAGE, MEM_COMMIT, PAGE_READWRITE);

    for (size_t skew = 0; skew < 8; skew++)
        for (size_t length = 0; length <= LONGEST; length++)
            for (size_t limit = 0; limit <= LONGEST + 1; limit++) {
                char *text = page + PAGE - skew - (std::min(length + 1, limit)) * sizeof(wchar_t);
                memset(page, 'x', PAGE);
                if (length < limit)
                    memset(text + length * sizeof(wchar_t), 0, sizeof(wchar_t));
                EXPECT_EQ(std::min(length, limit),
                          oxni_wcsnlen(reinterpret_cast<const wchar_t *>(text), limit))
                    << skew << " " << length << " " << limit;
            }
    VirtualFree(page, 0, MEM_RELEASE);
}

TEST_F(str, checksum_encoding_and_identifiers)
{
    char text[] = "the quick brown fox", buffer[37] = "#";
    oxni_uuid uuid = {
        0x12345678, 0x9abc, 0xdef0, {1, 2, 3, 4, 5, 6, 0xfe, 0xff}
    };

    EXPECT_EQ(0xcbf43926U, oxni_crc32_calc("123456789", 9));
    xor_encry(text, 5, "ab");
    EXPECT_EQ(std::string("\x15\x0a\x04\x42\x10") + "uick brown fox", text);
    xor_decry(text, 5, "ab");
    xor_encry(text, sizeof(text), "");
    EXPECT_STREQ("the quick brown fox", text);
    EXPECT_EQ(-1, oxni_uuid_make_cstr(&uuid, buffer, 36));
    EXPECT_EQ(0, oxni_uuid_make_cstr(&uuid, buffer, 37));
    EXPECT_STREQ("12345678-9abc-def0-0102-03040506feff", buffer);
    oxnih_set_device_id("message digest");
    EXPECT_EQ(-1, oxni_dev_get_id_md5(buffer, 32));
    EXPECT_EQ(0, oxni_dev_get_id_md5(buffer, 33));
    EXPECT_STREQ("f96b697d7cb7938d525a2f31aaf161d0", buffer);
}

TEST_F(str, a_registry_qword_needs_its_type_and_eight_bytes)
{
    const wchar_t *const path = L"Software\\platform_tests";
    const struct {
        DWORD type, bytes;
    } rows[] = {
        {REG_QWORD,  4},
        {REG_QWORD,  9},
        {REG_BINARY, 8},
        {REG_NONE,   8}
    };
    uint64_t value = 5;

    for (const auto &row : rows) {
        RegSetKeyValueW(HKEY_CURRENT_USER, path, L"v", row.type, L"123456", row.bytes);
        EXPECT_EQ(0, oxni_req_query_qword_w(HKEY_CURRENT_USER, path, L"v", &value)) << row.type;
    }
    EXPECT_EQ(5U, value);
    RegDeleteKeyW(HKEY_CURRENT_USER, path);
}
} // namespace
