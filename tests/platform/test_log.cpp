#include "platform_test.h"

#include <oxni/base/log.h>

namespace
{
using logs = platform_test;

TEST_F(logs, lines_of_any_length_are_complete)
{
    for (size_t length : {0U, 1019U, 1020U, 1021U, 3000000U}) {
        std::string text(length, 'x');
        oxni_log_output(OXNI_LOG_INFO, "<%s|%S>\n", text.c_str(), L"a");
        EXPECT_TRUE(logged("<" + text + "|a>\n")) << length;
    }
}

TEST_F(logs, wide_text_is_utf8_and_a_missing_line_feed_is_added)
{
    static const wchar_t path[] = L"C:\\\x65e5\x672c\xd83d\xde00.dmp";
    static const char utf8[] = "C:\\\xe6\x97\xa5\xe6\x9c\xac\xf0\x9f\x98\x80.dmp";

    const wchar_t *volatile none = nullptr;

    oxni_log_output(OXNI_LOG_INFO, "open %S failed %x %%%d.\n", path, 5U, -7);
    EXPECT_TRUE(logged(std::string("open ") + utf8 + " failed 5 %-7.\n"));
    oxni_log_output(OXNI_LOG_INFO, "[%ls] [%s] %I64d %.1f", path, utf8, 1LL << 40, 2.5);
    EXPECT_TRUE(logged(std::string("[") + utf8 + "] [" + utf8 + "] 1099511627776 2.5\n"));
    oxni_log_output(OXNI_LOG_INFO, "[%.4ls] [%.*ls] [%*d] [%-4S] [%S] [%C]\n", path, 3, L"abcd", 4,
                    5, L"x", none, L'\x65e5');
    EXPECT_TRUE(logged("[C:\\\xe6\x97\xa5] [abc] [   5] [x   ] [(null)] "
                       "[\xe6\x97\xa5]\n"));
    oxni_log_output(OXNI_LOG_INFO, "lone %S\n", L"\xd83d.");
    EXPECT_TRUE(logged("lone \xef\xbf\xbd.\n"));
}

TEST_F(logs, the_newest_files_are_kept)
{
    for (int limit : {0, 3, 10}) {
        std::string folder = path(std::to_string(limit) + "/logs"), kept;
        std::filesystem::create_directories(folder);
        std::ofstream(folder + "/1-notes.log") << "N"; /* not a file of the log */
        for (int start = 0; start < 7; start++) {      /* one hour apart */
            EXPECT_EQ(0, oxni_autolog_init((folder + "/").c_str(), limit));
            EXPECT_EQ(0, oxni_autolog_init(nullptr, limit)); /* already open */
            oxni_log_output(OXNI_LOG_DEBUG, "%d", start);    /* the caller filters by level */
            oxnih_log_close();
            oxni_sleep(3600);
        }
        for (const auto &file : std::filesystem::directory_iterator(folder))
            kept += file_bytes(file.path().u8string());
        kept.erase(std::remove(kept.begin(), kept.end(), '\n'), kept.end());
        std::sort(kept.begin(), kept.end());
        EXPECT_EQ(limit == 0 ? "6N" : limit == 3 ? "456N" : "0123456N", kept) << limit;
    }
}
} // namespace
