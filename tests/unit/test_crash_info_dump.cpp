/* Finding the crash dump: the settings of Windows, the newest file, the choice, the record. */
#include "crash_info.h"

#include "fake_engine.h"
#include "fake_processes.h"
#include "unit_support.h"

#include <stdexcept>
#include <string.h>

#include <gtest/gtest.h>

#include <oxni/base/ejs.h>
#include <oxni/base/json.h>

#include "liboxnibase/host.h"

typedef std::vector<std::string> lines;

#define CRASH_KEY L"SYSTEM\\CurrentControlSet\\Control\\CrashControl"
/* Some time in 2024; file times are given as distances from it. */
#define BOOT 133542759410000000LL

TEST(test_read_reg_string_value, values)
{
    const std::wstring long_text(300, L'n');
    /* clang-format off */
    const struct {
        const char *row;
        DWORD type;
        std::string bytes;
        uint32_t result;
        std::wstring text;
        lines log;
    } rows[] = {
        {"text", REG_SZ, std::string("C\0:\0\0\0", 6), 0, L"C:", {}},
        {"text with references", REG_EXPAND_SZ, std::string("%\0X\0%\0\0\0", 8), 0, L"%X%", {}},
        {"up to the first end", REG_SZ, std::string("a\0\0\0b\0\0\0", 8), 0, L"a", {}},
        {"no terminator", REG_SZ, std::string("a\0b\0", 4), 0, L"ab", {}},
        {"empty", REG_SZ, "", 0, L"", {}},
        {"260 characters without an end", REG_SZ, std::string(520, 'n'), 0,
         std::wstring(260, L'\x6e6e'), {}},
        {"longer than the first try", REG_SZ, std::string(600, 'n'), 0,
         std::wstring(300, L'\x6e6e'), {}},
        {"half a character at the end", REG_SZ, std::string(601, 'n'), 0,
         std::wstring(300, L'\x6e6e') + L'\x6e', {}},
        {"number", REG_DWORD, std::string(4, '\1'), 1168, L"before",
         {"error type not match 4 490."}},
        {"long bytes", REG_BINARY, std::string(600, '\1'), 1168, L"before",
         {"error type not match 3 490."}},
    };
    /* clang-format on */
    private_registry registry;
    log_capture log;

    for (const auto &row : rows) {
        SCOPED_TRACE(row.row);
        std::wstring text = L"before";
        HKEY key;
        oxnih_memory_stats before, after;
        registry.set_value(CRASH_KEY, L"V", row.type, row.bytes.data(), row.bytes.size());
        ASSERT_EQ(RegOpenKeyExW(HKEY_LOCAL_MACHINE, CRASH_KEY, 0, KEY_READ, &key), 0);
        oxnih_memory_get_stats(&before);
        EXPECT_EQ(read_reg_string_value(key, L"V", &text), row.result);
        oxnih_memory_get_stats(&after);
        RegCloseKey(key);
        EXPECT_EQ(text, row.text);
        EXPECT_EQ(log.take(), row.log);
        EXPECT_EQ(after.live_blocks, before.live_blocks);
    }
}

TEST(test_read_reg_string_value, refused)
{
    private_registry registry;
    log_capture log;
    std::wstring text = L"before";
    HKEY key;

    registry.set_text(CRASH_KEY, L"V", REG_SZ, std::wstring(300, L'n'));
    ASSERT_EQ(RegOpenKeyExW(HKEY_LOCAL_MACHINE, CRASH_KEY, 0, KEY_READ, &key), 0);
    EXPECT_EQ(read_reg_string_value(NULL, L"V", &text), 87u);
    EXPECT_EQ(read_reg_string_value(key, NULL, &text), 87u);
    EXPECT_TRUE(log.take().empty());
    EXPECT_EQ(read_reg_string_value(key, L"W", &text), 2u);
    EXPECT_EQ(log.take(), lines{"error query failed 2."});
    for (uint64_t nth = 1; nth <= 2; nth++) {
        oxnih_memory_fail(nth, 0);
        EXPECT_EQ(read_reg_string_value(key, L"V", &text), 8u);
        oxnih_memory_fail(0, 0);
        EXPECT_EQ(log.take(), lines{"error malloc failed 8."});
    }
    EXPECT_EQ(text, L"before");
    RegCloseKey(key);
}

TEST(test_expand_env_path, texts)
{
    const std::wstring directory(200, L'd');
    const std::wstring filler(254, L'f');
    /* clang-format off */
    const struct {
        const char *row;
        std::wstring text, expanded;
    } rows[] = {
        {"plain", L"C:\\a b", L"C:\\a b"},
        {"a reference", L"%BYPASS_D%\\M.DMP", directory + L"\\M.DMP"},
        {"an unknown one stays", L"%BYPASS_NONE%\\x", L"%BYPASS_NONE%\\x"},
        {"empty", L"", L""},
        {"fills the short buffer", filler + L"12345", filler + L"12345"},
        {"a character more", filler + L"123456", filler + L"123456"},
        {"far more", L"%BYPASS_D%\\%BYPASS_D%\\%BYPASS_D%",
         directory + L"\\" + directory + L"\\" + directory},
    };
    /* clang-format on */

    SetEnvironmentVariableW(L"BYPASS_D", directory.c_str());
    for (const auto &row : rows) {
        SCOPED_TRACE(row.row);
        EXPECT_EQ(expand_env_path(row.text), row.expanded);
    }
    oxnih_memory_fail(1, 0);
    EXPECT_EQ(expand_env_path(L"%BYPASS_D%%BYPASS_D%"), L"");
    oxnih_memory_fail(0, 0);
}

TEST(test_get_file_write_time, files)
{
    temporary_folder folder;
    log_capture log;
    uint64_t time = 5;
    const std::wstring path = folder.write(L"a.dmp", "x", BOOT + 12345);
    const std::wstring missing = folder.file(L"b.dmp");

    EXPECT_EQ(get_file_write_time(NULL, &time), 87u);
    EXPECT_EQ(get_file_write_time(missing.c_str(), &time), 2u);
    EXPECT_EQ(log.take(), lines{"warn open file " + to_utf8(missing) + " failed 2."});
    EXPECT_EQ(time, 5u);
    EXPECT_EQ(get_file_write_time(path.c_str(), &time), 0u);
    EXPECT_EQ(time, BOOT + 12345ULL);
    EXPECT_TRUE(DeleteFileW(path.c_str())) << "the file is closed again";
}

static BOOL WINAPI no_information(HANDLE, BY_HANDLE_FILE_INFORMATION *)
{
    SetLastError(ERROR_NOT_READY);
    return FALSE;
}

TEST(test_get_file_write_time, information_refused)
{
    fake_processes machine;
    temporary_folder folder;
    log_capture log;
    uint64_t time = 5;
    const std::wstring path = folder.write(L"a.dmp", "x");
    import_patch information("GetFileInformationByHandle", no_information);

    EXPECT_EQ(get_file_write_time(path.c_str(), &time), 21u);
    EXPECT_EQ(time, 5u);
    EXPECT_EQ(log.take(), lines{"warn get file " + to_utf8(path) + " information failed 15."});
    machine.creation = BOOT;
    EXPECT_FALSE(is_file_updated_since_boot(path.c_str()));
    EXPECT_EQ(log.take(), lines{"error get file " + to_utf8(path) + " information failed 15."});
    EXPECT_TRUE(DeleteFileW(path.c_str()));
}

/* The entries of a folder, in the order in which they are listed. */
struct folder_entry {
    const wchar_t *name;
    DWORD attributes;
    uint64_t write_time;
};

static std::vector<folder_entry> s_entries;
static size_t s_entry;
static int s_finds_open;
static std::wstring s_find_pattern;

static BOOL WINAPI find_next(HANDLE, WIN32_FIND_DATAW *data)
{
    if (s_entry == s_entries.size()) {
        SetLastError(ERROR_NO_MORE_FILES);
        return FALSE;
    }
    const folder_entry &entry = s_entries[s_entry++];
    data->dwFileAttributes = entry.attributes;
    data->ftLastWriteTime = {(DWORD)entry.write_time, (DWORD)(entry.write_time >> 32)};
    wcscpy(data->cFileName, entry.name);
    return TRUE;
}

static HANDLE WINAPI find_first(const wchar_t *pattern, WIN32_FIND_DATAW *data)
{
    s_find_pattern = pattern;
    s_entry = 0;
    if (!find_next(NULL, data)) {
        SetLastError(ERROR_FILE_NOT_FOUND);
        return INVALID_HANDLE_VALUE;
    }
    s_finds_open++;
    return &s_entries;
}

static BOOL WINAPI find_close(HANDLE)
{
    s_finds_open--;
    return TRUE;
}

class listed_folder
{
  public:
    explicit listed_folder(const std::vector<folder_entry> &entries)
    {
        s_entries = entries;
    }

  private:
    import_patch first_{"FindFirstFileW", find_first}, next_{"FindNextFileW", find_next},
        close_{"FindClose", find_close};
};

TEST(test_find_newest_file, listings)
{
    static const DWORD file = FILE_ATTRIBUTE_NORMAL;
    static const DWORD folder = FILE_ATTRIBUTE_DIRECTORY;
    /* clang-format off */
    static const struct {
        const char *row;
        std::vector<folder_entry> entries;
        uint32_t result;
        const wchar_t *path;
        uint64_t time;
        lines log;
    } s_rows[] = {
        {"newest last", {{L".", folder, 9}, {L"a", file, 3}, {L"b", file, 4}}, 0, L"D:\\m\\b", 4,
         {}},
        {"newest first", {{L"a", file, 5}, {L"b", file, 4}}, 0, L"D:\\m\\a", 5, {}},
        {"of equal ones the first", {{L"a", file, 1}, {L"b", file, 4}, {L"c", file, 4}}, 0,
         L"D:\\m\\b", 4, {}},
        {"a newer folder", {{L"a", file, 1}, {L"b", folder | FILE_ATTRIBUTE_HIDDEN, 4}}, 0,
         L"D:\\m\\a", 1, {}},
        {"only folders", {{L".", folder, 9}, {L"..", folder, 9}}, 1168, L"before", 7, {}},
        {"a time of zero", {{L"a", file, 0}}, 1168, L"before", 7, {}},
        {"times as unsigned numbers", {{L"a", file, 1}, {L"b", file, 1ULL << 63}}, 0, L"D:\\m\\b",
         1ULL << 63, {}},
        {"nothing there", {}, 2, L"before", 7, {"warn find failed 2."}},
    };
    /* clang-format on */
    log_capture log;

    for (const auto &row : s_rows) {
        SCOPED_TRACE(row.row);
        listed_folder listing(row.entries);
        std::wstring path = L"before";
        uint64_t time = 7;
        EXPECT_EQ(find_newest_file(L"D:\\m", &path, &time), row.result);
        EXPECT_EQ(path, row.path);
        EXPECT_EQ(time, row.time);
        EXPECT_EQ(s_find_pattern, L"D:\\m\\*");
        EXPECT_EQ(s_finds_open, 0);
        EXPECT_EQ(log.take(), row.log);
    }
    std::wstring path;
    uint64_t time;
    EXPECT_EQ(find_newest_file(NULL, &path, &time), 87u);
}

/* The Windows folder is one of the test. */
static std::wstring s_windows;

static UINT WINAPI windows_directory(wchar_t *buffer, UINT size)
{
    if (size != 520)
        return 0;
    wcscpy(buffer, s_windows.c_str());
    return (UINT)s_windows.size();
}

TEST(test_get_crash_dump_files, settings)
{
    const DWORD number = 3;
    private_registry registry;
    temporary_folder folder;
    log_capture log;
    import_patch windows("GetWindowsDirectoryW", windows_directory);

    s_windows = folder.path();
    folder.write(L"MEMORY.DMP", "x", BOOT);
    folder.write(L"other.dmp", "x", BOOT + 1);
    CreateDirectoryW(folder.file(L"Minidump").c_str(), NULL);
    CreateDirectoryW(folder.file(L"small").c_str(), NULL);
    folder.write(L"Minidump\\1.dmp", "x", BOOT + 2);
    folder.write(L"small\\2.dmp", "x", BOOT + 3);
    {
        /* Without the key each query fails by itself, with a handle that Windows does not know. */
        crash_dump_info complete = {}, minidump = {};
        get_crash_dump_files(&complete, &minidump);
        EXPECT_EQ(complete.path, folder.file(L"MEMORY.DMP"));
        EXPECT_EQ(complete.write_time, (uint64_t)BOOT);
        EXPECT_EQ(minidump.path, folder.file(L"Minidump\\1.dmp"));
        EXPECT_EQ(minidump.write_time, (uint64_t)BOOT + 2);
        EXPECT_EQ(log.take(), (lines{"error query failed 6.", "error query failed 6."}));
    }
    registry.set_value(CRASH_KEY, L"DumpFile", REG_DWORD, &number, sizeof(number));
    registry.set_text(CRASH_KEY, L"MinidumpDir", REG_SZ, L"");
    {
        crash_dump_info complete = {}, minidump = {};
        get_crash_dump_files(&complete, &minidump);
        EXPECT_EQ(complete.path, folder.file(L"MEMORY.DMP"));
        EXPECT_EQ(minidump.path, folder.file(L"Minidump\\1.dmp"));
        EXPECT_EQ(log.take(), lines{"error type not match 4 490."});
    }
    SetEnvironmentVariableW(L"BYPASS_W", s_windows.c_str());
    registry.set_text(CRASH_KEY, L"DumpFile", REG_EXPAND_SZ, L"%BYPASS_W%\\other.dmp");
    registry.set_text(CRASH_KEY, L"MinidumpDir", REG_SZ, L"%BYPASS_W%\\small");
    {
        crash_dump_info complete = {}, minidump = {};
        get_crash_dump_files(&complete, &minidump);
        EXPECT_EQ(complete.path, folder.file(L"other.dmp"));
        EXPECT_EQ(complete.write_time, (uint64_t)BOOT + 1);
        EXPECT_EQ(minidump.path, folder.file(L"small\\2.dmp"));
        EXPECT_TRUE(log.take().empty());
    }
    registry.set_text(CRASH_KEY, L"DumpFile", REG_SZ, L"Z:\\none\\M.DMP");
    registry.set_text(CRASH_KEY, L"MinidumpDir", REG_SZ, L"Z:\\none");
    crash_dump_info complete = {L"kept", 1}, minidump = {L"kept", 2};
    get_crash_dump_files(&complete, &minidump);
    EXPECT_EQ(complete.path, L"kept");
    EXPECT_EQ(minidump.path, L"kept");
    EXPECT_EQ(minidump.write_time, 2u);
}

/* A machine with dumps of the row; "@" is a folder of the test. */
class dump_machine
{
  public:
    dump_machine()
    {
        oxnih_set_install_dir((folder.utf8() + "\\agent").c_str());
        CreateDirectoryW(folder.file(L"small").c_str(), NULL);
        registry.set_text(CRASH_KEY, L"DumpFile", REG_SZ, folder.file(L"MEMORY.DMP"));
        registry.set_text(CRASH_KEY, L"MinidumpDir", REG_SZ, folder.file(L"small"));
        processes.creation = BOOT;
    }
    /* Distances from BOOT; 0: no such file. */
    void write_dumps(int64_t complete, int64_t minidump) const
    {
        if (complete != 0)
            folder.write(L"MEMORY.DMP", "x", (uint64_t)(BOOT + complete));
        if (minidump != 0)
            folder.write(L"small\\m.dmp", "x", (uint64_t)(BOOT + minidump));
    }

    temporary_folder folder;
    private_registry registry;
    fake_processes processes;
    fake_engine engine;
};

#define NO_RECORD INT64_MIN

TEST(test_find_new_crash_dump, choices)
{
    enum {
        NONE,
        COMPLETE,
        MINI
    };
    static const int64_t second = 10000000;
    /* clang-format off */
    static const struct {
        const char *row;
        int64_t complete, minidump; /* distances from the boot, 0: none */
        uint32_t use_record;
        int64_t record; /* distance from the boot */
        bool engine_fails;
        int analysed;
        uint8_t result;
        lines log; /* before the analysis */
    } s_rows[] = {
        {"both new", second, second, 0, NO_RECORD, false, MINI, 1, {}},
        {"both new, analysis of the minidump fails", second, second, 0, NO_RECORD, true, MINI, 0,
         {}},
        {"only the complete one", second, 0, 0, NO_RECORD, false, COMPLETE, 1, {}},
        {"complete one beside an old minidump", second, -second, 0, NO_RECORD, false, COMPLETE, 1,
         {}},
        {"complete one, analysis fails", second, 0, 0, NO_RECORD, true, COMPLETE, 0, {}},
        {"just newer", 0, 1, 0, NO_RECORD, false, MINI, 1, {}},
        {"both old", -second, -second, 0, NO_RECORD, false, NONE, 0, {"warn dump not found."}},
        {"none", 0, 0, 0, NO_RECORD, false, NONE, 0, {}},
        {"old, but newer than the record", 0, -second, 1, -2 * second, false, MINI, 1,
         {"info starttime 133542759410000000 > recordtime 133542759390000000"}},
        {"as old as the record", 0, -second, 1, -second, false, NONE, 0,
         {"info starttime 133542759410000000 > recordtime 133542759400000000", "warn dump not found."}},
        {"record as new as the boot", 0, -second, 1, 0, false, NONE, 0, {"warn dump not found."}},
        {"record newer than the boot", 0, second, 1, 2 * second, false, MINI, 1, {}},
        {"record is not asked for", 0, -second, 0, -2 * second, false, NONE, 0,
         {"warn dump not found."}},
        {"another flag is no flag", 0, -second, 2, -2 * second, false, NONE, 0,
         {"warn dump not found."}},
        {"no record", 0, second, 1, NO_RECORD, false, MINI, 1, {"warn get_dumprecord_time failed"}},
    };
    /* clang-format on */

    for (const auto &row : s_rows) {
        SCOPED_TRACE(row.row);
        dump_machine machine;
        machine.write_dumps(row.complete, row.minidump);
        if (row.record != NO_RECORD) {
            ASSERT_EQ(set_dumprecord_time(BOOT + row.record), 1);
        }
        machine.engine.failing_call = row.engine_fails ? "open" : "";
        crash_module_set modules;
        uint64_t dump_time = 77;
        std::string dump_path = "before";
        log_capture log;
        EXPECT_EQ(find_new_crash_dump(5, row.use_record, &modules, &dump_time, &dump_path),
                  row.result);

        const std::string mini = to_utf8(machine.folder.file(L"small\\m.dmp"));
        const std::string opened =
            row.analysed == MINI ? mini : to_utf8(machine.folder.file(L"MEMORY.DMP"));
        lines opens;
        for (const std::string &call : machine.engine.calls)
            if (call.substr(0, 5) == "open ")
                opens.push_back(call);
        EXPECT_EQ(opens, row.analysed == NONE ? lines{} : lines{"open client4 " + opened + " 0"});
        if (row.result == 1) {
            EXPECT_EQ(dump_time,
                      (uint64_t)(BOOT + (row.analysed == MINI ? row.minidump : row.complete)));
            /* The minidump's path, whichever was analysed. */
            EXPECT_EQ(dump_path, row.minidump != 0 ? mini : "");
            EXPECT_EQ(modules, crash_module_set{"nt"});
        } else {
            EXPECT_EQ(dump_time, 77u);
            EXPECT_EQ(dump_path, "before");
        }
        lines seen = log.take();
        while (!seen.empty() &&
               (seen[0].find("warn open file") == 0 || seen[0].find("warn find failed") == 0))
            seen.erase(seen.begin());
        seen.resize(std::min(seen.size(), row.log.size()));
        EXPECT_EQ(seen, row.log);
    }
}

TEST(test_find_new_crash_dump, paths_of_any_script)
{
    /* a name with a character of each length, and one with half a surrogate pair */
    static const wchar_t good[] = L"\x00E9\x65E5\xD83D\xDE00.dmp";
    static const wchar_t broken[] = L"\xD83D.dmp";
    dump_machine machine;
    crash_module_set modules;
    uint64_t dump_time = 77;
    std::string dump_path = "before";

    {
        listed_folder listing({
            {good, FILE_ATTRIBUTE_NORMAL, BOOT + 1}
        });
        EXPECT_EQ(find_new_crash_dump(5, 0, &modules, &dump_time, &dump_path), 1);
        EXPECT_EQ(dump_path, to_utf8(machine.folder.file(L"small\\")) +
                                 "\xC3\xA9\xE6\x97\xA5\xF0\x9F\x98\x80.dmp");
    }
    listed_folder listing({
        {broken, FILE_ATTRIBUTE_NORMAL, BOOT + 2}
    });
    EXPECT_THROW((void)find_new_crash_dump(5, 0, &modules, &dump_time, &dump_path),
                 std::range_error);
    EXPECT_EQ(dump_time, (uint64_t)BOOT + 2);
}

TEST(test_dumprecord, round_trip_and_wrong_records)
{
    static const struct {
        const char *row;
        const char *json;
        bool found;
        int64_t time;
    } s_rows[] = {
        {"a time",      "{\"dump_time\": 133542759410000000, \"more\": []}", true,  BOOT},
        {"negative",    "{\"dump_time\": -1}",                               true,  -1  },
        {"real number", "{\"dump_time\": 1.0}",                              false, 7   },
        {"text",        "{\"dump_time\": \"1\"}",                            false, 7   },
        {"null",        "{\"dump_time\": null}",                             false, 7   },
        {"no member",   "{}",                                                false, 7   },
    };
    temporary_folder folder;
    char path[260];

    oxnih_set_install_dir((folder.utf8() + "\\agent").c_str());
    int64_t time = 7;
    EXPECT_FALSE(get_dumprecord_time(&time));
    EXPECT_EQ(get_dumprecord_path(path, sizeof(path)), 0);
    EXPECT_NE(GetFileAttributesW(folder.file(L"var\\bypass_mgr").c_str()), INVALID_FILE_ATTRIBUTES);
    EXPECT_EQ(std::string(path).substr(strlen(path) - 41),
              "/var/bypass_mgr/bypass_mgr_dumprecord.ejs");
    for (const auto &row : s_rows) {
        SCOPED_TRACE(row.row);
        json_t *record = json_loads(row.json, 0, NULL);
        ASSERT_EQ(wdu_json_dump_file_ejs(record, path), 0);
        wdu_json_delete_ejs(record);
        time = 7;
        EXPECT_EQ(get_dumprecord_time(&time), row.found);
        EXPECT_EQ(time, row.time);
    }
    for (int64_t value : {(int64_t)0, (int64_t)BOOT, INT64_MAX, INT64_MIN}) {
        EXPECT_EQ(set_dumprecord_time(value), 1);
        EXPECT_TRUE(get_dumprecord_time(&time));
        EXPECT_EQ(time, value);
    }
}

TEST(test_dumprecord, cannot_be_written)
{
    temporary_folder folder;
    int64_t time = 7;

    /* A file where the folder should be. */
    folder.write(L"var", "x");
    oxnih_set_install_dir((folder.utf8() + "\\agent").c_str());
    EXPECT_EQ(set_dumprecord_time(5), 0);
    EXPECT_FALSE(get_dumprecord_time(&time));
    oxnih_memory_fail(1, 1);
    EXPECT_EQ(set_dumprecord_time(5), 0);
    oxnih_memory_fail(0, 0);
    EXPECT_EQ(time, 7);
}

TEST(test_is_file_updated_since_boot, times)
{
    static const struct {
        int64_t written; /* distance from the boot */
        bool updated;
    } s_rows[] = {
        {-10000000, false},
        {-1,        false},
        {0,         true },
        {1,         true },
        {10000000,  true },
    };
    fake_processes machine;
    temporary_folder folder;
    log_capture log;

    machine.creation = BOOT;
    for (const auto &row : s_rows) {
        SCOPED_TRACE(row.written);
        const std::wstring path = folder.write(L"a.cfg", "x", (uint64_t)(BOOT + row.written));
        EXPECT_EQ(is_file_updated_since_boot(path.c_str()), row.updated);
    }
    EXPECT_FALSE(is_file_updated_since_boot(NULL));
    EXPECT_TRUE(log.take().empty());
    EXPECT_FALSE(is_file_updated_since_boot(folder.file(L"b.cfg").c_str()));
    EXPECT_EQ(log.take(),
              lines{"error open file " + to_utf8(folder.file(L"b.cfg")) + " failed 2."});
}
