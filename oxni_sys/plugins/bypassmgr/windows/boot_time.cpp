/* The moment at which Windows started. Stateless; any thread of the host. */
#include "boot_time.h"

#include <wchar.h>
#include <windows.h>
#include <tlhelp32.h>

#include <oxni/base/time.h>

#include "bypass_log.h"
#include "filetime.h"
#include "proc_address.h"
#include "time_text.h"
#include "windows_owner.h"

/* The System process has had this id for as long as there are 64-bit versions of Windows. */
#define USUAL_SYSTEM_PROCESS_ID 4
#define QUERY_ATTEMPTS          4
#define QUERY_PAUSE_MS          500
#define TICKS_PER_MILLISECOND   10000ULL

static_assert(sizeof(PROCESSENTRY32W) == 568, "the size that Windows expects");

/* Walks a snapshot whose first entry has been read. Result as of find_system_process_id. */
static uint32_t walk_snapshot(HANDLE snapshot, PROCESSENTRY32W *entry, uint32_t *process_id)
{
    do {
        /* A process of that name with a parent is not the kernel's. */
        if (entry->th32ParentProcessID == 0 && _wcsicmp(entry->szExeFile, L"System") == 0) {
            *process_id = entry->th32ProcessID;
            return ERROR_SUCCESS;
        }
        entry->dwSize = sizeof(*entry);
    } while (Process32NextW(snapshot, entry));
    return ERROR_NOT_FOUND;
}

/* NULL when the process cannot be opened at all; the last error gives the reason. */
static HANDLE open_process_for_times(uint32_t process_id)
{
    HANDLE process = OpenProcess(PROCESS_QUERY_INFORMATION, FALSE, process_id);

    if (process == NULL)
        process = OpenProcess(PROCESS_QUERY_LIMITED_INFORMATION, FALSE, process_id);
    return process;
}

/* Result: found, the search's code, when the time was read. */
static uint32_t read_creation_time(HANDLE process, uint32_t process_id, uint32_t found,
                                   boot_time_filetime *start_time)
{
    FILETIME creation = {}, exit_time = {}, kernel = {}, user = {};
    DWORD error;

    if (!GetProcessTimes(process, &creation, &exit_time, &kernel, &user)) {
        error = GetLastError();
        LOG_ERROR("get process time failed %d %x.", (int)process_id, (unsigned)error);
        return error;
    }
    *start_time = filetime_value(creation);
    if (*start_time == 0) {
        LOG_ERROR("get process time is zero ");
        return ERROR_NOT_SUPPORTED;
    }
    return found;
}

uint32_t find_system_process_id(uint32_t *process_id)
{
    PROCESSENTRY32W entry = {};
    DWORD error;

    if (process_id == NULL)
        return ERROR_INVALID_PARAMETER;
    /* Compared with NULL only: the first read below reports a snapshot that failed with
     * INVALID_HANDLE_VALUE. */
    const owned_handle snapshot(CreateToolhelp32Snapshot(TH32CS_SNAPPROCESS, 0));
    if (!snapshot.is_valid()) {
        error = GetLastError();
        LOG_ERROR("Snapshot failed %x. ", (unsigned)error);
        return error;
    }
    entry.dwSize = sizeof(entry);
    if (!Process32FirstW(snapshot.get(), &entry)) {
        error = GetLastError();
        LOG_ERROR("process first failed %x.", (unsigned)error);
        return error;
    }
    return walk_snapshot(snapshot.get(), &entry, process_id);
}

uint32_t get_system_process_start_time(boot_time_filetime *start_time)
{
    uint32_t process_id = USUAL_SYSTEM_PROCESS_ID;
    uint32_t result;

    if (start_time == NULL)
        return ERROR_INVALID_PARAMETER;
    result = find_system_process_id(&process_id);
    const owned_handle process(open_process_for_times(process_id));
    if (!process.is_valid()) {
        result = GetLastError();
        LOG_ERROR("open process failed %d %x.", (int)process_id, result);
        return result;
    }
    return read_creation_time(process.get(), process_id, result, start_time);
}

uint64_t get_tick_count_ms(void)
{
    typedef ULONGLONG(WINAPI * tick_count_fn)(void);
    tick_count_fn tick_count =
        proc_address<tick_count_fn>(GetModuleHandleA("kernel32.dll"), "GetTickCount64");

    return tick_count != NULL ? tick_count() : GetTickCount();
}

boot_time_filetime estimate_boot_filetime(void)
{
    SYSTEMTIME now;
    FILETIME filetime = {};

    GetSystemTime(&now);
    (void)SystemTimeToFileTime(&now, &filetime); /* what the system reports is a valid date */
    return filetime_value(filetime) - get_tick_count_ms() * TICKS_PER_MILLISECOND;
}

uint64_t get_bootup_time(void)
{
    char text[TIME_TEXT_CHARS];
    boot_time_filetime start_time = 0;
    uint32_t error = ERROR_NOT_FOUND;
    int64_t seconds;

    for (int attempt = 0; attempt < QUERY_ATTEMPTS && error != ERROR_SUCCESS; attempt++) {
        error = get_system_process_start_time(&start_time);
        if (error != ERROR_SUCCESS) {
            oxni_msleep(QUERY_PAUSE_MS);
            LOG_WARN("get bootup time fail! err[%d], try once", (int)error);
        }
    }
    if (error != ERROR_SUCCESS) {
        start_time = estimate_boot_filetime();
        LOG_WARN("use tick count calc boot time!");
    }
    seconds = (int64_t)start_time / FILETIME_TICKS_PER_SECOND - FILETIME_SECONDS_1601_TO_1970;
    time_text_local(seconds, text, sizeof(text));
    LOG_INFO("system boot up at [%s]", text);
    return (uint64_t)seconds;
}

int64_t get_systempro_time(void)
{
    boot_time_filetime start_time = 0;
    uint32_t error = get_system_process_start_time(&start_time);

    if (error != ERROR_SUCCESS) {
        LOG_ERROR("get systempro failed %x.", error);
        return (int64_t)estimate_boot_filetime();
    }
    return (int64_t)start_time;
}
