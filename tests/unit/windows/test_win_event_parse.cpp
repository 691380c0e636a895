/* The event-log reader on what no scenario can produce: records that lie about themselves. */
#include "win_event_parse.h"

#include "process_privilege.h"
#include "unit_support.h"

#include <stdexcept>

#include <cstddef>
#include <cstring>

#include <gtest/gtest.h>

#include "liboxnibase/host.h"

static constexpr int NO_MATCH = 13;
static constexpr wchar_t KERNEL[] = L"Microsoft-Windows-Kernel-General";

static const event_key s_crash_keys[] = {
    {12,   KERNEL     },
    {1001, L"BugCheck"},
    {7001, nullptr    },
};
static const expected_event_map s_crash_map = {s_crash_keys, ARRAYSIZE(s_crash_keys)};

/* The record with another number in one of its fields. */
template <typename Number> static block with(block record, size_t field, Number value)
{
    memcpy(&record.at(field), &value, sizeof(value));
    return record;
}

static block with_length(const block &record, size_t length)
{
    return with(record, offsetof(EVENTLOGRECORD, Length), static_cast<uint32_t>(length));
}

static block operator+(block left, const block &right)
{
    left.insert(left.end(), right.begin(), right.end());
    return left;
}

static block cut(block bytes, size_t size)
{
    bytes.resize(size);
    return bytes;
}

/* A record whose source name of that many characters has no end inside it. */
static block endless_name(size_t chars)
{
    return with_length(cut(event_record(1001, std::wstring(chars, L'B')), 56 + 2 * chars),
                       56 + 2 * chars);
}

TEST(test_find_expected_event, blocks)
{
    const block other = event_record(7036, L"Service Control Manager");
    const block start = event_record(12, KERNEL);
    const block crash = event_record(1001, L"BugCheck");
    block large;
    while (large.size() < 100000)
        large = large + other;
    const block odd = with_length(other + block(1), other.size() + 1);
    const std::vector<std::wstring> strings(300, L"s");
    const block many = event_record(7036, L"Many", strings);
    static const size_t none = SIZE_MAX;
    /* clang-format off */
    const struct {
        const char *row;
        block bytes;
        size_t found; /* offset of the record that is taken */
        const char *warning; /* part of a log line, or NULL */
    } rows[] = {
        {"after one of odd length", odd + crash, odd.size(), nullptr},
        {"after one of 300 strings", many + crash, many.size(), nullptr},
        {"of 300 strings", event_record(1001, L"BugCheck", strings), 0, nullptr},
        {"after 100 KB", large + crash, large.size(), nullptr},
        {"of a long name", event_record(7001, std::wstring(300, L'n')), 0, nullptr},
        {"after one whose id differs in a high bit", event_record(12 + 64, KERNEL) + start,
         event_record(12 + 64, KERNEL).size(), nullptr},
        {"of any provider", event_record(12, L"BugCheck") + event_record(7001, L"any"),
         event_record(12, L"BugCheck").size(), nullptr},
        {"length of zero", with_length(other, 0) + crash, none, nullptr},
        {"length of zero, itself expected", with_length(crash, 0), 0, nullptr},
        {"beyond the block", with_length(other, other.size() + 1), none, nullptr},
        {"beyond the block, itself expected", with_length(crash, crash.size() + 1), 0, nullptr},
        {"largest length", with_length(other, UINT32_MAX) + start, none, nullptr},
        {"bare header", with_length(cut(crash, 56), 56), none,
         "event id[1001] provider len[0] record len[56] left len[0]"},
        {"endless name, then a good record", endless_name(8) + start, 72,
         "event id[1001] provider len[8] record len[72] left len[8]"},
        {"endless name, qualifiers in the id",
         with(endless_name(8), offsetof(EVENTLOGRECORD, EventID), 0x800003e9u), none,
         "event id[-2147482647] provider len[8] record len[72] left len[8]"},
        {"name ends just after the length", with_length(cut(crash, 74), 72), none,
         "event id[1001] provider len[8] record len[72] left len[8]"},
        {"name ends with the length", with_length(crash, 74), 0, nullptr},
        {"length below the header's, name inside the block", with_length(crash, 55), 0, nullptr},
    };
    /* clang-format on */

    for (const auto &row : rows) {
        SCOPED_TRACE(row.row);
        uint32_t event_id = 0;
        const wchar_t *provider = nullptr;
        const uint8_t *record = nullptr;
        log_forget();
        const uint32_t result =
            find_expected_event(row.bytes.data(), static_cast<uint32_t>(row.bytes.size()),
                                &event_id, &provider, &record, s_crash_map);
        EXPECT_EQ(result, row.found == none ? NO_MATCH : 0u);
        EXPECT_EQ(event_id == 0, row.found == none);
        EXPECT_EQ(record, row.found == none ? nullptr : row.bytes.data() + row.found);
        EXPECT_EQ(static_cast<const void *>(provider), record == nullptr ? nullptr : record + 56);
        if (row.warning != nullptr) {
            EXPECT_TRUE(log_contains(row.warning));
        }
    }
}

static uint32_t search(const uint8_t *bytes, size_t size)
{
    uint32_t event_id;
    const wchar_t *provider;
    const uint8_t *record;

    return find_expected_event(bytes, static_cast<uint32_t>(size), &event_id, &provider, &record,
                               s_crash_map);
}

/* Every cut of a block that ends at an inaccessible page, and in it every byte changed: no read
 * leaves the block. */
TEST(test_find_expected_event, nothing_behind_the_block_is_read)
{
    const block good = event_record(7036, L"Other") + event_record(41, L"K") + endless_name(3);
    static const size_t page = 4096;
    DWORD protection;
    uint8_t *pages =
        static_cast<uint8_t *>(VirtualAlloc(nullptr, 2 * page, MEM_COMMIT, PAGE_READWRITE));

    ASSERT_TRUE(VirtualProtect(pages + page, page, PAGE_NOACCESS, &protection));
    for (size_t size = 0; size <= good.size(); size++)
        for (size_t changed = 0; changed < size; changed++) {
            uint8_t *bytes = pages + page - size;
            memcpy(bytes, good.data(), size);
            bytes[changed] = static_cast<uint8_t>(bytes[changed] ^ 1 << changed % 8);
            EXPECT_EQ(search(bytes, size), static_cast<uint32_t>(NO_MATCH));
        }
    /* Lengths that end the name early, or wrap, where nothing ends it. */
    for (uint32_t length = 1; length <= 64; length++) {
        const block record = with_length(endless_name(4), length);
        memcpy(pages + page - record.size(), record.data(), record.size());
        EXPECT_EQ(search(pages + page - record.size(), record.size()),
                  static_cast<uint32_t>(NO_MATCH));
    }
    EXPECT_EQ(search(nullptr, 4096), static_cast<uint32_t>(NO_MATCH));
    VirtualFree(pages, 0, MEM_RELEASE);
}

/* Insertion strings that the record's fields place wrongly. */
TEST(test_get_crash_info, insertion_strings_stay_inside_the_record)
{
    const block record = event_record(1001, L"BugCheck", {L"one", L"two"});
    const uint32_t size = static_cast<uint32_t>(record.size()), as_written = 92;
    /* clang-format off */
    const struct {
        const char *row;
        uint32_t length, offset;
        uint16_t count;
        std::vector<std::wstring> strings;
    } rows[] = {
        {"as written", size, as_written, 2, {L"one", L"two"}},
        {"fewer than there are", size, as_written, 1, {L"one"}},
        {"more: the length at the end is read as one", size, as_written, 9, {L"one", L"two", L"p"}},
        {"more, and the record beyond the block", size + 100, as_written, 9,
         {L"one", L"two", L"p"}},
        {"ends in the second string", 104, as_written, 9, {L"one", L"tw"}},
        {"half a character left", size, size - 1, 1, {}},
        {"as far as it goes", size, UINT32_MAX - 1, 2, {}},
        {"length of zero", 0, as_written, 2, {}},
    };
    /* clang-format on */

    for (const auto &row : rows) {
        SCOPED_TRACE(row.row);
        event_info info = {};
        const block changed = with(with(record, offsetof(EVENTLOGRECORD, StringOffset), row.offset),
                                   offsetof(EVENTLOGRECORD, NumStrings), row.count);
        system_log log(with_length(changed, row.length));
        log_forget();
        EXPECT_EQ(win_event_parse().get_crash_info(&info, s_crash_map), 0u);
        EXPECT_TRUE(log_contains("system crash time:")); /* with or without strings */
        EXPECT_EQ(info.strings, row.strings);
    }
    event_info info = {};
    info.strings = {L"before"};
    system_log log(record);
    EXPECT_EQ(win_event_parse().get_crash_info(&info, s_crash_map), 0u);
    EXPECT_EQ(info.strings, (std::vector<std::wstring>{L"before", L"one", L"two"}));
    std::vector<std::wstring> many(300);
    many.back() = std::wstring(100000, L'l');
    info.strings.clear();
    system_log::fill(event_record(1001, L"BugCheck", many));
    EXPECT_EQ(win_event_parse().get_crash_info(&info, s_crash_map), 0u);
    EXPECT_EQ(info.strings, many);
}

TEST(test_unix_time_to_filetime, seconds_are_unsigned)
{
    FILETIME filetime;

    unix_time_to_filetime(UINT32_MAX, &filetime);
    EXPECT_EQ((static_cast<uint64_t>(filetime.dwHighDateTime) << 32) | filetime.dwLowDateTime,
              159394408950000000);
    unix_time_to_filetime(1, nullptr);
}

/* No memory for the buffer, at first and when it has to grow. */
TEST(test_get_crash_info, no_memory)
{
    for (uint64_t nth = 1; nth <= 2; nth++) {
        system_log log(event_record(7036, L"Large", {std::wstring(5000, L'x')}));
        event_info info = {"before", 5, 6, {}};
        const uint64_t blocks = live_blocks();
        while_failing(nth,
                      [&] { EXPECT_EQ(win_event_parse().get_crash_info(&info, s_crash_map), 2u); });
        EXPECT_EQ(live_blocks(), blocks);
        EXPECT_STREQ(info.time_text, "before");
        EXPECT_EQ(info.time_generated + info.event_id, 11u);
    }
}

static bool s_privilege_enabled;

/* An exception leaves the privilege disabled, the log closed and the buffer freed. */
TEST(test_get_crash_info, exception)
{
    const import_patch adjust(
        "AdjustTokenPrivileges",
        [](HANDLE, BOOL, TOKEN_PRIVILEGES *privileges, DWORD, TOKEN_PRIVILEGES *, DWORD *) {
            s_privilege_enabled = privileges->Privileges[0].Attributes == SE_PRIVILEGE_ENABLED;
            SetLastError(ERROR_SUCCESS);
            return TRUE;
        });
    system_log log({});
    event_info info = {};
    const uint64_t blocks = live_blocks();

    system_log::read_throws = true;
    log_forget();
    EXPECT_THROW(win_event_parse().get_crash_info(&info, s_crash_map), std::range_error);
    EXPECT_TRUE(log_contains("adjust process privilege success with 1 "));
    EXPECT_FALSE(s_privilege_enabled);
    EXPECT_EQ(system_log::logs_open, 0);
    EXPECT_EQ(live_blocks(), blocks);
    adjust_process_privilege("SeSecurityPrivilege", 1);
    EXPECT_TRUE(s_privilege_enabled);
    adjust_process_privilege("SeSecurityPrivilege", 2); /* only 1 enables */
    EXPECT_FALSE(s_privilege_enabled);
}

/* The word of an event depends on its id alone. */
TEST(test_get_crash_info, words)
{
    static const struct {
        uint32_t id;
        const char *word;
    } s_rows[] = {
        {12,   "event[12][windows_start] provider[x]"           },
        {41,   "event[41][windows_nonomal_shutdown] provider[x]"},
        {1001, "event[1001][windows_system_crash] provider[x]"  },
        {7001, "event[7001][windows_winlogin] provider[x]"      },
        {5,    "event[5][unknown] provider[x]"                  },
    };

    for (const auto &row : s_rows) {
        const event_key key = {row.id, nullptr};
        const expected_event_map expected = {&key, 1};
        system_log log(event_record(row.id, L"x", {L"text"}));
        event_info info = {};
        log_forget();
        EXPECT_EQ(win_event_parse().get_crash_info(&info, expected), 0u);
        EXPECT_EQ(info.event_id, row.id);
        EXPECT_EQ(info.time_generated, static_cast<uint32_t>(MOMENT));
        EXPECT_EQ(info.strings.size(), row.id == 1001 ? 1u : 0u);
        EXPECT_TRUE(log_contains(row.word));
    }
}
