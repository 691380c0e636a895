/* Which lines are written at which level, what they look like, and where the log goes. */
#include "bypass_log.h"

#include "unit_support.h"

#include <gtest/gtest.h>

#include "liboxnibase/host.h"

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
