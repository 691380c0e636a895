/* Crash dumps and the record of a dump's time, where scenarios do not reach: odd settings, names,
 * times and records, no memory. */
#include "crash_dump.h"

#include "dump_record.h"
#include "filetime.h"
#include "unit_support.h"

#include <stdexcept>

#include <gtest/gtest.h>

#include <oxni/base/ejs.h>
#include <oxni/base/json.h>

#include "liboxnibase/host.h"

static constexpr wchar_t CRASH_KEY[] = L"SYSTEM\\CurrentControlSet\\Control\\CrashControl";

TEST(test_read_reg_string_value, values)
{
    /* clang-format off */
    const struct {
        DWORD type;
        std::string bytes;
        uint32_t result;
        std::wstring text;
    } rows[] = {
        {REG_SZ, std::string("a\0\0\0b\0\0\0", 8), 0, L"a"}, /* up to the first end */
        {REG_SZ, std::string("a\0b\0", 4), 0, L"ab"}, /* no terminator */
        {REG_SZ, "", 0, L""},
        {REG_SZ, std::string(520, 'n'), 0, std::wstring(260, L'\x6e6e')},
        {REG_SZ, std::string(600, 'n'), 0, std::wstring(300, L'\x6e6e')}, /* a second query */
        {REG_SZ, std::string(601, 'n'), 0, std::wstring(300, L'\x6e6e') + L'\x6e'},
        {REG_SZ, std::string(60000, 'n'), 0, std::wstring(30000, L'\x6e6e')},
        {REG_BINARY, std::string(600, '\1'), 1168, L"before"},
    };
    /* clang-format on */
    const uint64_t blocks = live_blocks();
    std::wstring text = L"before";
    HKEY key;

    registry_set(CRASH_KEY, L"long", REG_SZ, std::string(600, 'n'));
    ASSERT_EQ(RegOpenKeyExW(HKEY_LOCAL_MACHINE, CRASH_KEY, 0, KEY_READ, &key), 0);
    for (const auto &row : rows) {
        text = L"before";
        registry_set(CRASH_KEY, L"V", row.type, row.bytes);
        EXPECT_EQ(read_reg_string_value(key, L"V", &text), row.result) << &row - rows;
        EXPECT_EQ(text, row.text) << &row - rows;
    }
    for (uint64_t nth = 1; nth <= 2; nth++) {
        while_failing(nth, [&] { EXPECT_EQ(read_reg_string_value(key, L"long", &text), 8u); });
    }
    EXPECT_EQ(read_reg_string_value(key, L"none", &text), 2u);
    EXPECT_EQ(read_reg_string_value(nullptr, L"V", &text), 87u);
    EXPECT_EQ(read_reg_string_value(key, nullptr, &text), 87u);
    EXPECT_EQ(text, L"before");
    RegCloseKey(key);
    EXPECT_EQ(live_blocks(), blocks);
}

TEST(test_expand_env_path, lengths)
{
    const std::wstring long_text(200, L'd'), filler(254, L'f');
    /* clang-format off */
    const struct {
        std::wstring text, expanded;
    } rows[] = {
        {L"%BYPASS_D%\\M.DMP", long_text + L"\\M.DMP"},
        {filler + L"12345", filler + L"12345"}, /* fills the short buffer */
        {filler + L"123456", filler + L"123456"},
        {std::wstring(20000, L'f'), std::wstring(20000, L'f')},
        {L"%BYPASS_D%%BYPASS_D%%BYPASS_D%", long_text + long_text + long_text},
    };
    /* clang-format on */

    SetEnvironmentVariableW(L"BYPASS_D", long_text.c_str());
    for (const auto &row : rows)
        EXPECT_EQ(expand_env_path(row.text), row.expanded);
    while_failing(1, [&] { EXPECT_EQ(expand_env_path(L"%BYPASS_D%%BYPASS_D%"), L""); });
    const import_patch growing("ExpandEnvironmentStringsW",
                               [](const wchar_t *, wchar_t *buffer, DWORD chars) {
                                   buffer[0] = L'c'; /* of a text that does not fit */
                                   return chars + 1;
                               });
    EXPECT_EQ(expand_env_path(L"%BYPASS_D%"), L"");
}

/* The one small dump is listed with a time long before, or long after the start of this machine; no
 * scenario has the record asked for. */
TEST(test_find_new_crash_dump, record_and_names)
{
    static const uint64_t old = 1000, fresh = INT64_MAX / 2;
    static const int64_t no_record = INT64_MIN;
    static const wchar_t plain[] = L"a.dmp", scripts[] = L"\x00E9\x65E5\xD83D\xDE00.dmp",
                         half_pair[] = L"\xD83D.dmp", half_pair_last[] = L"a\xD83D";
    static const std::wstring longest(MAX_PATH - 1, L'l');
    static const std::string longest_path = "\\" + std::string(MAX_PATH - 1, 'l');
    /* clang-format off */
    static const struct {
        const wchar_t *name;
        uint64_t written;
        uint32_t use_record;
        int64_t record;
        const char *path; /* what it ends with; NULL: no dump is taken; "!": it throws */
    } s_rows[] = {
        {plain, fresh, 1, no_record, "\\a.dmp"},
        {plain, old, 1, no_record, nullptr}, /* the start stays */
        {plain, old, 1, 999, "\\a.dmp"},
        {plain, old, 1, 1000, nullptr},
        {plain, old, 1, 0, "\\a.dmp"}, /* what a crash without a dump leaves */
        {plain, old, 0, 999, nullptr},
        {plain, old, 2, 999, nullptr},
        {plain, fresh, 1, INT64_MAX, "\\a.dmp"}, /* a record newer than the start */
        {plain, 1ULL << 63, 0, no_record, nullptr}, /* times are signed */
        {plain, 0, 1, -1, nullptr},                 /* no time */
        {scripts, fresh, 0, no_record, "\\\xC3\xA9\xE6\x97\xA5\xF0\x9F\x98\x80.dmp"},
        {longest.c_str(), fresh, 0, no_record, longest_path.c_str()},
        {half_pair, fresh, 0, no_record, "!"},
        {half_pair_last, fresh, 0, no_record, "!"},
    };
    /* clang-format on */
    temporary_folder folder;
    const std::filesystem::path dumps = folder.path / "none";

    oxnih_set_install_dir((folder.path / "agent").u8string().c_str());
    set_dump_places(dumps.wstring() + L".dmp", dumps.wstring());
    for (const auto &row : s_rows) {
        SCOPED_TRACE(&row - s_rows);
        listed_file dump(row.name, row.written);
        crash_module_set modules;
        std::string path = "before";
        uint64_t time = 77;
        log_forget();
        if (row.record != no_record) {
            ASSERT_TRUE(set_dumprecord_time(row.record));
        }
        engine_play((dumps / row.name).c_str(), "Call Site\ndrv+1\n");
        try {
            const bool taken = find_new_crash_dump(5, row.use_record, &modules, &time, &path);
            EXPECT_EQ(taken, row.path != nullptr);
            EXPECT_EQ(path, row.path != nullptr ? dumps.u8string() + row.path : "before");
        } catch (const std::range_error &) {
            EXPECT_STREQ(row.path, "!");
        }
        EXPECT_EQ(time, row.path != nullptr ? row.written : 77u);
        EXPECT_EQ(modules.size(), row.path != nullptr ? 1u : 0u);
        EXPECT_EQ(listed_file::finds_open, 0);
        const std::string record = std::to_string(row.record);
        EXPECT_EQ(log_contains(" > recordtime " + record),
                  row.use_record == 1 && row.record != INT64_MAX && row.record != no_record);
        EXPECT_FALSE(log_contains("starttime " + record));
    }
    oxnih_set_install_dir(nullptr);
}

/* Without a small dump the complete dump counts, and its path stays unknown. */
TEST(test_find_new_crash_dump, complete_dump)
{
    temporary_folder folder;
    const std::wstring dump = folder.file(L"MEMORY.DMP");
    crash_module_set modules;
    std::string path = "before";
    uint64_t time = 7;

    set_dump_places(dump, (folder.path / "no").wstring());
    engine_play(dump.c_str(), "Call Site\ndrv+1\n", "OpenDumpFileWide");
    EXPECT_FALSE(find_new_crash_dump(5, 0, &modules, &time, &path));
    EXPECT_EQ(path, "before");
    engine_play(dump.c_str(), "Call Site\ndrv+1\n");
    EXPECT_TRUE(find_new_crash_dump(5, 0, &modules, &time, &path));
    EXPECT_EQ(path, "");
    EXPECT_GT(time, MOMENT_FILETIME);
    EXPECT_EQ(modules, crash_module_set{"drv"});
}

static uint64_t s_listed; /* files so far, each newer than the one before */

static void list_file(WIN32_FIND_DATAW *entry)
{
    entry->dwFileAttributes = 0;
    entry->ftLastWriteTime = filetime_of_value(++s_listed);
    wcscpy(entry->cFileName, std::to_wstring(s_listed).c_str());
}

TEST(test_find_newest_file, many_files)
{
    const import_patch first("FindFirstFileW", [](const wchar_t *, WIN32_FIND_DATAW *entry) {
        list_file(entry);
        return static_cast<HANDLE>(&s_listed);
    });
    const import_patch next("FindNextFileW", [](HANDLE, WIN32_FIND_DATAW *entry) {
        list_file(entry);
        return BOOL{s_listed <= 5000};
    });
    const import_patch close("FindClose");
    std::wstring path;
    uint64_t time;

    EXPECT_EQ(find_newest_file(L"C:\\d", &path, &time), 0u);
    EXPECT_EQ(path, L"C:\\d\\5000");
    EXPECT_EQ(time, 5000u);
}

static int s_keys_closed;

/* What a failed open leaves behind is no key. */
TEST(test_get_crash_dump_files, no_key)
{
    const import_patch open("RegOpenKeyExW", [](HKEY, const wchar_t *, DWORD, REGSAM, HKEY *key) {
        *key = HKEY_LOCAL_MACHINE;
        return LSTATUS{ERROR_ACCESS_DENIED};
    });
    const import_patch close("RegCloseKey", [](HKEY) { return LSTATUS{s_keys_closed++}; });
    crash_dump_info complete, minidump;

    log_forget();
    get_crash_dump_files(&complete, &minidump);
    EXPECT_TRUE(log_contains("query failed 6."));
    EXPECT_EQ(s_keys_closed, 0);
}

TEST(test_get_file_write_time, last_write)
{
    const FILETIME created = filetime_of_value(MOMENT_FILETIME - 10000000),
                   written = filetime_of_value(MOMENT_FILETIME);
    temporary_folder folder;
    const std::wstring path = folder.file(L"d.dmp");
    std::wstring found;
    uint64_t time = 0;
    const HANDLE file = CreateFileW(path.c_str(), GENERIC_WRITE, 0, nullptr, OPEN_EXISTING,
                                    FILE_ATTRIBUTE_NORMAL, nullptr);

    ASSERT_TRUE(SetFileTime(file, &created, &created, &written));
    CloseHandle(file);
    EXPECT_EQ(find_newest_file(folder.path.c_str(), &found, &time), 0u);
    EXPECT_EQ(found, path);
    EXPECT_EQ(time, MOMENT_FILETIME);
    time = 0;
    {
        const import_patch times("GetFileInformationByHandle",
                                 [](HANDLE, BY_HANDLE_FILE_INFORMATION *information) {
                                     information->ftCreationTime = {1, 1};
                                     information->ftLastAccessTime = {3, 3};
                                     information->ftLastWriteTime = {2, 2};
                                     return TRUE;
                                 });
        EXPECT_EQ(get_file_write_time(path.c_str(), &time), 0u);
        EXPECT_EQ(time, (2ULL << 32) + 2);
    }
    ASSERT_TRUE(DeleteFileW(path.c_str()));
    EXPECT_EQ(find_newest_file(folder.path.c_str(), &found, &time), 1168u);
    EXPECT_EQ(found, path);
    log_forget();
    EXPECT_EQ(get_file_write_time(path.c_str(), &time), 2u);
    EXPECT_TRUE(log_contains("d.dmp failed 2."));
    log_forget();
    EXPECT_FALSE(is_file_updated_since_boot(path.c_str()));
    EXPECT_TRUE(log_contains("d.dmp failed 2."));
    EXPECT_EQ(find_newest_file(nullptr, &found, &time), 87u);
    EXPECT_EQ(get_file_write_time(nullptr, &time), 87u);
    EXPECT_FALSE(is_file_updated_since_boot(nullptr));
}

TEST(test_dumprecord, round_trip_and_wrong_records)
{
    static const struct {
        const char *json;
        int64_t time; /* 7: untouched */
    } s_rows[] = {
        {"{\"dump_time\": 1.0}",                                7        },
        {"{\"dump_time\": \"1\"}",                              7        },
        {"{}",                                                  7        },
        {"{\"dump_time\": -9223372036854775808, \"more\": []}", INT64_MIN},
    };
    temporary_folder folder;
    int64_t time = 7;
    char path[260];

    oxnih_set_install_dir((folder.path / "agent").u8string().c_str());
    EXPECT_FALSE(get_dumprecord_time(&time));
    EXPECT_EQ(time, 7);
    EXPECT_TRUE(std::filesystem::exists(folder.path / "var" / "bypass_mgr"));
    EXPECT_EQ(get_dumprecord_path(path, sizeof(path)), 0);
    for (const auto &row : s_rows) {
        json_t *record = json_loads(row.json, 0, nullptr);
        ASSERT_EQ(wdu_json_dump_file_ejs(record, path), 0);
        wdu_json_delete_ejs(record);
        time = 7;
        const uint64_t blocks = live_blocks();
        EXPECT_EQ(get_dumprecord_time(&time), row.time != 7) << row.json;
        EXPECT_EQ(live_blocks(), blocks);
        EXPECT_EQ(time, row.time);
    }
    for (const int64_t written : {INT64_MAX, INT64_MIN}) {
        EXPECT_TRUE(set_dumprecord_time(written));
        EXPECT_TRUE(get_dumprecord_time(&time));
        EXPECT_EQ(time, written);
    }
    json_t *record = wdu_json_load_file_ejs(path);
    EXPECT_EQ(json_object_size(record), 1u); /* nothing of the one before */
    wdu_json_delete_ejs(record);
    while_failing(
        1, [&] { EXPECT_FALSE(set_dumprecord_time(5)); }, true);
    oxnih_set_install_dir(nullptr);
}
