/* The core where no scenario reaches: given texts, paths that do not fit, the allocation guard, timers
 * that cannot be armed. */
#include <fstream>

#include <gtest/gtest.h>

#include "bypass_mgr.h"
#include "bypass_mgr_debug.h"
#include "bypass_mgr_schema.h"
#include "core_patches.h"
#include "liboxnibase/host.h"
#include "platform_path.h"
#include "report_link.h"
#include "unit_support.h"
#include "watch_timer.h"

TEST(bypass_mgr, given_texts_byte_by_byte)
{
    std::ifstream file(UNIT_DATA "/registration_schema.txt", std::ios::binary);
    std::string schema(2000, '\0');

    file.read(schema.data(), 2000);
    schema.resize(static_cast<size_t>(file.gcount()));

    EXPECT_EQ(1112U, schema.size());
    EXPECT_EQ(schema, bypass_mgr_registration_schema);
    EXPECT_STREQ("details of onxi app bypass\n\t oxni bypass  -r: Restore all drivers\n\t oxni "
                 "bypass  -p: Output all drive statesn",
                 bypass_mgr_dbg_help);
}

/* The last path that fits, and one character more. */
TEST(platform_path, one_that_does_not_fit_is_a_missing_base_folder)
{
    const std::string base = "C:" + std::string(198, 'x'), suffix(59, '/');

    oxnih_set_log_dir(base.c_str());
    for (const size_t size : {260u, 259u}) {
        char path[260] = "untouched";
        log_forget();
        EXPECT_EQ(platform_path_config(suffix.c_str(), path, size), size == 260);
        EXPECT_EQ(path, size == 260 ? base + suffix : "");
        EXPECT_EQ(log_contains("get log dir is error"), size != 260);
    }
    oxnih_set_log_dir(nullptr);
}

struct process_end {
    std::string file;
    int line;
};

/* Where the guard ends the process when the stand-in of an allocation fails. */
static process_end answer_without_memory(const char *allocation)
{
    const import_patch failing(allocation);
    const import_patch end("oxni_out_of_memory_", [](const char *file, int line) {
        throw process_end{file, line};
    });

    try {
        s_core.answer(0, R"({"total": 1, "info": [{"product": "a"}]})");
    } catch (const process_end &where) {
        return where;
    }
    return {};
}

TEST(report_link, the_guard_names_the_allocation_that_failed)
{
    const core_patches patches;

    report_link_create();
    report_link_watch();
    s_core.link("path", -1); /* online: whatever differs from 0 */
    ASSERT_TRUE(s_core.answer != nullptr);
    const process_end record = answer_without_memory("oxni_zero_malloc_");
    EXPECT_EQ("report_link.cpp", record.file);
    /* The record, then its first text. */
    EXPECT_EQ(record.line + 2, answer_without_memory("oxni_strdup").line);
    s_core.link("path", 0);
}

template <int> static void timer_function(void *, void *)
{
}

/* All five timers of the plug-in wait for the next event, which the uptime timer is, too. */
TEST(watch_timer, missed_ones_are_armed_later)
{
    static const oxni_timer_fn s_functions[] = {timer_function<0>, timer_function<1>,
                                                timer_function<2>, timer_function<3>,
                                                timer_function<4>};
    const core_patches patches;
    uint64_t slots[5] = {};
    uint32_t milliseconds = 0;

    ASSERT_EQ(bypass_mgr_init(), 0);
    const oxni_timer_fn uptime = s_core.last_timer;
    {
        const import_patch start("oxni_timer_start");
        for (int missed = 0; missed < 4; missed++) /* one row is enough for it */
            watch_timer_start("missed", 1, s_functions[0], &slots[0]);
        for (uint64_t &slot : slots)
            watch_timer_start("missed", ++milliseconds, s_functions[&slot - slots], &slot);
    }
    core_calls();
    uptime(nullptr, nullptr);
    EXPECT_EQ(core_calls(), "timer 1; timer 2; timer 3; timer 4; timer 5; timer 3600000");
    watch_timer_resume();
    EXPECT_EQ(core_calls(), "");

    /* One that is missed again is logged again, and keeps no other from being armed. */
    {
        const import_patch start("oxni_timer_start");
        watch_timer_start("first", 1, s_functions[0], &slots[0]);
        watch_timer_start("second", 2, s_functions[1], &slots[1]);
    }
    log_forget();
    {
        const import_patch start("oxni_timer_start", [](uint32_t ms, oxni_timer_fn, void *) {
            return static_cast<uint64_t>(ms - 1);
        });
        watch_timer_resume();
    }
    EXPECT_TRUE(log_contains("timer of first cannot be armed"));
    EXPECT_FALSE(log_contains("timer of second cannot be armed"));
    watch_timer_resume();
    EXPECT_EQ(core_calls(), "timer 1");

    /* A slot that another timer has taken meanwhile ends the wait. */
    slots[0] = 0;
    {
        const import_patch start("oxni_timer_start");
        watch_timer_start_if_empty("missed", 6, s_functions[0], &slots[0]);
    }
    for (const uint64_t taken : {7u, 0u}) {
        slots[0] = taken;
        core_calls();
        watch_timer_resume();
        EXPECT_EQ(core_calls(), "");
    }
}
