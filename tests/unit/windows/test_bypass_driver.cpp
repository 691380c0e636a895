/* The platform's two drivers, where scenarios do not reach: odd registry values, sizes of buffers, long
 * paths, null arguments, waits for the end of a change. And the System process as the boot moment
 * without a list of processes, a place for the result, or a date. */
#include "bypass_driver.h"

#include "boot_time.h"
#include "bypass_sp_driver.h"
#include "platform_driver.h"
#include "service_state.h"
#include "time_text.h"
#include "unit_support.h"

#include <algorithm>

#include <windows.h>
#include <tlhelp32.h>

#include <gtest/gtest.h>

#include "liboxnibase/host.h"

static constexpr wchar_t DRIVER_KEY[] = L"SYSTEM\\CurrentControlSet\\Services\\load_driver";

TEST(test_read_load_driver_value, values)
{
    /* clang-format off */
    static const struct {
        DWORD type;
        std::wstring text; /* as stored */
        uint32_t result, value; /* value 99: untouched */
    } s_rows[] = {
        {REG_SZ, std::wstring(L"  -3x9\0", 7), 0, 0xFFFFFFFD},
        {REG_SZ, L"", 0, 0},
        {REG_SZ, L"41", 0, 41}, /* no terminator */
        {REG_SZ, std::wstring(30, L'0') + L"7", 0, 7}, /* as long as it may be */
        {REG_SZ, std::wstring(31, L'0') + L"7", 234, 99},
        {REG_MULTI_SZ, std::wstring(L"5\0\0", 3), 0, 99},
    };
    /* clang-format on */
    uint32_t value = 99;

    for (const auto &row : s_rows) {
        value = 99;
        registry_set(DRIVER_KEY, L"Count", row.type, wide_bytes(row.text));
        EXPECT_EQ(read_load_driver_value(L"Count", &value), row.result) << &row - s_rows;
        EXPECT_EQ(value, row.value) << &row - s_rows;
    }
    EXPECT_EQ(read_load_driver_value(L"Missing", &value), 2u);
    EXPECT_EQ(read_load_driver_value(nullptr, &value), 87u);
    RegDeleteTreeW(HKEY_LOCAL_MACHINE, L"SYSTEM");
    log_forget();
    EXPECT_EQ(read_load_driver_value(L"Count", &value), 2u);
    EXPECT_TRUE(log_contains("open service key SYSTEM\\CurrentControlSet"));
}

static void set_errortime(DWORD type, uint64_t time)
{
    registry_set(DRIVER_KEY, L"errortime", type,
                 std::string(reinterpret_cast<const char *>(&time), sizeof(time)));
}

TEST(test_get_errortime_string, times)
{
    static const struct {
        uint64_t time;
        int32_t size;
        const char *text; /* NULL: refused */
    } s_rows[] = {
        {MOMENT_FILETIME + 9999999, 20, "2024-03-07 09:05:41"},
        {MOMENT_FILETIME,           10, "2024-03-0"          },
        {MOMENT_FILETIME,           1,  ""                   },
        {MOMENT_FILETIME,           0,  nullptr              },
        {1ULL << 63,                20, nullptr              },
    };
    char text[20] = "before";
    uint64_t time = 5;

    for (const auto &row : s_rows) {
        strcpy(text, "before");
        set_errortime(REG_QWORD, row.time);
        EXPECT_EQ(get_load_driver_errortime(text, row.size), row.text != nullptr) << &row - s_rows;
        EXPECT_STREQ(text, row.text != nullptr ? row.text : "before");
    }
    EXPECT_TRUE(log_contains("errortime: 9223372036854775808"));
    set_errortime(REG_QWORD, MOMENT_FILETIME);
    EXPECT_FALSE(get_load_driver_errortime(nullptr, 20));
    log_forget();
    EXPECT_FALSE(get_oxnisp_driver_errortime(text, -1));
    EXPECT_TRUE(log_contains("[bypass_sp_driver.cpp:")); /* refused here, not below */
    EXPECT_FALSE(get_oxnisp_driver_errortime(nullptr, 20));
    log_forget();
    EXPECT_FALSE(get_oxnisp_driver_errortime(text, 0));
    EXPECT_FALSE(log_contains("[bypass_sp_driver.cpp:")); /* refused below */
    EXPECT_FALSE(get_errortime_string(text, 20, nullptr));
    EXPECT_FALSE(get_errortime_string(nullptr, 20, DRIVER_KEY));
    EXPECT_FALSE(get_errortime_string(text, 0, DRIVER_KEY));
    EXPECT_FALSE(query_errortime(nullptr, DRIVER_KEY));
    EXPECT_FALSE(query_errortime(&time, nullptr));
    set_errortime(REG_BINARY, MOMENT_FILETIME);
    EXPECT_FALSE(query_errortime(&time, DRIVER_KEY));
    EXPECT_EQ(time, 5u);
}

/* Results of the attempts to delete a key, and the number of attempts. */
static const DWORD *s_answers;
static size_t s_tries;

static LSTATUS WINAPI delete_key(HKEY, const wchar_t *)
{
    return static_cast<LSTATUS>(s_answers[s_tries++]);
}

/* No message reports a mark that stays, so only here the result shows. */
TEST(test_delete_service_crashflag, tries)
{
    static const struct {
        DWORD answers[4];
        uint32_t result;
        size_t tries;
    } s_rows[] = {
        {{2, 2, 2},          2,    3},
        {{5, 5, 1168},       0,    3},
        {{5, 1168, 5},       0,    2},
        {{5, 5, 6, 1168},    6,    3},
        {{1018, 1018, 1018}, 1018, 3},
    };
    const import_patch key("RegDeleteKeyW", delete_key), sleep("oxni_msleep");

    for (const auto &row : s_rows) {
        s_answers = row.answers;
        s_tries = 0;
        EXPECT_EQ(delete_service_crashflag(L"drv"), row.result) << &row - s_rows;
        EXPECT_EQ(s_tries, row.tries);
    }
}

/* Of the keys' paths one character fits, the next one does not: no other key is touched. */
TEST(test_service_crashflag, long_names)
{
    static const DWORD s_missing[] = {5, 5, 5};
    static const struct {
        size_t chars;
        uint32_t created, deleted;
        size_t tries; /* to delete */
    } s_rows[] = {
        {215, 2,   5,   3},
        {216, 2,   206, 0},
        {225, 2,   206, 0},
        {226, 206, 206, 0},
        {500, 206, 206, 0},
    };
    const import_patch key("RegDeleteKeyW", delete_key), sleep("oxni_msleep");

    s_answers = s_missing;
    for (const auto &row : s_rows) {
        const std::wstring service(row.chars, L's');
        s_tries = 0;
        log_forget();
        EXPECT_EQ(create_service_crashflag(service.c_str()), row.created) << row.chars;
        EXPECT_EQ(delete_service_crashflag(service.c_str()), row.deleted) << row.chars;
        EXPECT_EQ(s_tries, row.tries) << row.chars;
        EXPECT_EQ(log_contains(" is too long"), row.deleted == 206) << row.chars;
    }
}

static std::wstring s_opened; /* the file that was opened or deleted last */

#define SP_SUFFIX "\\Quorvel\\OXNI3_CFG\\oxnisp_driver\\crash_config.cfg"

/* A record whose path does not fit, or is not UTF-8, is not there: no other file is touched. */
TEST(test_record_path, long_and_odd_folders)
{
    static const struct {
        const char *row;
        size_t letters;   /* of the folder of executable and platform, after "C:\\" */
        const char *last; /* ends its name */
        bool has_path, has_sp_path;
    } s_rows[] = {
        {"ordinary",                      1,   "",         true,  true },
        {"other scripts",                 1,   "\xC3\xA9", true,  true },
        {"the longest of the platform",   207, "",         true,  true },
        {"one character more",            208, "",         true,  false},
        {"the longest of the executable", 239, "",         true,  false},
        {"another character more",        240, "",         false, false},
        {"longer than the platform's",    300, "",         false, false},
        {"not UTF-8",                     1,   "\xFF",     false, false},
    };
    static const DWORD s_deleted[ARRAYSIZE(s_rows) * 2] = {};
    const import_patch key("RegDeleteKeyW", delete_key), sleep("oxni_msleep");
    const import_patch open("oxni_file_open_w", [](const wchar_t *path, const wchar_t *) -> FILE * {
        s_opened = path;
        return nullptr;
    });
    const import_patch remove("DeleteFileW", [](const wchar_t *path) {
        s_opened = path;
        SetLastError(ERROR_FILE_NOT_FOUND);
        return FALSE;
    });

    s_answers = s_deleted;
    s_tries = 0;
    for (const auto &row : s_rows) {
        SCOPED_TRACE(row.row);
        const std::string name = "C:\\" + std::string(row.letters, 'b') + row.last;
        const std::wstring folder = std::filesystem::u8path(row.has_path ? name : "").wstring();
        const std::wstring path = row.has_path ? folder + L"\\crash_config.cfg" : L"";
        const std::wstring sp_path = row.has_sp_path ? folder + L"" SP_SUFFIX : L"";
        crash_config_record record = {};
        log_forget();
        oxnih_set_process_path((name + "\\x.exe").c_str());
        oxnih_set_log_dir(name.c_str());
        EXPECT_EQ(read_load_driver_crash_config(&record), CRASH_CONFIG_NOT_OPEN);
        EXPECT_EQ(s_opened, path);
        s_opened = L"none";
        EXPECT_EQ(recover_load_driver(), 0u);
        EXPECT_EQ(s_opened, path);
        EXPECT_EQ(log_contains("too long\n"), !row.has_path);
        log_forget();
        EXPECT_EQ(write_oxnisp_crash_config(&record), CRASH_CONFIG_NOT_OPEN);
        EXPECT_EQ(s_opened, sp_path);
        s_opened = L"none";
        EXPECT_EQ(recover_oxnisp_driver(), 0u);
        EXPECT_EQ(s_opened, sp_path);
        EXPECT_EQ(log_contains("too long\n") || log_contains("get log dir is error\n"),
                  !row.has_sp_path);
    }
    oxnih_set_process_path(nullptr);
    oxnih_set_log_dir(nullptr);
}

TEST(test_get_oxnisp_crash_config_path, sizes)
{
    static const struct {
        const char *base;
        int32_t size;
        bool result;
        const wchar_t *path;
    } s_rows[] = {
        {"C:\\b", 54, true,  L"C:\\b" SP_SUFFIX},
        {"C:\\b", 53, false, L""               },
        {"C:\\b", 1,  false, L""               },
        {"C:\\b", 0,  false, L"before"         },
        {nullptr, 54, false, L""               },
        {"\xFF:", 54, false, L""               },
    };

    for (const auto &row : s_rows) {
        wchar_t path[54] = L"before";
        oxnih_set_log_dir(row.base);
        EXPECT_EQ(get_oxnisp_crash_config_path(path, row.size), row.result) << &row - s_rows;
        EXPECT_STREQ(path, row.path);
    }
    EXPECT_FALSE(get_oxnisp_crash_config_path(nullptr, 54));
    wchar_t longer[520];
    oxnih_set_log_dir(std::string(240, 'b').c_str());
    EXPECT_FALSE(get_oxnisp_crash_config_path(longer, 520)); /* as UTF-8 it does not fit */
    oxnih_set_log_dir(nullptr);
}

/* Each byte is written and read as it is: line feeds and ends of texts, too. */
TEST(test_crash_config, bytes)
{
    const temporary_folder folder;
    const std::wstring path = folder.file(L"r");
    crash_config_record record = {}, read = {};

    EXPECT_EQ(read_crash_config(&read, path.c_str()), CRASH_CONFIG_TOO_SHORT);
    for (int byte = 0; byte < 256; byte++) {
        memset(&record, byte, sizeof(record));
        EXPECT_EQ(write_crash_config(&record, path.c_str()), CRASH_CONFIG_OK);
        EXPECT_EQ(read_crash_config(&read, path.c_str()), CRASH_CONFIG_OK);
        memset(&record, byte, sizeof(record));
        EXPECT_EQ(memcmp(&record, &read, sizeof(record)), 0) << byte;
        EXPECT_EQ(std::filesystem::file_size(path), sizeof(record)) << byte;
    }
}

TEST(test_write_crash_config, leaves_the_record_coded)
{
    const temporary_folder folder;
    const std::wstring path = folder.file(L"r");
    crash_config_record record = {}, read = {};

    record.count = 5;
    EXPECT_EQ(write_crash_config(&record, L""), CRASH_CONFIG_NOT_OPEN);
    EXPECT_EQ(record.count, 5u);
    EXPECT_EQ(write_crash_config(&record, path.c_str()), CRASH_CONFIG_OK);
    EXPECT_NE(record.count, 5u);
    EXPECT_EQ(read_crash_config(&read, path.c_str()), CRASH_CONFIG_OK);
    EXPECT_EQ(read.count, 5u);
}

TEST(test_bypass_driver, null_arguments)
{
    crash_config_record record = {};

    EXPECT_EQ(read_crash_config(nullptr, L"a"), 1);
    EXPECT_EQ(read_crash_config(&record, nullptr), 1);
    EXPECT_EQ(write_crash_config(nullptr, L"a"), 1);
    EXPECT_EQ(write_crash_config(&record, nullptr), 1);
    EXPECT_EQ(create_service_crashflag(nullptr), 87u);
    EXPECT_EQ(delete_service_crashflag(nullptr), 87u);
}

/* Results of the queries of a service, the last one repeated; 0 is a query that fails. */
static std::vector<DWORD> s_states;
static size_t s_queries;
static unsigned s_slept; /* seconds */
static int s_handles;    /* that were not closed */

TEST(test_is_service_stopped, waits)
{
    static const DWORD stopped = SERVICE_STOPPED, stopping = SERVICE_STOP_PENDING,
                       starting = SERVICE_START_PENDING;
    /* clang-format off */
    static const struct {
        std::vector<DWORD> states;
        int32_t wait_count;
        bool result;
        unsigned slept;
    } s_rows[] = {
        {{SERVICE_PAUSE_PENDING, stopped}, 9, false, 0}, /* no change to wait for */
        {{stopping, stopped}, 2, true, 1},
        {{starting}, 4, false, 3},
        {{starting, SERVICE_RUNNING}, 4, false, 1},
        {{starting, starting, stopped}, 3, true, 2},
        {{stopping, 0}, 3, true, 1},
        {{stopping}, INT32_MIN, false, 0},
    };
    /* clang-format on */
    const import_patch manager("OpenSCManagerW", [](const wchar_t *, const wchar_t *, DWORD) {
        s_handles++;
        return reinterpret_cast<SC_HANDLE>(&s_states);
    });
    const import_patch open("OpenServiceW", [](SC_HANDLE opened, const wchar_t *, DWORD) {
        s_handles++;
        return opened;
    });
    const import_patch query("QueryServiceStatus", [](SC_HANDLE, SERVICE_STATUS *status) {
        status->dwCurrentState = s_states[std::min(s_queries++, s_states.size() - 1)];
        return BOOL{status->dwCurrentState != 0};
    });
    const import_patch close("CloseServiceHandle", [](SC_HANDLE) {
        s_handles--;
        return TRUE;
    });
    const import_patch sleep("oxni_sleep", [](unsigned seconds) { s_slept += seconds; });

    for (const auto &row : s_rows) {
        s_states = row.states;
        s_queries = s_slept = 0;
        EXPECT_EQ(is_service_stopped(row.wait_count, L"drv"), row.result) << &row - s_rows;
        EXPECT_EQ(s_slept, row.slept) << &row - s_rows;
        EXPECT_EQ(s_handles, 0) << &row - s_rows;
    }
}

static uint32_t s_listed; /* processes so far */

static BOOL WINAPI list_process(HANDLE, PROCESSENTRY32W *entry)
{
    wcscpy(entry->szExeFile, ++s_listed == 5000 ? L"System" : L"a.exe");
    entry->th32ProcessID = s_listed;
    return s_listed < 6000;
}

TEST(test_find_system_process_id, many_processes)
{
    const import_patch first("Process32FirstW", list_process);
    const import_patch next("Process32NextW", list_process);
    uint32_t id;

    EXPECT_EQ(find_system_process_id(&id), 0u);
    EXPECT_EQ(id, 5000u);
}

TEST(test_find_system_process_id, no_snapshot)
{
    const import_patch snapshot("CreateToolhelp32Snapshot");
    uint32_t id;

    log_forget();
    EXPECT_EQ(find_system_process_id(&id), 5u);
    EXPECT_TRUE(log_contains("Snapshot failed 5. "));
    EXPECT_EQ(find_system_process_id(nullptr), 87u);
    EXPECT_EQ(get_system_process_start_time(nullptr), 87u);
}

TEST(test_estimate_boot_filetime, milliseconds)
{
    const import_patch now("GetSystemTime",
                           [](SYSTEMTIME *time) { *time = {2024, 3, 4, 7, 9, 5, 41, 500}; });
    const uint64_t ticks = get_tick_count_ms();
    const uint64_t up = MOMENT_FILETIME + 5000000 - estimate_boot_filetime();

    EXPECT_GE(up, ticks * 10000);
    EXPECT_LE(up, get_tick_count_ms() * 10000);
}

/* Text of a moment that no calendar of Windows has. */
TEST(test_time_text_local, no_date)
{
    char text[TIME_TEXT_CHARS];

    time_text_local(INT64_MAX, text, sizeof(text));
    EXPECT_STREQ(text, "1970-01-01 00:00:00");
    time_text_local(-MOMENT, text, sizeof(text)); /* before 1970, and yet a date */
    EXPECT_EQ(std::string(text, 8), "1915-10-");
}
