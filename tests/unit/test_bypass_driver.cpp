/* What the platform's two drivers keep of their crashes, where scenarios do not reach: odd registry
 * values, waits for a service, sizes of buffers, null arguments. */
#include "bypass_driver.h"

#include "bypass_sp_driver.h"
#include "unit_support.h"

#include <algorithm>

#include <gtest/gtest.h>

#include "liboxnibase/host.h"

#define DRIVER_KEY L"SYSTEM\\CurrentControlSet\\Services\\load_driver"

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
    EXPECT_EQ(read_load_driver_value(NULL, &value), 87u);
}

/* What the queries of a service answer, the last one again and again; 0 is a query that fails. */
static std::vector<DWORD> s_states;
static size_t s_queries;
static unsigned s_slept; /* seconds */

static SC_HANDLE WINAPI open_manager(const wchar_t *, const wchar_t *, DWORD)
{
    return reinterpret_cast<SC_HANDLE>(&s_states);
}

static SC_HANDLE WINAPI open_service(SC_HANDLE manager, const wchar_t *, DWORD)
{
    return manager;
}

static BOOL WINAPI query_service(SC_HANDLE, SERVICE_STATUS *status)
{
    status->dwCurrentState = s_states[std::min(s_queries++, s_states.size() - 1)];
    return status->dwCurrentState != 0;
}

static BOOL WINAPI close_service(SC_HANDLE)
{
    return TRUE;
}

static void note_sleep(unsigned seconds)
{
    s_slept += seconds;
}

TEST(test_is_service_stopped, waits)
{
    static const DWORD stopped = SERVICE_STOPPED, stopping = SERVICE_STOP_PENDING,
                       starting = SERVICE_START_PENDING;
    /* clang-format off */
    static const struct {
        std::vector<DWORD> states;
        int32_t wait_count;
        int result;
        unsigned slept;
    } s_rows[] = {
        {{SERVICE_PAUSE_PENDING, stopped}, 9, 0, 0}, /* no change to wait for */
        {{stopping, stopped}, 2, 1, 1},
        {{starting}, 4, 0, 3},
        {{starting, SERVICE_RUNNING}, 4, 0, 1},
        {{stopping, 0}, 3, 1, 1},
        {{stopping}, INT32_MIN, 0, 0},
    };
    /* clang-format on */
    import_patch manager("OpenSCManagerW", open_manager), open("OpenServiceW", open_service);
    import_patch query("QueryServiceStatus", query_service);
    import_patch close("CloseServiceHandle", close_service), sleep("oxni_sleep", note_sleep);

    for (const auto &row : s_rows) {
        s_states = row.states;
        s_queries = s_slept = 0;
        EXPECT_EQ(is_service_stopped(row.wait_count, L"drv"), row.result) << &row - s_rows;
        EXPECT_EQ(s_slept, row.slept) << &row - s_rows;
    }
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
        {MOMENT_FILETIME,           0,  NULL                 },
        {1ULL << 63,                20, NULL                 },
    };
    char text[20] = "before";
    uint64_t time = 5;

    for (const auto &row : s_rows) {
        const std::string bytes(reinterpret_cast<const char *>(&row.time), sizeof(row.time));
        strcpy(text, "before");
        registry_set(DRIVER_KEY, L"errortime", REG_QWORD, bytes);
        EXPECT_EQ(get_load_driver_errortime(text, row.size), row.text != NULL) << &row - s_rows;
        EXPECT_STREQ(text, row.text != NULL ? row.text : "before");
    }
    EXPECT_FALSE(get_load_driver_errortime(NULL, 20));
    EXPECT_FALSE(get_oxnisp_driver_errortime(NULL, 20));
    EXPECT_FALSE(get_oxnisp_driver_errortime(text, -1));
    EXPECT_FALSE(get_errortime_string(text, 20, NULL));
    EXPECT_FALSE(query_errortime(NULL, DRIVER_KEY));
    EXPECT_FALSE(query_errortime(&time, NULL));
    registry_set(DRIVER_KEY, L"errortime", REG_BINARY, "12345678");
    EXPECT_FALSE(query_errortime(&time, DRIVER_KEY));
    EXPECT_EQ(time, 5u);
}

/* What the tries to delete a key answer, and their number. */
static const DWORD *s_answers;
static size_t s_tries;

static LSTATUS WINAPI delete_key(HKEY, const wchar_t *)
{
    return (LSTATUS)s_answers[s_tries++];
}

/* Nobody is told of a mark that stays, so only here the result shows. */
TEST(test_delete_service_crashflag, tries)
{
    static const struct {
        DWORD answers[4];
        uint32_t result;
        size_t tries;
    } s_rows[] = {
        {{2, 2, 2},       2, 3},
        {{5, 5, 1168},    0, 3},
        {{5, 1168, 5},    0, 2},
        {{5, 5, 6, 1168}, 6, 3},
    };
    import_patch key("RegDeleteKeyW", delete_key), sleep("oxni_msleep", note_sleep);

    for (const auto &row : s_rows) {
        s_answers = row.answers;
        s_tries = 0;
        EXPECT_EQ(delete_service_crashflag(L"drv"), row.result) << &row - s_rows;
        EXPECT_EQ(s_tries, row.tries);
    }
}

TEST(test_get_oxnisp_crash_config_path, sizes)
{
    static const struct {
        const char *base;
        int32_t size;
        int result;
        const wchar_t *path;
    } s_rows[] = {
        {"C:\\\xC3\xA9", 57, 1, L"C:\\\xE9\\Quorvel\\OXNI3_CFG\\oxnisp_driver\\crash_config.cfg"},
        {"C:\\b",        8,  1, L"C:\\b\\Qu"                                                    },
        {"C:\\b",        1,  1, L""                                                             },
        {"C:\\b",        0,  0, L"before"                                                       },
        {NULL,           57, 0, L"before"                                                       },
    };

    for (const auto &row : s_rows) {
        wchar_t path[57] = L"before";
        oxnih_set_log_dir(row.base);
        EXPECT_EQ(get_oxnisp_crash_config_path(path, row.size), row.result) << &row - s_rows;
        EXPECT_STREQ(path, row.path);
    }
    EXPECT_EQ(get_oxnisp_crash_config_path(NULL, 57), 0);
    oxnih_set_log_dir(NULL);
}

/* Of this module and the ones below it. */
TEST(test_null_arguments, are_refused)
{
    crash_config_record record = {};

    EXPECT_EQ(read_crash_config(NULL, L"a"), 1);
    EXPECT_EQ(read_crash_config(&record, NULL), 1);
    EXPECT_EQ(write_crash_config(NULL, L"a"), 1);
    EXPECT_EQ(write_crash_config(&record, NULL), 1);
    EXPECT_EQ(create_service_crashflag(NULL), 87u);
    EXPECT_EQ(delete_service_crashflag(NULL), 87u);
}
