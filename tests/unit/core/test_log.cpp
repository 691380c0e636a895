/* Which lines are written at which level, what they look like, and where the log goes. */
#include "bypass_log.h"

#include "json_text.h"
#include "proc_address.h"
#include "unit_support.h"

#include <regex>

#include <gtest/gtest.h>

#include "liboxnibase/host.h"

static int s_level;
static int s_dumps; /* JSON values made a text */
static int s_times; /* moments made a text */

static int present_level(void)
{
    return s_level;
}

static char *count_dump(const json_t *, size_t)
{
    s_dumps++;
    return nullptr;
}

static int count_time(int64_t, struct tm *)
{
    s_times++;
    return -1;
}

/* Nothing is made a text for a level that is off. */
TEST(test_log, levels)
{
    import_patch level("oxni_log_level_get", present_level), dump("wdu_json_dumps", count_dump),
        time("oxni_time_stamp_to_local", count_time);
    json_t *json = json_object();

    for (s_level = -1; s_level <= OXNI_LOG_DEBUG + 1; s_level++) {
        SCOPED_TRACE(s_level);
        s_dumps = s_times = 0;
        log_forget();
        LOG_ERROR("e%d", 1);
        LOG_WARN("w%d", 1);
        LOG_INFO("i%d", 1);
        LOG_DEBUG("d%d", 1);
        LOG_INFO_JSON(json);
        LOG_DEBUG_JSON(json);
        EXPECT_EQ(log_contains("] e1\n"), s_level >= 0);
        EXPECT_EQ(log_contains("] w1\n"), s_level >= 1);
        EXPECT_EQ(log_contains("] i1\n"), s_level >= 2);
        EXPECT_EQ(log_contains("] d1\n"), s_level >= 3);
        EXPECT_EQ(s_times, std::clamp(s_level + 1, 0, 4));
        EXPECT_EQ(s_dumps, std::clamp(s_level - 1, 0, 2));
    }
    json_decref(json);
}

static int s_line_level;
static std::string s_line;

static void keep_line(int level, const char *line, void *)
{
    s_line_level = level;
    s_line = line;
}

TEST(test_log, form_of_a_line)
{
    static const char *const s_words[] = {"error", "warn", "info", "debug"};
    const std::string numbers = " \\[pid:" + std::to_string(GetCurrentProcessId()) +
                                "\\] \\[tid:" + std::to_string(GetCurrentThreadId()) +
                                "\\] \\[vkl\\] ";

    for (int level = OXNI_LOG_ERROR; level <= OXNI_LOG_DEBUG; level++) {
        const log_sink sink(keep_line);
        switch (level) {
        case OXNI_LOG_ERROR: LOG_ERROR("%s", "text"); break;
        case OXNI_LOG_WARN: LOG_WARN("%s", "text"); break;
        case OXNI_LOG_INFO: LOG_INFO("%s", "text"); break;
        default: LOG_DEBUG("%s", "text"); break;
        }
        EXPECT_EQ(s_line_level, level);
        EXPECT_TRUE(std::regex_match(
            s_line, std::regex("\\[\\d{4}-\\d\\d-\\d\\d \\d\\d:\\d\\d:\\d\\d\\] \\[" +
                               std::string(s_words[level]) + "\\]" + numbers +
                               "\\[test_log\\.cpp:\\d+\\] text\\n")))
            << s_line;
    }
}

static int s_registered;
static std::string s_folder; /* of the log that was opened; empty: none was */
static int s_files;

static int is_registered(void)
{
    return s_registered;
}

static int open_log(const char *folder, int files)
{
    s_folder = folder;
    s_files = files;
    return 0;
}

TEST(test_log, where_it_goes)
{
    static const struct {
        const char *base; /* NULL: there is none */
        int registered;
        bool ready;
        const char *folder;
    } s_rows[] = {
        {"C:\\base", 0, false, "C:\\base//Quorvel/OXNI3_LOG/oxni_default_autolog//agent.exe/"},
        {nullptr,    0, false, "@/../var/logs/oxni_default_autolog//agent.exe/"              },
        {"C:\\base", 1, false, ""                                                            },
        {"C:\\base", 0, true,  ""                                                            },
    };
    import_patch registered("oxni_log_is_regestered", is_registered),
        open("oxni_autolog_init", open_log);

    oxnih_set_process_path("C:\\bin\\agent.exe");
    for (const auto &row : s_rows) {
        SCOPED_TRACE(&row - s_rows);
        bool ready = row.ready;
        oxnih_set_log_dir(row.base);
        s_registered = row.registered;
        s_folder = "";
        s_files = 0;
        bypass_log_open(&ready);
        EXPECT_TRUE(ready);
        EXPECT_EQ(s_folder, row.folder);
        EXPECT_EQ(s_files, row.folder[0] != '\0' ? 5 : 0);
    }
    oxnih_set_process_path(nullptr);
    oxnih_set_log_dir(nullptr);
}
