#include "platform_test.h"

#include <oxni/base/log.h>
#include <oxni/base/time.h>

namespace
{
class logs : public platform_test
{
  protected:
    void TearDown() override
    {
        oxnih_set_log_dir(NULL);
        oxnih_log_set_level(OXNI_LOG_INFO);
        platform_test::TearDown();
    }
    static std::vector<std::string> files(const std::string &folder)
    {
        std::vector<std::string> names;
        WIN32_FIND_DATAA found;
        HANDLE find = FindFirstFileA((folder + "/*").c_str(), &found);
        if (find == INVALID_HANDLE_VALUE)
            return names;
        do
            if ((found.dwFileAttributes & FILE_ATTRIBUTE_DIRECTORY) == 0)
                names.push_back(found.cFileName);
        while (FindNextFileA(find, &found));
        FindClose(find);
        std::sort(names.begin(), names.end());
        return names;
    }
};

TEST_F(logs, a_line_of_any_length_survives)
{
    for (size_t length : {0U, 1U, 1022U, 1023U, 1024U, 1025U, 5000U, 3000000U}) {
        std::string text(length, 'x');
        oxni_log_output(OXNI_LOG_INFO, "%u:%s|%S|%I64d\n", static_cast<unsigned>(length),
                        text.c_str(), L"wide", INT64_C(-5000000000));
        EXPECT_EQ(std::to_string(length) + ":" + text + "|wide|-5000000000\n",
                  logged(std::to_string(length) + ":"));
    }
}

TEST_F(logs, a_wide_character_without_a_place_ends_the_line_not_the_run)
{
    oxni_log_output(OXNI_LOG_INFO, "before %S after\n", L"a\x65e5");
    EXPECT_EQ(0U, logged("before").find("before "));
}

TEST_F(logs, lines_go_to_a_file_of_the_folder)
{
    std::string folder = path("logs/deep");

    EXPECT_EQ(0, oxni_log_is_regestered());
    oxni_log_output(OXNI_LOG_INFO, "too early\n");
    EXPECT_EQ(0, oxni_autolog_init((folder + "/").c_str(), 5));
    EXPECT_NE(0, oxni_log_is_regestered());
    EXPECT_EQ(0, oxni_autolog_init(path("other").c_str(), 5)); /* open already */
    oxni_log_output(OXNI_LOG_WARN, "a %d\n", 1);
    oxni_log_output(OXNI_LOG_DEBUG, "b\n"); /* the caller has asked for the level */
    ASSERT_EQ(1U, files(folder).size());
    EXPECT_EQ("a 1\nb\n", file_bytes(folder + "/" + files(folder)[0]));
    EXPECT_EQ(0U, files(path("other")).size());
    oxnih_log_close();
    EXPECT_EQ(0, oxni_log_is_regestered());
}

TEST_F(logs, the_newest_files_are_kept)
{
    const struct {
        int limit;
        const char *kept; /* the starts, an hour apart, whose files are left */
    } rows[] = {
        {3,  "456"    },
        {1,  "6"      },
        {0,  "6"      },
        {10, "0123456"}
    };

    for (const auto &row : rows) {
        std::string folder = path("logs" + std::to_string(row.limit)), kept;
        oxnih_clock_simulate(utc_100ns(2026, 3, 1, 12, 0, 0), 0);
        for (int start = 0; start < 7; start++) {
            EXPECT_EQ(0, oxni_autolog_init(folder.c_str(), row.limit));
            oxni_log_output(OXNI_LOG_INFO, "%d", start);
            oxnih_log_close();
            oxni_sleep(3600);
        }
        for (const std::string &name : files(folder))
            kept += file_bytes(folder + "/" + name);
        EXPECT_EQ(row.kept, kept) << row.limit;
    }
}

TEST_F(logs, a_folder_that_cannot_be_made_counts_as_open)
{
    file_write(path("file"), "");
    EXPECT_EQ(-1, oxni_autolog_init(path("file/logs").c_str(), 5));
    EXPECT_NE(0, oxni_log_is_regestered());
    oxni_log_output(OXNI_LOG_INFO, "to the sink\n");
    EXPECT_NE("", logged("to the sink"));
}

TEST_F(logs, folder_and_level)
{
    char buffer[8] = "#";

    EXPECT_EQ(0, oxni_log_dir(buffer, sizeof(buffer)));
    EXPECT_STREQ("", buffer);
    oxnih_set_log_dir("C:/logs/");
    EXPECT_NE(0, oxni_log_dir(buffer, 8));
    EXPECT_STREQ("C:/logs", buffer);
    EXPECT_EQ(0, oxni_log_dir(buffer, 7));
    EXPECT_STREQ("", buffer);
    EXPECT_EQ(OXNI_LOG_INFO, oxni_log_level_get());
    oxnih_log_set_level(OXNI_LOG_DEBUG);
    EXPECT_EQ(OXNI_LOG_DEBUG, oxni_log_level_get());
}
} // namespace
