/* The System process as the boot moment: which entry of a snapshot it is, and its time. */
#include "boot_time.h"

#include "time_text.h"
#include "unit_support.h"

#include <tlhelp32.h>

#include <gtest/gtest.h>

static uint32_t s_parent;  /* of the first process of any list, which has the id 8 */
static uint32_t s_opened;  /* id of the process */
static uint64_t s_created; /* creation time of every process */
static int s_handles;      /* open snapshots and processes */

static BOOL WINAPI first_process(HANDLE, PROCESSENTRY32W *entry)
{
    entry->th32ProcessID = 8;
    entry->th32ParentProcessID = s_parent;
    wcscpy(entry->szExeFile, L"SYSTEM");
    return TRUE;
}

/* There is one more of the name. */
static BOOL WINAPI next_process(HANDLE, PROCESSENTRY32W *entry)
{
    entry->th32ProcessID++;
    return entry->dwSize == 568 && entry->th32ProcessID < 10;
}

static HANDLE WINAPI take_snapshot(DWORD, DWORD)
{
    s_handles++;
    return &s_handles;
}

static HANDLE WINAPI open_process(DWORD, BOOL, DWORD id)
{
    s_opened = id;
    return take_snapshot(0, 0);
}

static BOOL WINAPI close_handle(HANDLE)
{
    s_handles--;
    return TRUE;
}

static BOOL WINAPI process_times(HANDLE, FILETIME *created, FILETIME *, FILETIME *, FILETIME *)
{
    *created = {static_cast<DWORD>(s_created), static_cast<DWORD>(s_created >> 32)};
    return TRUE;
}

static HANDLE WINAPI no_snapshot(DWORD, DWORD)
{
    SetLastError(ERROR_ACCESS_DENIED);
    return nullptr;
}

class process_patches
{
    import_patch first_{"Process32FirstW", first_process}, next_{"Process32NextW", next_process};
    import_patch snapshot_{"CreateToolhelp32Snapshot", take_snapshot};
    import_patch open_{"OpenProcess", open_process}, close_{"CloseHandle", close_handle};
    import_patch times_{"GetProcessTimes", process_times};
};

/* What cannot be found has the usual id, and its time is written all the same. */
TEST(test_get_system_process_start_time, found_and_not)
{
    static const struct {
        uint32_t parent;
        uint64_t created;
        uint32_t result, opened;
    } s_rows[] = {
        {0, 5000, 0,    8},
        {1, 5000, 1168, 4},
        {1, 0,    50,   4},
    };
    process_patches patches;

    for (const auto &row : s_rows) {
        boot_time_filetime time = 77;
        s_parent = row.parent;
        s_created = row.created;
        EXPECT_EQ(get_system_process_start_time(&time), row.result);
        EXPECT_EQ(time, row.created);
        EXPECT_EQ(s_opened, row.opened);
        EXPECT_EQ(s_handles, 0);
    }
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

/* A time is taken as a signed number and cut toward zero. */
TEST(test_get_bootup_time, conversions)
{
    static const struct {
        uint64_t filetime;
        int64_t seconds;
    } s_rows[] = {
        {116444735999999999, -1          },
        {UINT64_MAX,         -11644473600},
    };
    process_patches patches;

    s_parent = 0;
    for (const auto &row : s_rows) {
        s_created = row.filetime;
        EXPECT_EQ(static_cast<int64_t>(get_bootup_time()), row.seconds);
    }
}

/* Text of a moment that no calendar of Windows has. */
TEST(test_time_text_local, no_date)
{
    char text[TIME_TEXT_CHARS];

    time_text_local(INT64_MAX, text, sizeof(text));
    EXPECT_STREQ(text, "1970-01-01 00:00:00");
}
