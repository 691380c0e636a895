#include "platform_test.h"

#include <oxni/base/time.h>

namespace
{
struct zone_row {
    const char *name;
    TIME_ZONE_INFORMATION zone;
};

TIME_ZONE_INFORMATION zone_of(LONG bias, SYSTEMTIME standard, SYSTEMTIME daylight,
                              LONG daylight_bias)
{
    TIME_ZONE_INFORMATION zone = {};

    zone.Bias = bias;
    zone.StandardDate = standard;
    zone.DaylightDate = daylight;
    zone.DaylightBias = daylight_bias;
    return zone;
}

/* Month, week (5: last), hour; on a Sunday. */
SYSTEMTIME rule(WORD month, WORD week, WORD hour)
{
    SYSTEMTIME date = {};

    date.wMonth = month;
    date.wDay = week;
    date.wHour = hour;
    return date;
}

const SYSTEMTIME NEVER = {};
const zone_row UTC = {"UTC", zone_of(0, NEVER, NEVER, 0)};
const zone_row BERLIN = {"Berlin", zone_of(-60, rule(10, 5, 3), rule(3, 5, 2), -60)};
const zone_row NEW_YORK = {"New York", zone_of(300, rule(11, 1, 2), rule(3, 2, 2), -60)};
const zone_row SYDNEY = {"Sydney", zone_of(-600, rule(4, 1, 3), rule(10, 1, 2), -60)};
const zone_row NEPAL = {"Nepal", zone_of(-345, NEVER, NEVER, 0)};
const zone_row *const ZONES[] = {&UTC, &BERLIN, &NEW_YORK, &SYDNEY, &NEPAL};

class times : public platform_test
{
};

TEST_F(times, local_time_goes_by_the_date)
{
    const struct {
        const zone_row *zone;
        int64_t seconds;
        const char *local; /* with the day of the week, of the year, and daylight saving */
    } rows[] = {
        {&UTC,      0,            "1970-01-01 00:00:00 4 0 0"  },
        {&BERLIN,   0,            "1970-01-01 01:00:00 4 0 0"  },
        {&NEW_YORK, 0,            "1969-12-31 19:00:00 3 364 0"},
        {&UTC,      -1,           "1969-12-31 23:59:59 3 364 0"},
        {&UTC,      -11644473600, "1601-01-01 00:00:00 1 0 0"  },
        {&UTC,      951782400,    "2000-02-29 00:00:00 2 59 0" },
        {&UTC,      978220800,    "2000-12-31 00:00:00 0 365 0"},
        {&BERLIN,   1768478400,   "2026-01-15 13:00:00 4 14 0" },
        {&BERLIN,   1784116800,   "2026-07-15 14:00:00 3 195 1"},
        {&BERLIN,   1774745999,   "2026-03-29 01:59:59 0 87 0" },
        {&BERLIN,   1774746000,   "2026-03-29 03:00:00 0 87 1" },
        {&BERLIN,   1792889999,   "2026-10-25 02:59:59 0 297 1"},
        {&BERLIN,   1792890000,   "2026-10-25 02:00:00 0 297 0"},
        {&SYDNEY,   1768478400,   "2026-01-15 23:00:00 4 14 1" },
        {&SYDNEY,   1784116800,   "2026-07-15 22:00:00 3 195 0"},
        {&NEPAL,    1784116800,   "2026-07-15 17:45:00 3 195 0"},
    };

    for (const auto &row : rows) {
        struct tm tm;
        char text[64];
        oxnih_clock_set_zone(&row.zone->zone);
        EXPECT_EQ(0, oxni_time_stamp_to_local(row.seconds, &tm)) << row.local;
        snprintf(text, sizeof(text), "%04d-%02d-%02d %02d:%02d:%02d %d %d %d", tm.tm_year + 1900,
                 tm.tm_mon + 1, tm.tm_mday, tm.tm_hour, tm.tm_min, tm.tm_sec, tm.tm_wday,
                 tm.tm_yday, tm.tm_isdst);
        EXPECT_STREQ(row.local, text) << row.zone->name << " " << row.seconds;
    }
}

TEST_F(times, dates_that_windows_has_not)
{
    const int64_t rows[] = {-11644473601, 910692730086, INT64_MIN, INT64_MAX};
    struct tm tm;

    oxnih_clock_set_zone(&UTC.zone);
    EXPECT_EQ(0, oxni_time_stamp_to_local(910692730085, &tm));
    EXPECT_EQ(30828 - 1900, tm.tm_year);
    for (int64_t seconds : rows) {
        FILETIME time = {1, 1};
        tm.tm_year = 1;
        EXPECT_EQ(-1, oxni_time_stamp_to_local(seconds, &tm)) << seconds;
        EXPECT_EQ(0, tm.tm_year) << seconds;
        oxni_timet_to_filetime(seconds, &time);
        EXPECT_EQ(0U, time.dwLowDateTime | time.dwHighDateTime) << seconds;
    }
    EXPECT_EQ(-1, oxni_time_stamp_to_local(0, NULL));
    EXPECT_EQ(0, oxni_filetime_to_timet(NULL));
}

TEST_F(times, filetime_round_trip_in_every_zone_and_season)
{
    const uint64_t nows[] = {utc_100ns(2026, 1, 15, 0, 30, 0), utc_100ns(2026, 7, 15, 23, 30, 0),
                             utc_100ns(2026, 3, 29, 1, 0, 0), utc_100ns(2026, 10, 25, 0, 59, 59)};
    const int64_t moments[] = {0,          -1,         1,          1768478400,  1784116800,
                               1774745999, 1774746000, 1792889999, -5000000000, 4102444800};

    for (const zone_row *zone : ZONES)
        for (uint64_t now : nows)
            for (int64_t moment : moments) {
                FILETIME local, utc;
                oxnih_clock_set_zone(&zone->zone);
                oxnih_clock_simulate(now, 0);
                oxni_timet_to_filetime(moment, &local);
                ASSERT_TRUE(oxnih_local_to_filetime(&local, &utc));
                EXPECT_EQ(moment, oxni_filetime_to_timet(&utc)) << zone->name << moment;
            }
}

TEST_F(times, a_local_file_time_has_the_bias_of_now)
{
    const struct {
        const zone_row *zone;
        int month; /* of now */
        int64_t hours;
    } rows[] = {
        {&UTC,      1, 0 },
        {&BERLIN,   1, 1 },
        {&BERLIN,   7, 2 },
        {&NEW_YORK, 1, -5},
        {&NEW_YORK, 7, -4},
        {&SYDNEY,   1, 11},
        {&SYDNEY,   7, 10}
    };

    for (const auto &row : rows)
        for (int64_t moment : {1768478400, 1784116800}) { /* winter and summer alike */
            FILETIME local;
            oxnih_clock_set_zone(&row.zone->zone);
            oxnih_clock_simulate(utc_100ns(2026, row.month, 15, 12, 0, 0), 0);
            oxni_timet_to_filetime(moment, &local);
            EXPECT_EQ(moment + row.hours * 3600, oxni_filetime_to_timet(&local))
                << row.zone->name << row.month;
        }
}

TEST_F(times, file_times_are_cut_toward_the_past)
{
    const struct {
        uint64_t utc;
        int64_t seconds;
    } rows[] = {
        {116444736000000000, 0            },
        {116444736009999999, 0            },
        {116444736010000000, 1            },
        {116444735999999999, -1           },
        {116444735990000000, -1           },
        {0,                  -11644473600 },
        {UINT64_MAX,         1833029933770}
    };

    for (const auto &row : rows) {
        FILETIME time = {static_cast<DWORD>(row.utc), static_cast<DWORD>(row.utc >> 32)};
        EXPECT_EQ(row.seconds, oxni_filetime_to_timet(&time)) << row.utc;
    }
}

TEST_F(times, file_times_beyond_the_calendar_are_refused)
{
    FILETIME first = {0, 0}, last = {0xffffffff, 0x7fffffff}, beyond = {0, 0x80000000}, out;

    oxnih_clock_set_zone(&NEW_YORK.zone);
    EXPECT_FALSE(oxnih_filetime_to_local(&first, &out));
    EXPECT_EQ(static_cast<DWORD>(ERROR_INVALID_PARAMETER), GetLastError());
    EXPECT_FALSE(oxnih_local_to_filetime(&last, &out));
    EXPECT_FALSE(oxnih_filetime_to_local(&beyond, &out));
    EXPECT_TRUE(oxnih_filetime_to_local(&last, &out));
    EXPECT_FALSE(oxnih_filetime_to_local(NULL, &out));
}

TEST_F(times, simulated_time_moves_only_when_told)
{
    EXPECT_EQ(1772366400, oxni_time());
    EXPECT_EQ(1000U, oxni_time_get_tick_cout());
    Sleep(20);
    EXPECT_EQ(1000U, oxni_time_get_tick_cout());
    oxni_msleep(1500);
    oxni_sleep(2);
    EXPECT_EQ(4500U, oxni_time_get_tick_cout());
    EXPECT_EQ(1772366403, oxni_time());
    oxnih_clock_set_wall(utc_100ns(2020, 1, 1, 0, 0, 0));
    EXPECT_EQ(1577836800, oxni_time());
    EXPECT_EQ(4500U, oxni_time_get_tick_cout());
    oxnih_clock_advance(UINT64_MAX);
    EXPECT_EQ(UINT64_MAX, oxni_time_get_tick_cout());
}

TEST_F(times, real_time_goes_on_by_itself)
{
    FILETIME now;

    oxnih_clock_real(5000);
    EXPECT_FALSE(oxnih_clock_is_simulated());
    oxni_msleep(30);
    EXPECT_GE(oxni_time_get_tick_cout(), 5015U); /* its steps are coarse */
    EXPECT_LT(oxni_time_get_tick_cout(), 15000U);
    GetSystemTimeAsFileTime(&now);
    EXPECT_NEAR(static_cast<double>(oxni_filetime_to_timet(&now)), static_cast<double>(oxni_time()),
                2.0);
}
} // namespace
