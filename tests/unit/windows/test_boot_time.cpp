/* The System process as the boot moment, where scenarios do not reach: no list of processes, no place
 * for the result, no date. */
#include "boot_time.h"

#include "time_text.h"
#include "unit_support.h"

#include <gtest/gtest.h>

static HANDLE WINAPI no_snapshot(DWORD, DWORD)
{
    SetLastError(ERROR_ACCESS_DENIED);
    return nullptr;
}

TEST(test_find_system_process_id, no_snapshot)
{
    import_patch snapshot("CreateToolhelp32Snapshot", no_snapshot);
    uint32_t id;

    log_forget();
    EXPECT_EQ(find_system_process_id(&id), 5u);
    EXPECT_TRUE(log_contains("Snapshot failed 5. "));
    EXPECT_EQ(find_system_process_id(nullptr), 87u);
    EXPECT_EQ(get_system_process_start_time(nullptr), 87u);
}

/* Text of a moment that no calendar of Windows has. */
TEST(test_time_text_local, no_date)
{
    char text[TIME_TEXT_CHARS];

    time_text_local(INT64_MAX, text, sizeof(text));
    EXPECT_STREQ(text, "1970-01-01 00:00:00");
}
