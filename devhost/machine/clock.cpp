/* Windows' time calls read the platform's clock: host, platform and plug-in have one time. */
#include "machine_internal.h"

#include "../../platform/liboxnibase/host.h"
#include "../calls/stand_in.h"

static void WINAPI stand_in_GetSystemTime(SYSTEMTIME *time)
{
    uint64_t now = oxnih_clock_now_100ns();
    FILETIME filetime = {static_cast<DWORD>(now), static_cast<DWORD>(now >> 32)};

    FileTimeToSystemTime(&filetime, time);
}

static DWORD WINAPI stand_in_GetTickCount(void)
{
    return static_cast<DWORD>(oxnih_clock_tick_ms());
}

void *machine_clock_stand_in(const char *name)
{
    static const stand_in_row rows[] = {
        STAND_IN(GetSystemTime),
        STAND_IN(GetTickCount),
        {"FileTimeToLocalFileTime", reinterpret_cast<void *>(oxnih_filetime_to_local)},
        {"LocalFileTimeToFileTime", reinterpret_cast<void *>(oxnih_local_to_filetime)},
    };

    return stand_in_find(rows, name);
}
