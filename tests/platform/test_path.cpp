#include "platform_test.h"

#include <oxni/base/log.h>
#include <oxni/base/path.h>

namespace
{
using paths = platform_test;

TEST_F(paths, transform)
{
    const struct {
        const char *path;
        const char *resolved; /* empty: rejected */
    } rows[] = {
        {"@\\x\\y",                 "C:/run/agent/x/y"                  },
        {"@/../var/./a/../b/",      "C:/run/var/b/"                     },
        {"@/../../../../x",         "C:/x"                              }, /* not above the drive */
        {"@//a///b//",              "C:/run/agent/a/b/"                 },
        {"@/\xe6\x97\xa5/\xc3\xa4", "C:/run/agent/\xe6\x97\xa5/\xc3\xa4"},
        {"@/\xff",                  ""                                  },
        {"",                        ""                                  },
        {nullptr,                   ""                                  },
    };
    char buffer[260] = "#";

    oxnih_set_install_dir("C:\\run\\agent\\");
    for (const auto &row : rows) {
        EXPECT_EQ(row.resolved[0] == '\0' ? -1 : 0,
                  oxni_dirutils_path_transform(row.path, buffer, sizeof(buffer)));
        EXPECT_STREQ(row.resolved, buffer);
    }
    EXPECT_EQ(0, oxni_dirutils_path_transform("@x", buffer, sizeof(buffer)));
    EXPECT_STREQ("@x", oxni_path_basename(buffer)); /* "@x" is a file name, not the directory */
}

TEST_F(paths, a_result_that_does_not_fit_is_empty)
{
    char buffer[16] = "#";

    EXPECT_EQ(0, oxni_log_dir(buffer, 16));   /* none is set */
    oxnih_set_install_dir("C:/abcdef/ghijk"); /* 15 characters */
    oxnih_set_log_dir("C:/abcdef/ghijk/");
    oxnih_set_process_path("C:/abcdef/ghijk");
    EXPECT_EQ(0, oxni_dirutils_path_transform("@", buffer, 16));
    EXPECT_EQ(-1, oxni_dirutils_path_transform("@", buffer, 15));
    EXPECT_STREQ("", buffer);
    EXPECT_NE(0, oxni_log_dir(buffer, 16));
    EXPECT_STREQ("C:/abcdef/ghijk", buffer);
    EXPECT_EQ(0, oxni_log_dir(buffer, 15));
    EXPECT_EQ(-1, oxni_process_path(buffer, 15));
    EXPECT_STREQ("", buffer);
}

TEST_F(paths, directory_and_basename)
{
    const struct {
        const char *path, *directory, *name;
    } rows[] = {
        {"C:\\a\\b/c", "C:\\a\\b", "c"},
        {"C:/a/",      "C:/a",     "" },
        {"b",          "",         "b"},
    };
    char buffer[260];

    for (const auto &row : rows) {
        EXPECT_EQ(0, oxni_path_directory(row.path, buffer, sizeof(buffer)));
        EXPECT_STREQ(row.directory, buffer) << row.path;
        EXPECT_STREQ(row.name, oxni_path_basename(row.path));
    }
    /* "@" is this program's directory by default. */
    EXPECT_EQ(0, oxni_dirutils_path_transform("@/platform_tests.exe", buffer, sizeof(buffer)));
    EXPECT_NE(0, oxni_path_is_exist_u(buffer)) << buffer;
}

TEST_F(paths, directories_and_files)
{
    std::string deep = path("\xe6\x97\xa5/b/c/"), file = path("\xe6\x97\xa5/b/\xc3\xa4.txt");

    EXPECT_EQ(0, oxni_dirutils_mkdir(deep.c_str(), 0775));
    EXPECT_NE(0, oxni_path_is_exist_u(deep.c_str()));
    EXPECT_EQ(0, oxni_dirutils_mkdir(deep.c_str(), 0775)); /* already exists */
    file_write(file, "text");
    EXPECT_EQ(-1, oxni_dirutils_mkdir(file.c_str(), 0775)); /* exists as a file */
    EXPECT_EQ(-1, oxni_dirutils_mkdir((file + "/x").c_str(), 0775));
    EXPECT_EQ(0, oxni_file_flush(file.c_str()));
    HANDLE held = CreateFileW(std::filesystem::u8path(file).c_str(), GENERIC_WRITE, 0, nullptr,
                              OPEN_EXISTING, 0, nullptr);
    EXPECT_EQ(ERROR_SHARING_VIOLATION, oxni_file_flush(file.c_str()));
    CloseHandle(held);
    EXPECT_EQ(0, oxni_path_del_file_u(file.c_str()));
    EXPECT_EQ(ERROR_FILE_NOT_FOUND, oxni_path_del_file_u(file.c_str()));
}
} // namespace
