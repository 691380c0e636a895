/* Time conversions. Windows computes dates and zone rules, because the C library reads TZ and does
 * not support times before 1970. One thread. */
#include "base.h"

#include <cstring>

#include <oxni/base/time.h>

/* The last time that FileTimeToSystemTime accepts, the end of the year 30827. */
static constexpr uint64_t LAST_100NS = 0x7fffffffffffffffULL;

static FILETIME to_filetime(uint64_t value)
{
    FILETIME time;

    time.dwLowDateTime = static_cast<DWORD>(value);
    time.dwHighDateTime = static_cast<DWORD>(value >> 32);
    return time;
}

static uint64_t to_number(const FILETIME *time)
{
    return static_cast<uint64_t>(time->dwHighDateTime) << 32 | time->dwLowDateTime;
}

/* Returns false when FILETIME cannot represent the time. */
static bool seconds_to_100ns(int64_t seconds, uint64_t *value)
{
    const int64_t first = -static_cast<int64_t>(BASE_EPOCH_100NS / BASE_SECOND_100NS);
    const int64_t last = static_cast<int64_t>((LAST_100NS - BASE_EPOCH_100NS) / BASE_SECOND_100NS);

    if (seconds < first || seconds > last)
        return false;
    *value = static_cast<uint64_t>(seconds - first) * BASE_SECOND_100NS;
    return true;
}

/* Returns the zone's rules. Caches those of the machine's own zone for one second: every log line
 * needs them, and Windows reads them from the registry. */
static const TIME_ZONE_INFORMATION *zone_rules()
{
    static TIME_ZONE_INFORMATION s_own;
    static ULONGLONG s_asked_ms;
    const ULONGLONG now_ms = GetTickCount64();

    if (clock_zone() != nullptr)
        return clock_zone();
    if (s_asked_ms == 0 || now_ms - s_asked_ms >= 1000) {
        GetTimeZoneInformation(&s_own);
        s_asked_ms = now_ms;
    }
    return &s_own;
}

static bool utc_to_local(const TIME_ZONE_INFORMATION *zone, uint64_t utc, SYSTEMTIME *local)
{
    FILETIME time = to_filetime(utc);
    SYSTEMTIME broken;

    return FileTimeToSystemTime(&time, &broken) &&
           SystemTimeToTzSpecificLocalTime(zone, &broken, local);
}

/* Computes the local date of a whole second, and local time minus UTC at that time, in 100 ns.
 * Remembers the last one: Windows takes long, and many log lines are of one second. */
static bool local_of(uint64_t utc, SYSTEMTIME *local, int64_t *offset)
{
    static struct {
        uint64_t utc;
        TIME_ZONE_INFORMATION zone;
        SYSTEMTIME local;
        int64_t offset;
    } s_last = {UINT64_MAX, {}, {}, 0};
    const TIME_ZONE_INFORMATION *zone = zone_rules();
    FILETIME time;

    if (utc != s_last.utc || memcmp(zone, &s_last.zone, sizeof(*zone)) != 0) {
        if (!utc_to_local(zone, utc, local) || !SystemTimeToFileTime(local, &time))
            return false;
        s_last = {utc, *zone, *local, static_cast<int64_t>(to_number(&time) - utc)};
    }
    *local = s_last.local;
    *offset = s_last.offset;
    return true;
}

static bool is_daylight(int64_t offset)
{
    const TIME_ZONE_INFORMATION *zone = zone_rules();

    return zone->DaylightDate.wMonth != 0 &&
           offset != -(zone->Bias + zone->StandardBias) * 60LL * INT64_C(10000000);
}

static int day_of_year(const SYSTEMTIME *date)
{
    static const int before[] = {0, 31, 59, 90, 120, 151, 181, 212, 243, 273, 304, 334};
    bool leap = date->wYear % 4 == 0 && (date->wYear % 100 != 0 || date->wYear % 400 == 0);

    return before[(date->wMonth - 1) % 12] + date->wDay - 1 + (leap && date->wMonth > 2);
}

int oxni_time_stamp_to_local(int64_t seconds, struct tm *local)
{
    SYSTEMTIME date;
    uint64_t utc;
    int64_t offset;

    if (local == nullptr)
        return -1;
    memset(local, 0, sizeof(*local));
    if (!seconds_to_100ns(seconds, &utc) || !local_of(utc, &date, &offset))
        return -1;
    local->tm_sec = date.wSecond;
    local->tm_min = date.wMinute;
    local->tm_hour = date.wHour;
    local->tm_mday = date.wDay;
    local->tm_mon = date.wMonth - 1;
    local->tm_year = date.wYear - 1900;
    local->tm_wday = date.wDayOfWeek;
    local->tm_yday = day_of_year(&date);
    local->tm_isdst = is_daylight(offset);
    return 0;
}

std::string time_text_now()
{
    struct tm now;
    char text[64];

    if (oxni_time_stamp_to_local(oxni_time(), &now) != 0)
        return "1970-01-01 00:00:00";
    snprintf(text, sizeof(text), "%d-%02d-%02d %02d:%02d:%02d", now.tm_year + 1900, now.tm_mon + 1,
             now.tm_mday, now.tm_hour, now.tm_min, now.tm_sec);
    return text;
}

/* Adds offset. Fails with error 87 when the result is no valid FILETIME. */
static BOOL shifted(const FILETIME *time, int64_t offset, FILETIME *result)
{
    uint64_t value = to_number(time);

    if (value > LAST_100NS || (offset < 0 && value < static_cast<uint64_t>(-offset)) ||
        (offset > 0 && value > LAST_100NS - static_cast<uint64_t>(offset))) {
        SetLastError(ERROR_INVALID_PARAMETER);
        return FALSE;
    }
    *result = to_filetime(value + static_cast<uint64_t>(offset));
    return TRUE;
}

static BOOL shifted_by_bias_of_now(const FILETIME *time, int sign, FILETIME *result)
{
    const uint64_t now = oxnih_clock_now_100ns();
    SYSTEMTIME date;
    int64_t offset;

    if (time == nullptr || result == nullptr ||
        !local_of(now - now % BASE_SECOND_100NS, &date, &offset)) {
        SetLastError(ERROR_INVALID_PARAMETER);
        return FALSE;
    }
    return shifted(time, sign * offset, result);
}

BOOL oxnih_filetime_to_local(const FILETIME *utc, FILETIME *local)
{
    return shifted_by_bias_of_now(utc, 1, local);
}

BOOL oxnih_local_to_filetime(const FILETIME *local, FILETIME *utc)
{
    return shifted_by_bias_of_now(local, -1, utc);
}

void oxni_timet_to_filetime(int64_t seconds, FILETIME *local)
{
    uint64_t value;
    FILETIME utc;

    if (local == nullptr)
        return;
    *local = to_filetime(0);
    if (!seconds_to_100ns(seconds, &value))
        return;
    utc = to_filetime(value);
    if (!oxnih_filetime_to_local(&utc, local))
        *local = to_filetime(0);
}

int64_t oxni_filetime_to_timet(const FILETIME *utc)
{
    if (utc == nullptr)
        return 0;
    /* Unsigned division of a count from 1601 rounds toward the past for every date. */
    return static_cast<int64_t>(to_number(utc) / BASE_SECOND_100NS) -
           static_cast<int64_t>(BASE_EPOCH_100NS / BASE_SECOND_100NS);
}
