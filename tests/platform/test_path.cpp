#include "platform_test.h"

#include <oxni/base/path.h>

namespace
{
class paths : public platform_test
{
  protected:
    void TearDown() override
    {
        oxnih_set_install_dir(NULL);
        oxnih_set_process_path(NULL);
        platform_test::TearDown();
    }
};

TEST_F(paths, transform)
{
    const struct {
        const char *path;
        const char *resolved; /* NULL: refused */
    } rows[] = {
        {"@",                       "C:/run/agent"                      },
        {"@/",                      "C:/run/agent/"                     },
        {"@\\x\\y",                 "C:/run/agent/x/y"                  },
        {"@/../var/bypass_mgr/",    "C:/run/var/bypass_mgr/"            },
        {"@/../var/./a/../b",       "C:/run/var/b"                      },
        {"@/../../../../x",         "C:/x"                              }, /* not above the drive */
        {"@//a///b//",              "C:/run/agent/a/b/"                 },
        {"C:\\a\\..\\b\\",          "C:/b/"                             },
        {"@\xe6\x97\xa5",           NULL                                }, /* a name; relative to the folder */
        {"@/\xe6\x97\xa5/\xc3\xa4", "C:/run/agent/\xe6\x97\xa5/\xc3\xa4"},
        {"@/\xff",                  NULL                                },
        {"",                        NULL                                },
    };
    char buffer[260] = "#";

    oxnih_set_install_dir("C:\\run\\agent\\");
    for (const auto &row : rows) {
        int result = oxni_dirutils_path_transform(row.path, buffer, sizeof(buffer));
        if (row.path[0] == '@' && row.path[1] == '\xe6') {
            EXPECT_EQ(0, result);
            EXPECT_STREQ("@\xe6\x97\xa5", oxni_path_basename(buffer));
            continue;
        }
        EXPECT_EQ(row.resolved == NULL ? -1 : 0, result) << row.path;
        EXPECT_STREQ(row.resolved == NULL ? "" : row.resolved, buffer) << row.path;
    }
    EXPECT_EQ(-1, oxni_dirutils_path_transform(NULL, buffer, sizeof(buffer)));
    EXPECT_EQ(-1, oxni_dirutils_path_transform("@", NULL, 5));
}

TEST_F(paths, a_result_that_does_not_fit_is_empty)
{
    char buffer[16] = "#";

    oxnih_set_install_dir("C:/abcdef/ghijk"); /* 15 characters */
    EXPECT_EQ(0, oxni_dirutils_path_transform("@", buffer, 16));
    EXPECT_EQ(-1, oxni_dirutils_path_transform("@", buffer, 15));
    EXPECT_STREQ("", buffer);
    oxnih_set_process_path("C:/abcdef/ghijk.exe");
    EXPECT_EQ(-1, oxni_process_path(buffer, 16));
    EXPECT_STREQ("", buffer);
    EXPECT_EQ(0, oxni_process_name(buffer, 10));
    EXPECT_STREQ("ghijk.exe", buffer);
    EXPECT_EQ(-1, oxni_process_name(buffer, 9));
    EXPECT_EQ(-1, oxni_path_directory("C:/x/y", buffer, 4));
    EXPECT_STREQ("", buffer);
}

TEST_F(paths, parts)
{
    const struct {
        const char *path, *directory, *name;
    } rows[] = {
        {"C:/a/b.txt", "C:/a",     "b.txt"},
        {"C:\\a\\b/c", "C:\\a\\b", "c"    },
        {"C:/a/",      "C:/a",     ""     },
        {"b.txt",      "",         "b.txt"},
        {"/b",         "",         "b"    },
        {"",           "",         ""     }
    };
    char buffer[64];

    for (const auto &row : rows) {
        EXPECT_EQ(0, oxni_path_directory(row.path, buffer, sizeof(buffer)));
        EXPECT_STREQ(row.directory, buffer) << row.path;
        EXPECT_STREQ(row.name, oxni_path_basename(row.path));
    }
    EXPECT_EQ(nullptr, oxni_path_basename(NULL));
    EXPECT_EQ(-1, oxni_path_directory(NULL, buffer, sizeof(buffer)));
}

TEST_F(paths, the_process_is_this_one_by_default)
{
    char buffer[260];

    EXPECT_EQ(0, oxni_process_name(buffer, sizeof(buffer)));
    EXPECT_STREQ("platform_tests.exe", buffer);
    EXPECT_EQ(0, oxni_process_path(buffer, sizeof(buffer)));
    EXPECT_TRUE(oxni_path_is_exist_u(buffer)) << buffer;
    std::string folder = buffer;
    folder.resize(folder.find_last_of("/\\"));
    for (char &c : folder)
        c = c == '\\' ? '/' : c;
    EXPECT_EQ(0, oxni_dirutils_path_transform("@", buffer, sizeof(buffer)));
    EXPECT_EQ(folder, buffer);
}

TEST_F(paths, folders_and_files)
{
    std::string deep = path("\xe6\x97\xa5/b/c/"), file = path("\xe6\x97\xa5/b/\xc3\xa4.txt");

    EXPECT_EQ(0, oxni_path_is_exist_u(deep.c_str()));
    EXPECT_EQ(0, oxni_dirutils_mkdir(deep.c_str(), 0775));
    EXPECT_NE(0, oxni_path_is_exist_u(deep.c_str()));
    EXPECT_EQ(0, oxni_dirutils_mkdir(deep.c_str(), 0775)); /* there already */
    file_write(file, "text");
    EXPECT_NE(0, oxni_path_is_exist_u(file.c_str()));
    EXPECT_EQ(-1, oxni_dirutils_mkdir(file.c_str(), 0775)); /* a file is in the way */
    EXPECT_EQ(-1, oxni_dirutils_mkdir((file + "/x").c_str(), 0775));
    EXPECT_EQ(-1, oxni_dirutils_mkdir(NULL, 0775));
    EXPECT_EQ(0, oxni_file_flush(file.c_str()));
    EXPECT_EQ(0, oxni_path_del_file_u(file.c_str()));
    EXPECT_EQ(ERROR_FILE_NOT_FOUND, oxni_path_del_file_u(file.c_str()));
    EXPECT_EQ(ERROR_FILE_NOT_FOUND, oxni_file_flush(file.c_str()));
    EXPECT_EQ(ERROR_PATH_NOT_FOUND, oxni_path_del_file_u(path("none/x").c_str()));
    EXPECT_EQ(ERROR_INVALID_NAME, oxni_path_del_file_u("\xff"));
    EXPECT_EQ(ERROR_INVALID_PARAMETER, oxni_path_del_file_u(NULL));
    EXPECT_EQ(0, oxni_path_is_exist_u(NULL));
    EXPECT_EQ(nullptr, oxni_file_open_w(NULL, L"rb"));
    EXPECT_EQ(nullptr, oxni_file_open_w(L"C:/none/none", L"rb"));
}

TEST_F(paths, a_file_held_exclusively_cannot_be_flushed)
{
    std::string file = path("held");

    file_write(file, "text");
    HANDLE held = CreateFileA(file.c_str(), GENERIC_WRITE, 0, NULL, OPEN_EXISTING, 0, NULL);
    EXPECT_EQ(ERROR_SHARING_VIOLATION, oxni_file_flush(file.c_str()));
    CloseHandle(held);
}
} // namespace
