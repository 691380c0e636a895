/* The state of a service, where scenarios do not reach: waits for the end of a change. */
#include "service_state.h"

#include "unit_support.h"

#include <algorithm>

#include <gtest/gtest.h>

/* Results of the queries of a service, the last one repeated; 0 is a query that fails. */
static std::vector<DWORD> s_states;
static size_t s_queries;
static unsigned s_slept; /* seconds */
static int s_handles;    /* that were not closed */

static SC_HANDLE WINAPI open_manager(const wchar_t *, const wchar_t *, DWORD)
{
    s_handles++;
    return reinterpret_cast<SC_HANDLE>(&s_states);
}

static SC_HANDLE WINAPI open_service(SC_HANDLE manager, const wchar_t *, DWORD)
{
    s_handles++;
    return manager;
}

static BOOL WINAPI query_service(SC_HANDLE, SERVICE_STATUS *status)
{
    status->dwCurrentState = s_states[std::min(s_queries++, s_states.size() - 1)];
    return status->dwCurrentState != 0;
}

static BOOL WINAPI close_service(SC_HANDLE)
{
    s_handles--;
    return TRUE;
}

static void note_sleep(unsigned seconds)
{
    s_slept += seconds;
}

TEST(test_is_service_stopped, waits)
{
    static const DWORD stopped = SERVICE_STOPPED, stopping = SERVICE_STOP_PENDING,
                       starting = SERVICE_START_PENDING;
    /* clang-format off */
    static const struct {
        std::vector<DWORD> states;
        int32_t wait_count;
        bool result;
        unsigned slept;
    } s_rows[] = {
        {{SERVICE_PAUSE_PENDING, stopped}, 9, false, 0}, /* no change to wait for */
        {{stopping, stopped}, 2, true, 1},
        {{starting}, 4, false, 3},
        {{starting, SERVICE_RUNNING}, 4, false, 1},
        {{stopping, 0}, 3, true, 1},
        {{stopping}, INT32_MIN, false, 0},
    };
    /* clang-format on */
    import_patch manager("OpenSCManagerW", open_manager), open("OpenServiceW", open_service);
    import_patch query("QueryServiceStatus", query_service);
    import_patch close("CloseServiceHandle", close_service), sleep("oxni_sleep", note_sleep);

    for (const auto &row : s_rows) {
        s_states = row.states;
        s_queries = s_slept = 0;
        EXPECT_EQ(is_service_stopped(row.wait_count, L"drv"), row.result) << &row - s_rows;
        EXPECT_EQ(s_slept, row.slept) << &row - s_rows;
        EXPECT_EQ(s_handles, 0) << &row - s_rows;
    }
}
