#include "platform_test.h"

#include <oxni/base/log.h>

namespace
{
using logs = platform_test;

TEST_F(logs, a_line_of_any_length_survives)
{
    for (size_t length : {0U, 1019U, 1020U, 1021U, 3000000U}) {
        std::string text(length, 'x');
        oxni_log_output(OXNI_LOG_INFO, "<%s|%S>\n", text.c_str(), L"a");
        EXPECT_TRUE(logged("<" + text + "|a>\n")) << length;
    }
    /* A wide character without a place in the code page ends the line, not the run. */
    oxni_log_output(OXNI_LOG_INFO, "before %S after\n", L"a\x65e5");
    EXPECT_TRUE(logged("before "));
}

TEST_F(logs, the_newest_files_are_kept)
{
    for (int limit : {0, 3, 10}) {
        std::string folder = path(std::to_string(limit) + "/logs"), kept;
        std::filesystem::create_directories(folder);
        std::ofstream(folder + "/1-notes.log") << "N"; /* somebody else's */
        for (int start = 0; start < 7; start++) {      /* an hour apart */
            EXPECT_EQ(0, oxni_autolog_init((folder + "/").c_str(), limit));
            EXPECT_EQ(0, oxni_autolog_init(NULL, limit)); /* open already */
            oxni_log_output(OXNI_LOG_DEBUG, "%d", start); /* the caller has asked for the level */
            oxnih_log_close();
            oxni_sleep(3600);
        }
        for (const auto &file : std::filesystem::directory_iterator(folder))
            kept += file_bytes(file.path().u8string());
        std::sort(kept.begin(), kept.end());
        EXPECT_EQ(limit == 0 ? "6N" : limit == 3 ? "456N" : "0123456N", kept) << limit;
    }
}
} // namespace
