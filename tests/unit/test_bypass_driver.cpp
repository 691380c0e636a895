/* load_driver's crash state, and what holds for any driver's service. */
#include "bypass_driver.h"

#include "fake_service.h"
#include "unit_support.h"

#include <algorithm>

#include <gtest/gtest.h>

#include "liboxnibase/host.h"

typedef std::vector<std::string> lines;

#define DRIVER_KEY L"SYSTEM\\CurrentControlSet\\Services\\load_driver"
#define FLAG_KEY   DRIVER_KEY L"\\crashflag"

/* The agent's executable lies in a folder of the test. */
class driver_folder : public temporary_folder
{
  public:
    driver_folder()
    {
        oxnih_set_process_path((utf8() + "\\agent.exe").c_str());
    }
    ~driver_folder()
    {
        oxnih_set_process_path(NULL);
    }
    void write_count(uint32_t count) const
    {
        crash_config_record record = {};
        record.count = count;
        ASSERT_EQ(write_load_driver_crash_config(&record), 0);
    }
};

TEST(test_load_driver_crash_config, lies_beside_the_executable)
{
    driver_folder folder;
    crash_config_record record = {};

    folder.write_count(9);
    EXPECT_EQ(read_whole_file(folder.file(L"crash_config.cfg")).size(), 50u);
    EXPECT_EQ(read_load_driver_crash_config(&record), 0);
    EXPECT_EQ(record.count, 9u);
    EXPECT_EQ(read_load_driver_crash_config(NULL), 1);
    EXPECT_EQ(write_load_driver_crash_config(NULL), 1);
}

TEST(test_read_load_driver_value, values)
{
    /* clang-format off */
    static const struct {
        const char *row;
        DWORD type;
        std::wstring text; /* stored without a terminator of its own */
        uint32_t result, value;
        lines log;
    } s_rows[] = {
        {"number", REG_SZ, std::wstring(L"12\0", 3), 0, 12, {}},
        {"other kind of text", REG_EXPAND_SZ, std::wstring(L"5\0", 2), 0, 5, {}},
        {"blanks, sign and what follows", REG_SZ, std::wstring(L"  -3x9\0", 7), 0, 0xFFFFFFFD, {}},
        {"no digits", REG_SZ, std::wstring(L"abc\0", 4), 0, 0, {}},
        {"empty", REG_SZ, L"", 0, 0, {}},
        {"no terminator", REG_SZ, L"41", 0, 41, {}},
        {"as long as it may be", REG_SZ, std::wstring(30, L'0') + L"7", 0, 7, {}},
        {"longer", REG_SZ, std::wstring(31, L'0') + L"7", 234, 99,
         {"warn query value Count failed ea."}},
        {"a number as such", REG_DWORD, std::wstring(L"\x05\0", 2), 0, 99,
         {"warn value[Count] type unmatch 4."}},
        {"a list", REG_MULTI_SZ, std::wstring(L"5\0\0", 3), 0, 99,
         {"warn value[Count] type unmatch 7."}},
    };
    /* clang-format on */
    private_registry registry;
    log_capture log;

    for (const auto &row : s_rows) {
        SCOPED_TRACE(row.row);
        uint32_t value = 99;
        /* Windows adds a terminator of its own when one follows what it is given. */
        const std::wstring data = row.text + L"!";
        registry.set_value(DRIVER_KEY, L"Count", row.type, data.data(),
                           row.text.size() * sizeof(wchar_t));
        EXPECT_EQ(read_load_driver_value(L"Count", &value), row.result);
        EXPECT_EQ(value, row.value);
        EXPECT_EQ(log.take(), row.log);
    }
    uint32_t value = 99;
    EXPECT_EQ(read_load_driver_value(L"Missing", &value), 2u);
    EXPECT_EQ(log.take(), lines{"warn query value Missing failed 2."});
    EXPECT_EQ(read_load_driver_value(NULL, &value), 87u);
    EXPECT_EQ(value, 99u);
}

TEST(test_read_load_driver_value, no_key)
{
    private_registry registry;
    log_capture log;
    uint32_t value = 99;

    EXPECT_EQ(read_load_driver_value(L"Count", &value), 2u);
    EXPECT_EQ(value, 99u);
    EXPECT_EQ(log.take(), lines{"warn open service key "
                                "SYSTEM\\CurrentControlSet\\Services\\load_driver failed 2."});
}

TEST(test_is_service_stopped, states)
{
    static const std::vector<DWORD> starting(5, SERVICE_START_PENDING);
    /* clang-format off */
    static const struct {
        const char *row;
        DWORD manager_error, service_error;
        std::vector<DWORD> states;
        int32_t wait_count;
        int result;
        size_t sleeps;
        lines log;
    } s_rows[] = {
        {"stopped", 0, 0, {SERVICE_STOPPED}, 1, 1, 0, {}},
        {"running", 0, 0, {SERVICE_RUNNING}, 9, 0, 0, {}},
        {"paused", 0, 0, {SERVICE_PAUSED}, 9, 0, 0, {}},
        {"pause pending is no change to wait for", 0, 0, {SERVICE_PAUSE_PENDING, SERVICE_STOPPED},
         9, 0, 0, {}},
        {"stopping, count of 1", 0, 0, {SERVICE_STOP_PENDING, SERVICE_STOPPED}, 1, 0, 0, {}},
        {"stopping, count of 2", 0, 0, {SERVICE_STOP_PENDING, SERVICE_STOPPED}, 2, 1, 1, {}},
        {"starting, never done", 0, 0, starting, 4, 0, 3, {}},
        {"starting, then runs", 0, 0, {SERVICE_START_PENDING, SERVICE_RUNNING}, 4, 0, 1, {}},
        {"stopping, count of 0", 0, 0, {SERVICE_STOP_PENDING}, 0, 0, 0, {}},
        {"stopping, lowest count", 0, 0, {SERVICE_STOP_PENDING}, INT32_MIN, 0, 0, {}},
        {"query refused", 0, 0, {0}, 1, 1, 0, {"warn query service drv status failed 5."}},
        {"later query refused", 0, 0, {SERVICE_STOP_PENDING, 0}, 3, 1, 1,
         {"warn query service drv status failed 5."}},
        {"not installed", 0, 1060, {SERVICE_RUNNING}, 1, 1, 0, {}},
        {"service refused", 0, 5, {SERVICE_STOPPED}, 1, 0, 0, {"warn open service drv failed 5."}},
        {"manager refused", 5, 0, {SERVICE_STOPPED}, 1, 0, 0, {"warn open manager failed 5."}},
        {"manager says not installed", 1060, 0, {SERVICE_STOPPED}, 1, 0, 0,
         {"warn open manager failed 424."}},
    };
    /* clang-format on */
    log_capture log;

    for (const auto &row : s_rows) {
        SCOPED_TRACE(row.row);
        fake_service service;
        service.manager_error = row.manager_error;
        service.service_error = row.service_error;
        service.states = row.states;
        EXPECT_EQ(is_service_stopped(row.wait_count, L"drv"), row.result);
        EXPECT_EQ(service.sleeps, std::vector<unsigned>(row.sleeps, 1));
        EXPECT_EQ(service.opened_name, row.manager_error == 0 ? L"drv" : L"");
        EXPECT_EQ(service.open_handles, 0);
        EXPECT_EQ(log.take(), row.log);
    }
}

TEST(test_check_load_driver_bypass, counts_and_states)
{
    static const struct {
        const char *row;
        uint32_t count;
        const wchar_t *threshold; /* NULL: not set */
        DWORD state;
        int result;
    } s_rows[] = {
        {"at the standard threshold",    3,          NULL,   SERVICE_STOPPED, 1},
        {"below it",                     2,          NULL,   SERVICE_STOPPED, 0},
        {"at it, but running",           3,          NULL,   SERVICE_RUNNING, 0},
        {"at a set threshold",           7,          L"7",   SERVICE_STOPPED, 1},
        {"below it",                     6,          L"7",   SERVICE_STOPPED, 0},
        {"no digits let any count pass", 0,          L"abc", SERVICE_STOPPED, 1},
        {"negative is out of reach",     0x7FFFFFFF, L"-1",  SERVICE_STOPPED, 0},
        {"counts are unsigned",          0xFFFFFFFF, L"-1",  SERVICE_STOPPED, 1},
    };

    for (const auto &row : s_rows) {
        SCOPED_TRACE(row.row);
        private_registry registry;
        driver_folder folder;
        fake_service service;
        folder.write_count(row.count);
        service.states = {row.state};
        if (row.threshold != NULL)
            registry.set_text(DRIVER_KEY, L"CrashCount", REG_SZ, row.threshold);
        EXPECT_EQ(check_load_driver_bypass(1), row.result);
    }
}

TEST(test_check_load_driver_bypass, no_record)
{
    private_registry registry;
    driver_folder folder;
    fake_service service;
    log_capture log;

    registry.set_text(DRIVER_KEY, L"CrashCount", REG_SZ, L"0");
    EXPECT_EQ(check_load_driver_bypass(1), 0);
    EXPECT_EQ(log.take().back(), "warn get load_driver crash info failed 2.");
    EXPECT_EQ(service.opened_name, L"");
}

TEST(test_get_load_driver_crash_threshold, values)
{
    private_registry registry;
    const DWORD number = 8;

    EXPECT_EQ(get_load_driver_crash_threshold(), 3u);
    registry.set_value(DRIVER_KEY, L"CrashCount", REG_DWORD, &number, sizeof(number));
    EXPECT_EQ(get_load_driver_crash_threshold(), 3u);
    registry.set_text(DRIVER_KEY, L"CrashCount", REG_EXPAND_SZ, L"11");
    EXPECT_EQ(get_load_driver_crash_threshold(), 11u);
}

TEST(test_get_errortime_string, times)
{
    /* clang-format off */
    static const struct {
        const char *row;
        uint64_t time;
        int32_t size;
        bool result;
        const char *text;
        lines log;
    } s_rows[] = {
        {"a time, in UTC", 133542759419999999, 260, true, "2024-03-07 09:05:41", {}},
        {"zero", 0, 260, true, "1601-01-01 00:00:00", {}},
        {"cut", 133542759410000000, 10, true, "2024-03-0", {}},
        {"room for the terminator", 133542759410000000, 1, true, "", {}},
        {"exactly fits", 133542759410000000, 20, true, "2024-03-07 09:05:41", {}},
        {"no date", 0x8000000000000000, 260, false, "before",
         {"warn FileTimeToSystemTime failed, errortime: 9223372036854775808"}},
    };
    /* clang-format on */
    private_registry registry;
    log_capture log;

    for (const auto &row : s_rows) {
        SCOPED_TRACE(row.row);
        char text[260] = "before";
        registry.set_value(DRIVER_KEY, L"errortime", REG_QWORD, &row.time, sizeof(row.time));
        EXPECT_EQ(get_load_driver_errortime(text, row.size), row.result);
        EXPECT_STREQ(text, row.text);
        EXPECT_EQ(log.take(), row.log);
    }
}

TEST(test_query_errortime, refused)
{
    private_registry registry;
    log_capture log;
    uint64_t time = 5;
    char text[260] = "before";
    const uint64_t stored = 133542759410000000;

    EXPECT_FALSE(query_errortime(NULL, DRIVER_KEY));
    EXPECT_FALSE(query_errortime(&time, NULL));
    EXPECT_FALSE(get_errortime_string(NULL, 260, DRIVER_KEY));
    EXPECT_FALSE(get_errortime_string(text, 0, DRIVER_KEY));
    EXPECT_FALSE(get_errortime_string(text, 260, NULL));
    EXPECT_FALSE(get_load_driver_errortime(NULL, 260));
    EXPECT_FALSE(get_load_driver_errortime(text, 0));
    EXPECT_EQ(log.take(), lines(7, "warn invalid parameter"));

    EXPECT_FALSE(query_errortime(&time, DRIVER_KEY));
    registry.set_value(DRIVER_KEY, L"errortime", REG_BINARY, &stored, sizeof(stored));
    EXPECT_FALSE(get_load_driver_errortime(text, 260));
    EXPECT_EQ(log.take(), lines{"info get errortime from path "
                                "SYSTEM\\CurrentControlSet\\Services\\load_driver failed"});
    EXPECT_EQ(time, 5u);
    EXPECT_STREQ(text, "before");
    registry.set_value(DRIVER_KEY, L"errortime", REG_QWORD, &stored, sizeof(stored));
    EXPECT_TRUE(query_errortime(&time, DRIVER_KEY));
    EXPECT_EQ(time, stored);
}

TEST(test_create_service_crashflag, keys)
{
    private_registry registry;
    log_capture log;

    EXPECT_EQ(set_load_driver_crashflag(), 2u);
    EXPECT_EQ(log.take(), lines{"error open reg key "
                                "SYSTEM\\CurrentControlSet\\Services\\load_driver failed 2."});
    registry.set_text(DRIVER_KEY, L"x", REG_SZ, L"");
    EXPECT_EQ(set_load_driver_crashflag(), 0u);
    EXPECT_TRUE(registry.has_key(FLAG_KEY));
    EXPECT_TRUE(registry.is_volatile(FLAG_KEY));
    EXPECT_EQ(set_load_driver_crashflag(), 0u) << "an existing mark is opened";
    EXPECT_EQ(delete_service_crashflag(L"load_driver"), 0u);
    EXPECT_FALSE(registry.has_key(FLAG_KEY));
    EXPECT_TRUE(registry.has_key(DRIVER_KEY));
    EXPECT_EQ(create_service_crashflag(NULL), 87u);
    EXPECT_EQ(delete_service_crashflag(NULL), 87u);
    EXPECT_TRUE(log.take().empty());
}

static LSTATUS WINAPI refuse_create(HKEY, const wchar_t *, DWORD, wchar_t *, DWORD, REGSAM,
                                    SECURITY_ATTRIBUTES *, HKEY *, DWORD *)
{
    return ERROR_ACCESS_DENIED;
}

TEST(test_create_service_crashflag, subkey_refused)
{
    private_registry registry;
    log_capture log;

    registry.set_text(DRIVER_KEY, L"x", REG_SZ, L"");
    import_patch create("RegCreateKeyExW", refuse_create);
    EXPECT_EQ(create_service_crashflag(L"load_driver"), 5u);
    EXPECT_EQ(log.take(), lines{"error create reg key crashflag failed 5."});
}

/* What the tries of a deletion answer, the last one again and again, and what they were for. */
static struct {
    std::vector<DWORD> answers;
    std::vector<std::wstring> names;
    std::vector<unsigned> sleeps;
} s_deletions;

static DWORD next_answer(const wchar_t *name)
{
    const size_t tried = s_deletions.names.size();

    s_deletions.names.push_back(name);
    return s_deletions.answers[std::min(tried, s_deletions.answers.size() - 1)];
}

static LSTATUS WINAPI delete_key(HKEY root, const wchar_t *name)
{
    return root == HKEY_LOCAL_MACHINE ? (LSTATUS)next_answer(name) : ERROR_INVALID_HANDLE;
}

static BOOL WINAPI delete_file(const wchar_t *name)
{
    const DWORD error = next_answer(name);

    SetLastError(error);
    return error == 0;
}

static void note_sleep(unsigned milliseconds)
{
    s_deletions.sleeps.push_back(milliseconds);
}

TEST(test_delete_service_crashflag, tries)
{
    static const struct {
        std::vector<DWORD> answers;
        uint32_t result;
        size_t tries;
    } s_rows[] = {
        {{0},          0, 1},
        {{1168},       0, 1},
        {{2},          2, 3},
        {{5, 5, 6},    6, 3},
        {{5, 0},       0, 2},
        {{5, 5, 1168}, 0, 3},
    };
    import_patch remove("RegDeleteKeyW", delete_key), sleep("oxni_msleep", note_sleep);

    for (const auto &row : s_rows) {
        SCOPED_TRACE(row.answers[0]);
        s_deletions = {row.answers, {}, {}};
        EXPECT_EQ(delete_service_crashflag(L"drv"), row.result);
        EXPECT_EQ(s_deletions.names,
                  std::vector<std::wstring>(
                      row.tries, L"SYSTEM\\CurrentControlSet\\Services\\drv\\crashflag"));
        EXPECT_GE(s_deletions.sleeps.size(), row.tries - 1);
        for (unsigned pause : s_deletions.sleeps)
            EXPECT_EQ(pause, 10u);
    }
}

TEST(test_recover_load_driver, tries_of_the_record)
{
    static const struct {
        const char *row;
        std::vector<DWORD> answers;
        uint32_t result;
        std::vector<const char *> codes; /* one logged failure each */
    } s_rows[] = {
        {"deleted",            {0},         0,  {}               },
        {"not there",          {2},         0,  {"2"}            },
        {"in use for a while", {32, 0},     32, {"20"}           },
        {"in use, then gone",  {32, 2},     0,  {"20", "2"}      },
        {"in use all along",   {32, 32, 5}, 5,  {"20", "20", "5"}},
        {"no such folder",     {3},         3,  {"3", "3", "3"}  },
    };
    private_registry registry;
    driver_folder folder;
    log_capture log;
    const std::wstring path = folder.file(L"crash_config.cfg");
    import_patch remove("DeleteFileW", delete_file), sleep("oxni_msleep", note_sleep);

    for (const auto &row : s_rows) {
        SCOPED_TRACE(row.row);
        lines expected;
        s_deletions = {row.answers, {}, {}};
        EXPECT_EQ(recover_load_driver(), row.result);
        for (const char *code : row.codes)
            expected.push_back("error delete load_driver crash config " + to_utf8(path) +
                               " failed " + code + ".");
        EXPECT_EQ(log.take(), expected);
        EXPECT_EQ(s_deletions.names[0], path);
    }
}

TEST(test_recover_load_driver, mark_and_record_go)
{
    private_registry registry;
    driver_folder folder;

    registry.set_text(DRIVER_KEY, L"x", REG_SZ, L"");
    folder.write_count(3);
    ASSERT_EQ(set_load_driver_crashflag(), 0u);
    EXPECT_EQ(recover_load_driver(), 0u);
    EXPECT_FALSE(registry.has_key(FLAG_KEY));
    EXPECT_EQ(GetFileAttributesW(folder.file(L"crash_config.cfg").c_str()),
              INVALID_FILE_ATTRIBUTES);
}
