/* The event-log reader: which record of a block is taken, and the search through a whole log. */
#include "win_event_parse.h"

#include "fake_event_log.h"
#include "unit_support.h"

#include <stddef.h>
#include <string.h>

#include <gtest/gtest.h>

#include <oxni/base/log.h>

#include "liboxnibase/host.h"

typedef std::vector<std::string> lines;
typedef std::vector<uint8_t> block;

#define NO_MATCH 13
#define KERNEL   L"Microsoft-Windows-Kernel-General"

/* 2024-03-07 09:05:41 UTC. */
#define MOMENT 1709802341

static const expected_event_map s_crash_map = {
    {{12, KERNEL},        0},
    {{1001, L"BugCheck"}, 0},
};

static void set_length(block *record, uint32_t length)
{
    memcpy(&record->at(offsetof(EVENTLOGRECORD, Length)), &length, sizeof(length));
}

/* A record whose length field says something else than its bytes. */
static block record_of_length(const block &record, uint32_t length)
{
    block changed = record;
    set_length(&changed, length);
    return changed;
}

/* Back to back, cut by so many bytes at the end. */
static block join(const std::vector<block> &records, size_t cut = 0)
{
    block joined;

    for (const block &record : records)
        joined.insert(joined.end(), record.begin(), record.end());
    joined.resize(joined.size() - cut);
    return joined;
}

/* A record of odd length: what follows it is not aligned. */
static block odd_record(uint32_t event_id, const wchar_t *source)
{
    block record = event_record(event_id, source, MOMENT);

    record.push_back(0);
    set_length(&record, (uint32_t)record.size());
    return record;
}

/* A record whose source name has no end inside it, even as whole characters are counted. */
static block endless_name(uint32_t event_id, size_t chars)
{
    block record(sizeof(EVENTLOGRECORD));

    for (size_t i = 0; i < chars; i++) {
        record.push_back('B');
        record.push_back(0);
    }
    memcpy(record.data() + offsetof(EVENTLOGRECORD, EventID), &event_id, sizeof(event_id));
    set_length(&record, (uint32_t)record.size());
    return record;
}

static std::string name_warning(int event_id, int length, int record_length, int left)
{
    return "warn provider string length invalid! event id[" + std::to_string(event_id) +
           "] provider len[" + std::to_string(length) + "] record len[" +
           std::to_string(record_length) + "] left len[" + std::to_string(left) + "]";
}

TEST(test_find_expected_event, blocks)
{
    const block other = event_record(7036, L"Service Control Manager", MOMENT);
    const block start = event_record(12, KERNEL, MOMENT);
    const block crash = event_record(0x400003E9, L"BugCheck", MOMENT);
    const uint32_t crash_size = (uint32_t)crash.size();
    static const size_t none = SIZE_MAX;
    /* clang-format off */
    const struct {
        const char *row;
        block bytes;
        size_t found; /* offset of the record that is taken */
        uint32_t event_id;
        lines log;
    } rows[] = {
        {"first of two", join({crash, start}), 0, 1001, {}},
        {"behind others", join({other, other, start}), 2 * other.size(), 12, {}},
        {"id matches, source does not", join({event_record(1001, L"Other", MOMENT)}), none, 0, {}},
        {"source in other letters", join({event_record(1001, L"bugcheck", MOMENT)}), none, 0, {}},
        {"source longer", join({event_record(1001, L"BugCheck2", MOMENT)}), none, 0, {}},
        {"source matches, id does not", join({event_record(1002, L"BugCheck", MOMENT)}), none, 0,
         {}},
        {"high bits of the id do not count", join({event_record(0x800003E9, L"BugCheck", MOMENT)}),
         0, 1001, {}},
        {"unaligned record", join({odd_record(7036, L"x"), crash}), odd_record(7036, L"x").size(),
         1001, {}},
        {"nothing", {}, none, 0, {}},
        {"less than a header", join({crash}, crash.size() - 55), none, 0,{}},
        {"cut by a byte behind its name", join({other, crash}, 1), other.size(), 1001, {}},
        {"length of zero", join({record_of_length(other, 0), crash}), none, 0, {}},
        {"length of zero, expected itself", join({record_of_length(crash, 0)}), 0, 1001, {}},
        {"length beyond the block", join({record_of_length(crash, crash_size + 1)}), 0, 1001, {}},
        {"largest length, and nothing behind it", join({record_of_length(other, UINT32_MAX), start}),
         none, 0, {}},
        {"length of a bare header", join({record_of_length(crash, 56)}), none, 0,
         {name_warning(0x400003E9, 0, 56, 0)}},
        {"name without an end, then a good record", join({endless_name(1001, 8), start}),
         endless_name(1001, 8).size(), 12, {name_warning(1001, 8, 72, 8)}},
        {"name ends with the length, not before", join({record_of_length(crash, 56 + 16), start}),
         none, 0, {name_warning(0x400003E9, 8, 72, 8)}},
        {"name ends within the length", join({record_of_length(crash, 56 + 18)}), 0, 1001, {}},
        {"length below the header, name inside the block", join({record_of_length(crash, 55)}), 0,
         1001, {}},
    };
    /* clang-format on */
    log_capture log;

    for (const auto &row : rows) {
        SCOPED_TRACE(row.row);
        /* A heap block of just that size: what is read behind it is not ours. */
        uint32_t event_id = 0;
        const wchar_t *provider = NULL;
        const uint8_t *record = NULL;
        const uint32_t result = find_expected_event(row.bytes.data(), (uint32_t)row.bytes.size(),
                                                    &event_id, &provider, &record, s_crash_map);

        EXPECT_EQ(result, row.found == none ? NO_MATCH : 0u);
        EXPECT_EQ(event_id, row.event_id);
        EXPECT_EQ(record, row.found == none ? NULL : row.bytes.data() + row.found);
        EXPECT_EQ(reinterpret_cast<const uint8_t *>(provider),
                  row.found == none ? NULL : row.bytes.data() + row.found + 56);
        lines seen = log.take();
        /* What follows a record of a wrong length is read as another one, as it comes. */
        if (seen.size() > row.log.size() && !row.log.empty())
            seen.resize(row.log.size());
        EXPECT_EQ(seen, row.log);
    }
}

TEST(test_find_expected_event, null_buffer)
{
    uint32_t event_id = 5;
    const wchar_t *provider = NULL;
    const uint8_t *record = NULL;

    EXPECT_EQ(find_expected_event(NULL, 4096, &event_id, &provider, &record, s_crash_map),
              (uint32_t)NO_MATCH);
    EXPECT_EQ(event_id, 5u);
}

/* Memory whose end is the end of an accessible page. */
class guarded_bytes
{
  public:
    guarded_bytes()
        : pages_(static_cast<uint8_t *>(
              VirtualAlloc(NULL, 2 * PAGE, MEM_RESERVE | MEM_COMMIT, PAGE_READWRITE)))
    {
        DWORD protection;
        VirtualProtect(pages_ + PAGE, PAGE, PAGE_NOACCESS, &protection);
    }
    ~guarded_bytes()
    {
        VirtualFree(pages_, 0, MEM_RELEASE);
    }
    guarded_bytes(const guarded_bytes &) = delete;
    guarded_bytes &operator=(const guarded_bytes &) = delete;

    /* The first size bytes of a block, moved to the end. */
    uint8_t *put(const block &bytes, size_t size) const
    {
        memcpy(pages_ + PAGE - size, bytes.data(), size);
        return pages_ + PAGE - size;
    }

  private:
    static const size_t PAGE = 4096;
    uint8_t *pages_;
};

static uint32_t search(const uint8_t *bytes, size_t size)
{
    uint32_t event_id;
    const wchar_t *provider;
    const uint8_t *record;

    return find_expected_event(bytes, (uint32_t)size, &event_id, &provider, &record, s_crash_map);
}

/* Every cut of a block, and in it every byte set to something else: no read leaves the block. */
TEST(test_find_expected_event, nothing_behind_the_block_is_read)
{
    const block good = join({event_record(7036, L"Other", MOMENT), event_record(41, L"K", MOMENT),
                             endless_name(1001, 3)});
    const guarded_bytes memory;
    size_t matched = 0;

    oxnih_log_set_level(OXNI_LOG_ERROR);
    for (size_t size = 0; size <= good.size(); size++)
        for (size_t changed = 0; changed < size; changed++) {
            uint8_t *bytes = memory.put(good, size);
            bytes[changed] = (uint8_t)(bytes[changed] ^ 1 << changed % 8);
            matched += search(bytes, size) == 0;
        }
    EXPECT_EQ(matched, 0u);
    /* Lengths that end the name early, or wrap, where nothing ends it. */
    for (uint32_t length = 1; length <= 64; length++) {
        const block record = record_of_length(endless_name(1001, 4), length);
        EXPECT_EQ(search(memory.put(record, record.size()), record.size()), (uint32_t)NO_MATCH);
    }
}

/* The text of a key, at an address of its own. */
static const wchar_t s_other_b[] = {'B', 0};

TEST(test_event_key_less, look_ups)
{
    /* clang-format off */
    static const struct {
        const char *row;
        expected_event_map map;
        event_key key;
        bool found;
    } s_rows[] = {
        {"equal text at another place", {{{12, L"A"}, 0}, {{41, L"B"}, 0}}, {41, s_other_b}, true},
        {"greater text", {{{12, L"A"}, 0}, {{41, L"B"}, 0}}, {41, L"C"}, false},
        {"lesser text", {{{12, L"A"}, 0}, {{41, L"B"}, 0}}, {41, L"A"}, false},
        {"any provider", {{{12, NULL}, 0}, {{41, L"B"}, 0}}, {12, L"whoever"}, true},
        {"any provider, other id", {{{12, NULL}, 0}}, {13, L"whoever"}, false},
        {"ids are signed", {{{0x80000001, L"A"}, 0}, {{1, L"A"}, 0}, {{2, L"A"}, 0}},
         {0x80000001, L"A"}, true},
        {"empty map", {}, {12, L"A"}, false},
    };
    /* clang-format on */
    const event_key_less less{};

    for (const auto &row : s_rows) {
        SCOPED_TRACE(row.row);
        EXPECT_EQ(row.map.find(row.key) != row.map.end(), row.found);
    }
    EXPECT_TRUE(less({0x80000001, L"A"}, {1, L"A"}));
    EXPECT_TRUE(less({1, L"A"}, {1, L"B"}));
    EXPECT_TRUE(less({1, L"B"}, {1, L"A"}));
    EXPECT_FALSE(less({1, NULL}, {1, L"A"}));
    EXPECT_FALSE(less({1, L"A"}, {1, NULL}));
}

TEST(test_unix_time_to_filetime, values)
{
    static const struct {
        uint32_t seconds;
        uint64_t filetime;
    } s_rows[] = {
        {0,          116444736000000000},
        {1,          116444736010000000},
        {MOMENT,     133542759410000000},
        {0x7FFFFFFF, 137919572470000000},
        {0x80000000, 137919572480000000},
        {UINT32_MAX, 159394408950000000},
    };

    for (const auto &row : s_rows) {
        FILETIME filetime = {};
        unix_time_to_filetime(row.seconds, &filetime);
        EXPECT_EQ(((uint64_t)filetime.dwHighDateTime << 32) | filetime.dwLowDateTime, row.filetime)
            << row.seconds;
    }
    unix_time_to_filetime(1, NULL);
}

/* FileTimeToLocalFileTime stands in with a bias of +1 h. */
static BOOL WINAPI one_hour_east(const FILETIME *utc, FILETIME *local)
{
    const uint64_t ticks =
        (((uint64_t)utc->dwHighDateTime << 32) | utc->dwLowDateTime) + 36000000000;

    local->dwLowDateTime = (DWORD)ticks;
    local->dwHighDateTime = (DWORD)(ticks >> 32);
    return TRUE;
}

TEST(test_format_event_time, local_texts)
{
    static const struct {
        uint32_t seconds;
        const char *text;
    } s_rows[] = {
        {MOMENT,     "3/7/2024 10:05:41"},
        {0,          "1/1/1970 01:00:00"},
        {1735689599, "1/1/2025 00:59:59"},
        {UINT32_MAX, "2/7/2106 07:28:15"},
    };
    import_patch zone("FileTimeToLocalFileTime", one_hour_east);

    for (const auto &row : s_rows) {
        char text[EVENT_TIME_TEXT_CHARS];
        EXPECT_EQ(format_event_time(row.seconds, text), (int)strlen(row.text));
        EXPECT_STREQ(text, row.text);
    }
}

/* The privilege of the process, for the three calls that change it. */
static struct {
    BOOL opens, finds, adjusts;
    DWORD last_error;
    lines calls;
} s_token;

static BOOL WINAPI open_token(HANDLE, DWORD access, HANDLE *token)
{
    s_token.calls.push_back("open " + std::to_string(access));
    SetLastError(s_token.last_error);
    if (s_token.opens)
        *token = CreateEventW(NULL, TRUE, FALSE, NULL); /* something to close */
    return s_token.opens;
}

static BOOL WINAPI find_privilege(const char *, const char *name, LUID *luid)
{
    s_token.calls.push_back(std::string("find ") + name);
    *luid = {8, 0};
    SetLastError(s_token.last_error);
    return s_token.finds;
}

static BOOL WINAPI adjust_privileges(HANDLE, BOOL all, TOKEN_PRIVILEGES *state, DWORD,
                                     TOKEN_PRIVILEGES *, DWORD *)
{
    s_token.calls.push_back("adjust " + std::to_string(all) + " " +
                            std::to_string(state->PrivilegeCount) + " " +
                            std::to_string(state->Privileges[0].Luid.LowPart) + " " +
                            std::to_string(state->Privileges[0].Attributes));
    SetLastError(s_token.last_error);
    return s_token.adjusts;
}

class token_patches
{
    import_patch open_{"OpenProcessToken", open_token};
    import_patch find_{"LookupPrivilegeValueA", find_privilege};
    import_patch adjust_{"AdjustTokenPrivileges", adjust_privileges};
};

TEST(test_adjust_process_privilege, outcomes)
{
    /* clang-format off */
    static const struct {
        BOOL opens, finds, adjusts;
        DWORD last_error;
        int32_t enable;
        lines calls;
        const char *line;
    } s_rows[] = {
        {TRUE, TRUE, TRUE, 0, 1, {"open 40", "find SeX", "adjust 0 1 8 2"},
         "info adjust process privilege success with 1 "},
        {TRUE, TRUE, TRUE, 0, 0, {"open 40", "find SeX", "adjust 0 1 8 0"},
         "info adjust process privilege success with 0 "},
        {TRUE, TRUE, TRUE, 0, 2, {"open 40", "find SeX", "adjust 0 1 8 0"},
         "info adjust process privilege success with 2 "},
        {TRUE, TRUE, TRUE, 1300, 1, {"open 40", "find SeX", "adjust 0 1 8 2"},
         "warn The token does not have the specified privilege: 1300 "},
        {TRUE, TRUE, FALSE, 6, 1, {"open 40", "find SeX", "adjust 0 1 8 2"},
         "warn AdjustTokenPrivileges failed: 6 "},
        {TRUE, FALSE, TRUE, 1313, 1, {"open 40", "find SeX"},
         "warn LookupPrivilegeValue failed: 1313 "},
        {FALSE, TRUE, TRUE, 5, 1, {"open 40"}, "warn OpenProcessToken failed: 5 "},
    };
    /* clang-format on */
    token_patches patches;
    log_capture log;

    for (const auto &row : s_rows) {
        SCOPED_TRACE(row.line);
        s_token = {row.opens, row.finds, row.adjusts, row.last_error, {}};
        adjust_process_privilege("SeX", row.enable);
        EXPECT_EQ(s_token.calls, row.calls);
        EXPECT_EQ(log.take(), lines{row.line});
    }
}

/* A search in a log of the row; the privilege is there and taken back on every path. */
TEST(test_get_crash_info, searches)
{
    const block start = event_record(12, KERNEL, MOMENT);
    const block crash = event_record(0x400003E9, L"BugCheck", MOMENT, {L"0x7e", L"", L"C:\\a.dmp"});
    const block other = event_record(7036, L"Service Control Manager", MOMENT);
    const block large = event_record(7036, L"Large", MOMENT, {std::wstring(5000, L'x')});
    const block larger = event_record(1001, L"BugCheck", MOMENT, {std::wstring(9000, L'y')});
    const std::vector<std::wstring> large_string = {std::wstring(9000, L'y')};
    const std::string captured_start =
        "info capture expect event[12][windows_start] provider[Microsoft-Windows-Kernel-General] "
        "time[3/7/2024 10:05:41], stop read event!";
    const lines captured_crash = {
        "info system crash time:3/7/2024 10:05:41",
        "info capture expect event[1001][windows_system_crash] provider[BugCheck] "
        "time[3/7/2024 10:05:41], stop read event!"};
    /* clang-format off */
    const struct {
        const char *row;
        std::vector<block> records;
        bool open_fails;
        unsigned failing_read;
        uint32_t result;
        uint32_t event_id;
        std::vector<std::wstring> strings;
        std::vector<uint32_t> read_sizes;
        lines log;
    } rows[] = {
        {"crash newest", {other, crash, start}, false, 0, 0, 1001, {L"0x7e", L"", L"C:\\a.dmp"},
         {4096}, captured_crash},
        {"start newest", {start, crash}, false, 0, 0, 12, {}, {4096}, {captured_start}},
        {"only others", {other, other}, false, 0, 13, 0, {}, {4096, 4096},
         {"warn get_crash_info failed:13 "}},
        {"empty log", {}, false, 0, 0, 0, {}, {4096}, {}},
        {"in the second read", {other, large, start}, false, 0, 0, 12, {},
         {4096, 4096, (uint32_t)large.size(), (uint32_t)large.size()}, {captured_start}},
        {"buffer grows twice and stays", {large, larger, start}, false, 0, 0, 1001, large_string,
         {4096, (uint32_t)large.size(), (uint32_t)large.size(), (uint32_t)larger.size()},
         captured_crash},
        {"cannot be opened", {start}, true, 0, 1, 0, {}, {}, {"warn get_crash_info failed:1 "}},
        {"first read fails", {start}, false, 1, 3, 0, {}, {4096},
         {"warn get_crash_info failed:3 "}},
        {"later read fails", {other}, false, 2, 3, 0, {}, {4096, 4096},
         {"warn get_crash_info failed:3 "}},
    };
    /* clang-format on */
    token_patches patches;
    import_patch zone("FileTimeToLocalFileTime", one_hour_east);
    log_capture log;

    for (const auto &row : rows) {
        SCOPED_TRACE(row.row);
        fake_event_log system_log;
        event_info info = {};
        system_log.records = row.records;
        system_log.open_fails = row.open_fails;
        system_log.failing_read = row.failing_read;
        s_token = {TRUE, TRUE, TRUE, 0, {}};

        EXPECT_EQ(win_event_parse().get_crash_info(&info, s_crash_map), row.result);
        EXPECT_EQ(info.event_id, row.event_id);
        EXPECT_EQ(info.time_generated, row.event_id != 0 ? MOMENT : 0u);
        EXPECT_STREQ(info.time_text, row.event_id != 0 ? "3/7/2024 10:05:41" : "");
        EXPECT_EQ(info.strings, row.strings);
        EXPECT_EQ(system_log.read_sizes, row.read_sizes);
        EXPECT_EQ(system_log.closes, row.open_fails ? 0u : 1u);
        lines expected = {"info adjust process privilege success with 1 "};
        expected.insert(expected.end(), row.log.begin(), row.log.end());
        expected.push_back("info adjust process privilege success with 0 ");
        EXPECT_EQ(log.take(), expected);
    }
}

/* Insertion strings that the record's fields place wrongly. */
TEST(test_get_crash_info, insertion_strings_stay_inside_the_record)
{
    const block record = event_record(1001, L"BugCheck", MOMENT, {L"one", L"two"});
    const uint32_t size = (uint32_t)record.size();
    static const uint32_t none = UINT32_MAX;
    const struct {
        const char *row;
        uint16_t count;
        uint32_t offset; /* none: as it is */
        size_t strings;
        const wchar_t *first;
    } rows[] = {
        {"as written",               2, none,           2, L"one"},
        {"none",                     0, none,           0, NULL  },
        {"fewer than there are",     1, none,           1, L"one"},
        {"offset at the end",        2, size,           0, NULL  },
        {"offset beyond the end",    2, size + 2,       0, NULL  },
        {"offset as far as it goes", 2, UINT32_MAX - 1, 0, NULL  },
        {"half a character left",    1, size - 1,       0, NULL  },
        {"odd offset",               1, size - 5,       1, NULL  },
    };
    log_capture log;

    for (const auto &row : rows) {
        SCOPED_TRACE(row.row);
        fake_event_log system_log;
        event_info info = {};
        block changed = record;
        memcpy(changed.data() + offsetof(EVENTLOGRECORD, NumStrings), &row.count, 2);
        if (row.offset != none)
            memcpy(changed.data() + offsetof(EVENTLOGRECORD, StringOffset), &row.offset, 4);
        system_log.records = {changed};
        EXPECT_EQ(win_event_parse().get_crash_info(&info, s_crash_map), 0u);
        EXPECT_EQ(info.strings.size(), row.strings);
        if (row.first != NULL) {
            EXPECT_EQ(info.strings[0], row.first);
        }
    }
    /* More strings than the record holds: the rest of it is read as text and then it ends. */
    fake_event_log system_log;
    event_info info = {};
    block changed = record;
    changed[offsetof(EVENTLOGRECORD, NumStrings)] =
        changed[offsetof(EVENTLOGRECORD, NumStrings) + 1] = 0xFF;
    system_log.records = {changed};
    EXPECT_EQ(win_event_parse().get_crash_info(&info, s_crash_map), 0u);
    EXPECT_GE(info.strings.size(), 2u);
    EXPECT_LE(info.strings.size(), 5u);
    EXPECT_EQ(info.strings[1], L"two");
}

/* No memory for the buffer, at first and when it has to grow. */
TEST(test_get_crash_info, no_memory)
{
    const block large = event_record(7036, L"Large", MOMENT, {std::wstring(5000, L'x')});
    log_capture log;

    for (uint64_t nth = 1; nth <= 2; nth++) {
        SCOPED_TRACE(nth);
        fake_event_log system_log;
        event_info info = {};
        oxnih_memory_stats before, after;
        system_log.records = {large};
        oxnih_memory_get_stats(&before);
        oxnih_memory_fail(nth, 0);
        EXPECT_EQ(win_event_parse().get_crash_info(&info, s_crash_map), 2u);
        oxnih_memory_fail(0, 0);
        oxnih_memory_get_stats(&after);
        EXPECT_EQ(after.live_blocks, before.live_blocks);
        EXPECT_EQ(system_log.closes, 1u);
    }
}
