/* oxnisp_driver's crash state: where it lies, and when it counts. */
#include "bypass_sp_driver.h"

#include "fake_service.h"
#include "unit_support.h"

#include <gtest/gtest.h>

#include "liboxnibase/host.h"

typedef std::vector<std::string> lines;

#define RECORD_FOLDER L"Quorvel\\OXNI3_CFG\\oxnisp_driver"
#define FLAG_KEY      L"SOFTWARE\\QUORVEL\\XNI\\crashflag"
#define SERVICE_KEY   L"SYSTEM\\CurrentControlSet\\Services\\oxnisp_driver"

/* The platform's base folder is one of the test, with the driver's folder in it. */
class base_folder : public temporary_folder
{
  public:
    base_folder()
    {
        oxnih_set_log_dir(utf8().c_str());
        for (const wchar_t *name : {L"Quorvel", L"Quorvel\\OXNI3_CFG", RECORD_FOLDER})
            CreateDirectoryW(file(name).c_str(), NULL);
    }
    ~base_folder()
    {
        oxnih_set_log_dir(NULL);
    }
    std::wstring record() const
    {
        return file(RECORD_FOLDER L"\\crash_config.cfg");
    }
};

TEST(test_get_oxnisp_crash_config_path, paths)
{
    /* clang-format off */
    static const struct {
        const char *row;
        const char *base;
        int32_t size;
        int result;
        const wchar_t *path;
        lines log;
    } s_rows[] = {
        {"below the base folder", "C:\\b", 260, 1,
         L"C:\\b\\Quorvel\\OXNI3_CFG\\oxnisp_driver\\crash_config.cfg",
         {"info oxnisp_driver crash cfg path C:\\b\\Quorvel\\OXNI3_CFG\\oxnisp_driver\\crash_config.cfg"}},
        {"cut", "C:\\b", 8, 1, L"C:\\b\\Qu", {"info oxnisp_driver crash cfg path C:\\b\\Qu"}},
        {"room for the terminator", "C:\\b", 1, 1, L"", {"info oxnisp_driver crash cfg path "}},
        {"no base folder", NULL, 260, 0, L"before", {"warn get log dir is error"}},
        {"no room", "C:\\b", 0, 0, L"before", {"warn invalid parameter"}},
        {"negative size", "C:\\b", -1, 0, L"before", {"warn invalid parameter"}},
    };
    /* clang-format on */
    log_capture log;

    for (const auto &row : s_rows) {
        SCOPED_TRACE(row.row);
        wchar_t path[260] = L"before";
        oxnih_set_log_dir(row.base);
        EXPECT_EQ(get_oxnisp_crash_config_path(path, row.size), row.result);
        EXPECT_STREQ(path, row.path);
        EXPECT_EQ(log.take(), row.log);
    }
    oxnih_set_log_dir("C:\\b");
    EXPECT_EQ(get_oxnisp_crash_config_path(NULL, 260), 0);
    oxnih_set_log_dir("C:\\\xC3\xA9\xE6\x97\xA5");
    wchar_t path[260];
    EXPECT_EQ(get_oxnisp_crash_config_path(path, 260), 1);
    EXPECT_EQ(std::wstring(path).substr(0, 6), L"C:\\\x00E9\x65E5\\");
    oxnih_set_log_dir(NULL);
}

TEST(test_oxnisp_crash_config, record_in_the_platform_folder)
{
    base_folder folder;
    log_capture log;
    crash_config_record record = {};

    record.count = 5;
    EXPECT_EQ(write_oxnisp_crash_config(&record), 0);
    EXPECT_EQ(read_whole_file(folder.record()).size(), 50u);
    EXPECT_EQ(read_oxnisp_crash_config(&record), 0);
    EXPECT_EQ(record.count, 5u);
    EXPECT_EQ(read_oxnisp_crash_config(NULL), 1);
    EXPECT_EQ(write_oxnisp_crash_config(NULL), 1);
    log.take();

    /* Without a base folder there is no path to fall back to. */
    oxnih_set_log_dir(NULL);
    EXPECT_EQ(read_oxnisp_crash_config(&record), 2);
    EXPECT_EQ(log.take(), (lines{"warn get log dir is error", "warn open file  failed 2."}));
    EXPECT_EQ(write_oxnisp_crash_config(&record), 2);
    EXPECT_EQ(record.count, 5u);
}

TEST(test_check_oxnisp_driver_bypass, counts_and_states)
{
    static const struct {
        const char *row;
        int64_t count; /* below 0: no record */
        DWORD state;
        int result;
    } s_rows[] = {
        {"at the threshold",    2,          SERVICE_STOPPED, 1},
        {"below it",            1,          SERVICE_STOPPED, 0},
        {"at it, but running",  2,          SERVICE_RUNNING, 0},
        {"counts are unsigned", 0xFFFFFFFF, SERVICE_STOPPED, 1},
        {"no record",           -1,         SERVICE_STOPPED, 0},
    };

    EXPECT_EQ(get_oxnisp_driver_crash_threshold(), 2u);
    for (const auto &row : s_rows) {
        SCOPED_TRACE(row.row);
        base_folder folder;
        fake_service service;
        log_capture log;
        crash_config_record record = {};
        record.count = (uint32_t)row.count;
        service.states = {row.state};
        if (row.count >= 0) {
            ASSERT_EQ(write_oxnisp_crash_config(&record), 0);
        }
        EXPECT_EQ(check_oxnisp_driver_bypass(1), row.result);
        EXPECT_EQ(service.opened_name, row.count >= 2 ? L"oxnisp_driver" : L"");
        if (row.count < 0) {
            EXPECT_EQ(log.take().back(), "warn get oxnisp_driver crash info failed 2.");
        }
    }
}

TEST(test_get_oxnisp_driver_errortime, sizes)
{
    private_registry registry;
    log_capture log;
    char text[260] = "before";
    const uint64_t time = 133542759410000000;

    registry.set_value(SERVICE_KEY, L"errortime", REG_QWORD, &time, sizeof(time));
    EXPECT_TRUE(get_oxnisp_driver_errortime(text, sizeof(text)));
    EXPECT_STREQ(text, "2024-03-07 09:05:41");
    EXPECT_TRUE(log.take().empty());
    EXPECT_FALSE(get_oxnisp_driver_errortime(text, 0));
    EXPECT_EQ(log.take(), lines{"warn invalid parameter"});
    EXPECT_FALSE(get_oxnisp_driver_errortime(text, -1));
    EXPECT_FALSE(get_oxnisp_driver_errortime(NULL, 260));
    EXPECT_EQ(log.take(), lines(2, "warn invalid parameter"));
}

TEST(test_set_oxnisp_driver_crashflag, keys)
{
    {
        private_registry registry;
        EXPECT_EQ(set_oxnisp_driver_crashflag(), 0u);
        EXPECT_TRUE(registry.is_volatile(FLAG_KEY));
        EXPECT_TRUE(registry.is_volatile(L"SOFTWARE\\QUORVEL\\XNI"));
        EXPECT_EQ(delete_oxnisp_crashflag(), 0u);
        EXPECT_FALSE(registry.has_key(FLAG_KEY));
        EXPECT_EQ(delete_oxnisp_crashflag(), 2u);
    }
    private_registry registry;
    registry.set_text(L"SOFTWARE\\QUORVEL\\XNI", L"x", REG_SZ, L"");
    EXPECT_EQ(set_oxnisp_driver_crashflag(), 0u);
    EXPECT_TRUE(registry.is_volatile(FLAG_KEY));
    EXPECT_FALSE(registry.is_volatile(L"SOFTWARE\\QUORVEL\\XNI"));
}

/* Opening the product's key fails with this; creating one by its name or that of the mark. */
static LSTATUS s_open_error;
static const wchar_t *s_refused_name;

static LSTATUS WINAPI open_key(HKEY, const wchar_t *, DWORD, REGSAM, HKEY *)
{
    return s_open_error;
}

static LSTATUS WINAPI create_key(HKEY, const wchar_t *name, DWORD, wchar_t *, DWORD, REGSAM,
                                 SECURITY_ATTRIBUTES *, HKEY *key, DWORD *)
{
    if (wcscmp(name, s_refused_name) == 0)
        return ERROR_ACCESS_DENIED;
    return RegOpenCurrentUser(KEY_READ, key);
}

TEST(test_set_oxnisp_driver_crashflag, refused)
{
    /* clang-format off */
    static const struct {
        const char *row;
        LSTATUS open_error;
        const wchar_t *refused;
        uint32_t result;
        const char *log;
    } s_rows[] = {
        {"product key", 5, L"", 5, "error open reg key SOFTWARE\\QUORVEL\\XNI\\ failed 5."},
        {"creating it", 2, L"SOFTWARE\\QUORVEL\\XNI\\", 5,
         "error create reg key SOFTWARE\\QUORVEL\\XNI\\ failed 5."},
        {"creating the mark", 2, L"crashflag", 5, "error create reg key crashflag failed 5."},
    };
    /* clang-format on */
    import_patch open("RegOpenKeyExW", open_key), create("RegCreateKeyExW", create_key);
    log_capture log;

    for (const auto &row : s_rows) {
        SCOPED_TRACE(row.row);
        s_open_error = row.open_error;
        s_refused_name = row.refused;
        EXPECT_EQ(set_oxnisp_driver_crashflag(), row.result);
        EXPECT_EQ(log.take(), lines{row.log});
    }
}

TEST(test_recover_oxnisp_driver, mark_and_record_go)
{
    private_registry registry;
    base_folder folder;
    log_capture log;
    crash_config_record record = {};

    ASSERT_EQ(write_oxnisp_crash_config(&record), 0);
    ASSERT_EQ(set_oxnisp_driver_crashflag(), 0u);
    EXPECT_EQ(recover_oxnisp_driver(), 0u);
    EXPECT_FALSE(registry.has_key(FLAG_KEY));
    EXPECT_EQ(GetFileAttributesW(folder.record().c_str()), INVALID_FILE_ATTRIBUTES);
    log.take();
    EXPECT_EQ(recover_oxnisp_driver(), 0u);
    EXPECT_EQ(log.take().back(),
              "error delete oxnisp_driver crash config " + to_utf8(folder.record()) + " failed 2.");
}
