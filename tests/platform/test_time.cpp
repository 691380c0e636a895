#include "platform_test.h"

namespace
{
/* clang-format off */
/* Bias in minutes; end and start of daylight saving time: month, day of week, week (5: last),
 * hour. */
const TIME_ZONE_INFORMATION
    UTC = {},
    NEPAL = {-345, L"", {}, 0, L"", {}, 0},
    BERLIN = {-60, L"", {0, 10, 0, 5, 3, 0, 0, 0}, 0, L"", {0, 3, 0, 5, 2, 0, 0, 0}, -60},
    NEW_YORK = {300, L"", {0, 11, 0, 1, 2, 0, 0, 0}, 0, L"", {0, 3, 0, 2, 2, 0, 0, 0}, -60},
    SYDNEY = {-600, L"", {0, 4, 0, 1, 3, 0, 0, 0}, 0, L"", {0, 10, 0, 1, 2, 0, 0, 0}, -60};
/* clang-format on */

constexpr int64_t WINTER = 1768478400, SUMMER = 1784116800; /* of 2026, both at 12:00 UTC */
constexpr int64_t SPRING = 1774746000, AUTUMN = 1792890000; /* clock changes in Berlin */

using times = platform_test;

TEST_F(times, local_time_uses_the_rules_of_the_date)
{
    const struct {
        const TIME_ZONE_INFORMATION *where;
        int64_t seconds;
        const char *local; /* with day of week, day of year and daylight saving flag */
    } rows[] = {
        {&NEW_YORK, -1,           "1969-12-31 18:59:59 3 364 0"},
        {&UTC,      -11644473600, "1601-01-01 00:00:00 1 0 0"  },
        {&UTC,      951782400,    "2000-02-29 00:00:00 2 59 0" },
        {&BERLIN,   SPRING - 1,   "2026-03-29 01:59:59 0 87 0" },
        {&BERLIN,   SPRING,       "2026-03-29 03:00:00 0 87 1" },
        {&BERLIN,   AUTUMN - 1,   "2026-10-25 02:59:59 0 297 1"},
        {&BERLIN,   AUTUMN,       "2026-10-25 02:00:00 0 297 0"},
        {&SYDNEY,   WINTER,       "2026-01-15 23:00:00 4 14 1" },
        {&NEPAL,    SUMMER,       "2026-07-15 17:45:00 3 195 0"},
    };

    for (const auto &row : rows) {
        struct tm tm;
        char text[64];
        oxnih_clock_set_zone(row.where);
        EXPECT_EQ(0, oxni_time_stamp_to_local(row.seconds, &tm)) << row.local;
        snprintf(text, sizeof(text), "%04d-%02d-%02d %02d:%02d:%02d %d %d %d", tm.tm_year + 1900,
                 tm.tm_mon + 1, tm.tm_mday, tm.tm_hour, tm.tm_min, tm.tm_sec, tm.tm_wday,
                 tm.tm_yday, tm.tm_isdst);
        EXPECT_STREQ(row.local, text);
    }
}

/* A local file time has the current bias. Converting it back gives the same time in every zone. */
TEST_F(times, local_file_times)
{
    const struct {
        const TIME_ZONE_INFORMATION *where;
        int64_t now;
        int64_t minutes; /* local minus UTC */
    } rows[] = {
        {&BERLIN,   WINTER,     60  },
        {&BERLIN,   AUTUMN - 1, 120 },
        {&NEW_YORK, WINTER,     -300},
        {&SYDNEY,   WINTER,     660 },
        {&NEPAL,    SUMMER,     345 },
    };

    for (const auto &row : rows)
        for (int64_t moment : {INT64_C(0), INT64_C(-1), WINTER, SUMMER, SPRING, AUTUMN - 1}) {
            FILETIME local, utc;
            oxnih_clock_set_zone(row.where);
            oxnih_clock_simulate(to_100ns(row.now), 0);
            oxni_timet_to_filetime(moment, &local);
            EXPECT_EQ(moment + row.minutes * 60, oxni_filetime_to_timet(&local)) << row.minutes;
            ASSERT_TRUE(oxnih_local_to_filetime(&local, &utc));
            EXPECT_EQ(moment, oxni_filetime_to_timet(&utc)) << row.minutes;
        }
}

TEST_F(times, file_times_are_rounded_toward_the_past)
{
    for (int64_t second : {INT64_C(0), INT64_C(-1), INT64_C(-11644473600), WINTER})
        for (uint32_t part : {0U, 1U, 9999999U}) {
            uint64_t utc = to_100ns(second) + part;
            FILETIME time = {static_cast<DWORD>(utc), static_cast<DWORD>(utc >> 32)};
            EXPECT_EQ(second, oxni_filetime_to_timet(&time)) << part;
        }
}

TEST_F(times, times_out_of_range_are_rejected)
{
    FILETIME first = {0, 0}, last = {0xffffffff, 0x7fffffff}, beyond = {0, 0x80000000}, out;
    struct tm tm;

    oxnih_clock_set_zone(&NEW_YORK);
    EXPECT_FALSE(oxnih_filetime_to_local(&first, &out));
    EXPECT_EQ(static_cast<DWORD>(ERROR_INVALID_PARAMETER), GetLastError());
    EXPECT_FALSE(oxnih_local_to_filetime(&last, &out));
    EXPECT_FALSE(oxnih_filetime_to_local(&beyond, &out));
    oxnih_clock_set_zone(&UTC);
    EXPECT_EQ(0, oxni_time_stamp_to_local(910692730085, &tm));
    for (int64_t seconds : {INT64_C(-11644473601), INT64_C(910692730086), INT64_MIN, INT64_MAX}) {
        EXPECT_EQ(-1, oxni_time_stamp_to_local(seconds, &tm)) << seconds;
        oxni_timet_to_filetime(seconds, &out);
        EXPECT_EQ(0U, out.dwLowDateTime | out.dwHighDateTime) << seconds;
    }
}

TEST_F(times, setting_the_wall_clock_keeps_the_ticks)
{
    oxnih_clock_set_wall(to_100ns(WINTER));
    EXPECT_EQ(WINTER, oxni_time());
    EXPECT_EQ(1000U, oxni_time_get_tick_cout());
}
} // namespace
