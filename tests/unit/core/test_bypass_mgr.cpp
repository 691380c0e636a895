/* The core where no scenario reaches: given texts, paths that do not fit, the allocation guard. */
#include <fstream>
#include <utility>

#include <gtest/gtest.h>

#include "bypass_mgr_debug.h"
#include "bypass_mgr_schema.h"
#include "core_patches.h"
#include "liboxnibase/host.h"
#include "platform_path.h"
#include "report_link.h"
#include "unit_support.h"

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

/* The platform's base folder has a path of that many characters while it lives. */
class base_folder
{
  public:
    explicit base_folder(size_t chars)
    {
        oxnih_set_log_dir(("C:" + std::string(chars - 2, 'x')).c_str());
    }

    ~base_folder()
    {
        oxnih_set_log_dir("");
    }
};

TEST(platform_path, one_that_does_not_fit_is_a_missing_base_folder)
{
    static const struct path_row {
        const char *name;
        size_t base_chars, suffix_chars, size;
        bool fits;
    } rows[] = {
        {"the last that fits",              200, 59, 260, true },
        {"one character more",              200, 60, 260, false},
        {"a smaller buffer, just filled",   20,  10, 31,  true },
        {"a smaller buffer",                20,  10, 30,  false},
        {"a base folder that fills it all", 259, 1,  260, false},
        {"a base folder that is too long",  260, 1,  300, false},
    };

    for (const path_row &row : rows) {
        const base_folder base(row.base_chars);
        const std::string suffix(row.suffix_chars, '/');
        char path[300] = "untouched";

        log_forget();
        EXPECT_EQ(row.fits, platform_path_config(suffix.c_str(), path, row.size)) << row.name;
        EXPECT_EQ(row.fits ? row.base_chars + row.suffix_chars : 0, strlen(path)) << row.name;
        EXPECT_EQ(!row.fits, log_contains("get log dir is error")) << row.name;
    }
}

static int s_failing; /* the nth allocation fails */
static std::pair<std::string, int> s_fatal;

struct process_end {
};

static void *failing_malloc(size_t size)
{
    return --s_failing == 0 ? nullptr : calloc(1, size);
}

static char *failing_strdup(const char *)
{
    return nullptr;
}

static void end_process(const char *file, int line)
{
    s_fatal = {file, line};
    throw process_end();
}

TEST(report_link, the_guard_names_the_allocation_that_failed)
{
    const core_patches patches;
    const import_patch end("oxni_out_of_memory_", end_process);
    int record_line, name_line;

    report_link_create();
    report_link_watch();
    s_core.link("path", 1);
    {
        const import_patch malloc("oxni_zero_malloc_", failing_malloc);
        s_failing = 1;
        EXPECT_THROW(s_core.answer(0, R"({"total": 1, "info": [{"product": "a"}]})"), process_end);
        EXPECT_EQ("report_link.cpp", s_fatal.first);
        record_line = s_fatal.second;
    }
    {
        const import_patch strdup("oxni_strdup", failing_strdup);
        EXPECT_THROW(s_core.answer(0, R"({"total": 1, "info": [{"product": "a"}]})"), process_end);
        name_line = s_fatal.second;
    }
    EXPECT_EQ(record_line + 2, name_line); /* the record, then its first text */
    s_core.link("path", 0);
}
