/* load_driver's crash state in its record file and under its service key, and the tests and marks
 * that hold for any driver's service. Stateless; the host's message and timer threads. */
#include "bypass_driver.h"

#include "bypass_log.h"
#include "platform_path.h"

#include <stdlib.h>
#include <wchar.h>
#include <windows.h>

#include <oxni/base/path.h>
#include <oxni/base/registry.h>
#include <oxni/base/str.h>
#include <oxni/base/time.h>

#define SERVICES_KEY         L"SYSTEM\\CurrentControlSet\\Services\\"
#define DRIVER_NAME          L"load_driver"
#define DRIVER_KEY           SERVICES_KEY DRIVER_NAME
#define STANDARD_CRASH_COUNT 3
#define VALUE_CHARS          32
#define TRIES                3
#define TRY_PAUSE_MS         10
#define STATE_PAUSE_S        1

/* Path of the record file; empty when the executable's own is not known or the path does not fit,
 * so that no other file is touched in its place. */
static void crash_config_path(wchar_t *buffer)
{
    char executable[PLATFORM_PATH_CHARS], folder[PLATFORM_PATH_CHARS];

    buffer[0] = L'\0';
    if (oxni_process_path(executable, sizeof(executable)) != 0 ||
        oxni_path_directory(executable, folder, sizeof(folder)) != 0)
        return;
    wchar_t *wide = oxni_str_utf8_to_unicode(folder);
    if (wide != NULL &&
        _snwprintf(buffer, PLATFORM_PATH_CHARS - 1, L"%ls\\crash_config.cfg", wide) < 0)
        buffer[0] = L'\0';
    buffer[PLATFORM_PATH_CHARS - 1] = L'\0';
    oxni_str_free(wide);
}

/* One value of the open service key; result and value as of read_load_driver_value. */
static uint32_t query_number(HKEY key, const wchar_t *name, uint32_t *value)
{
    wchar_t text[VALUE_CHARS] = {};
    DWORD size = sizeof(text) - sizeof(text[0]); /* Windows may store no terminator */
    DWORD type = REG_NONE;
    LSTATUS error = RegQueryValueExW(key, name, NULL, &type, reinterpret_cast<BYTE *>(text), &size);

    if (error != ERROR_SUCCESS)
        LOG_WARN("query value %S failed %x.", name, (unsigned)error);
    else if (type == REG_SZ || type == REG_EXPAND_SZ)
        *value = (uint32_t)_wtoi(text);
    else
        LOG_WARN("value[%S] type unmatch %d.", name, (int)type);
    return (uint32_t)error;
}

static bool is_pending(DWORD state)
{
    return state == SERVICE_START_PENDING || state == SERVICE_STOP_PENDING;
}

/* Waits for the end of a change of state, as long as the count allows. */
static int is_open_service_stopped(SC_HANDLE service, const wchar_t *name, int32_t wait_count)
{
    SERVICE_STATUS status = {};

    for (;;) {
        if (!QueryServiceStatus(service, &status)) {
            const DWORD error = GetLastError();
            LOG_WARN("query service %S status failed %x.", name, (unsigned)error);
            return 1;
        }
        if (!is_pending(status.dwCurrentState) || wait_count < 2)
            return status.dwCurrentState == SERVICE_STOPPED ? 1 : 0;
        wait_count--;
        oxni_sleep(STATE_PAUSE_S);
    }
}

int read_load_driver_crash_config(crash_config_record *record)
{
    wchar_t path[PLATFORM_PATH_CHARS];

    crash_config_path(path);
    return read_crash_config(record, path);
}

int write_load_driver_crash_config(crash_config_record *record)
{
    wchar_t path[PLATFORM_PATH_CHARS];

    crash_config_path(path);
    return write_crash_config(record, path);
}

uint32_t read_load_driver_value(const wchar_t *name, uint32_t *value)
{
    HKEY key = NULL;
    LSTATUS error;

    if (name == NULL)
        return ERROR_INVALID_PARAMETER;
    error = RegOpenKeyExW(HKEY_LOCAL_MACHINE, DRIVER_KEY, 0, KEY_READ, &key);
    if (error != ERROR_SUCCESS) {
        LOG_WARN("open service key %S failed %x.", DRIVER_KEY, (unsigned)error);
        return (uint32_t)error;
    }
    const uint32_t result = query_number(key, name, value);
    RegCloseKey(key);
    return result;
}

uint32_t get_load_driver_crash_threshold(void)
{
    uint32_t threshold = STANDARD_CRASH_COUNT;

    (void)read_load_driver_value(L"CrashCount", &threshold); /* the standard stays on failure */
    return threshold;
}

int check_load_driver_bypass(uint32_t wait_count)
{
    crash_config_record record = {};
    const int error = read_load_driver_crash_config(&record);

    if (error != CRASH_CONFIG_OK) {
        LOG_WARN("get load_driver crash info failed %x.", (unsigned)error);
        return 0;
    }
    if (record.count < get_load_driver_crash_threshold())
        return 0;
    return is_service_stopped((int32_t)wait_count, DRIVER_NAME);
}

int is_service_stopped(int32_t wait_count, const wchar_t *service)
{
    SC_HANDLE manager = OpenSCManagerW(NULL, NULL, SC_MANAGER_ALL_ACCESS);
    SC_HANDLE handle;
    DWORD error;
    int stopped = 0;

    if (manager == NULL) {
        error = GetLastError();
        LOG_WARN("open manager failed %x.", (unsigned)error);
        return 0;
    }
    handle = OpenServiceW(manager, service, SERVICE_QUERY_STATUS);
    if (handle != NULL) {
        stopped = is_open_service_stopped(handle, service, wait_count);
        CloseServiceHandle(handle);
    } else {
        error = GetLastError();
        if (error == ERROR_SERVICE_DOES_NOT_EXIST)
            stopped = 1;
        else
            LOG_WARN("open service %S failed %x.", service, (unsigned)error);
    }
    CloseServiceHandle(manager);
    return stopped;
}

bool query_errortime(uint64_t *errortime, const wchar_t *path)
{
    if (errortime == NULL || path == NULL) {
        LOG_WARN("invalid parameter");
        return false;
    }
    return oxni_req_query_qword_w(HKEY_LOCAL_MACHINE, path, L"errortime", errortime) != 0;
}

bool get_errortime_string(char *buffer, int32_t size, const wchar_t *path)
{
    uint64_t errortime = 0;
    FILETIME filetime;
    SYSTEMTIME time;

    if (buffer == NULL || size < 1 || path == NULL) {
        LOG_WARN("invalid parameter");
        return false;
    }
    if (!query_errortime(&errortime, path)) {
        LOG_INFO("get errortime from path %S failed", path);
        return false;
    }
    filetime.dwLowDateTime = (DWORD)errortime;
    filetime.dwHighDateTime = (DWORD)(errortime >> 32);
    if (!FileTimeToSystemTime(&filetime, &time)) {
        LOG_WARN("FileTimeToSystemTime failed, errortime: %llu", (unsigned long long)errortime);
        return false;
    }
    (void)oxni_str_snprintf(buffer, (size_t)size, "%d-%02d-%02d %02d:%02d:%02d", time.wYear,
                            time.wMonth, time.wDay, time.wHour, time.wMinute, time.wSecond);
    return true;
}

bool get_load_driver_errortime(char *buffer, int32_t size)
{
    if (buffer == NULL || size < 1) {
        LOG_WARN("invalid parameter");
        return false;
    }
    return get_errortime_string(buffer, size, DRIVER_KEY);
}

uint32_t set_load_driver_crashflag(void)
{
    return create_service_crashflag(DRIVER_NAME);
}

uint32_t create_service_crashflag(const wchar_t *service)
{
    wchar_t path[PLATFORM_PATH_CHARS] = {};
    HKEY key = NULL;
    LSTATUS error;

    if (service == NULL)
        return ERROR_INVALID_PARAMETER;
    (void)_snwprintf(path, PLATFORM_PATH_CHARS - 1, L"%ls%ls", SERVICES_KEY, service);
    error = RegOpenKeyExW(HKEY_LOCAL_MACHINE, path, 0, KEY_CREATE_SUB_KEY, &key);
    if (error != ERROR_SUCCESS) {
        LOG_ERROR("open reg key %S failed %x.", path, (unsigned)error);
        return (uint32_t)error;
    }
    const uint32_t result = create_crashflag_below(key);
    RegCloseKey(key);
    return result;
}

uint32_t delete_service_crashflag(const wchar_t *service)
{
    wchar_t path[PLATFORM_PATH_CHARS] = {};

    if (service == NULL)
        return ERROR_INVALID_PARAMETER;
    (void)_snwprintf(path, PLATFORM_PATH_CHARS - 1, L"%ls%ls\\%ls", SERVICES_KEY, service,
                     CRASHFLAG_KEY);
    return delete_crashflag_key(path);
}

uint32_t recover_load_driver(void)
{
    wchar_t path[PLATFORM_PATH_CHARS];

    (void)delete_service_crashflag(DRIVER_NAME); /* the mark goes with the next restart anyway */
    crash_config_path(path);
    return delete_crash_record(path, "load_driver");
}

uint32_t create_crashflag_below(HKEY parent)
{
    HKEY key = NULL;
    LSTATUS error = RegCreateKeyExW(parent, CRASHFLAG_KEY, 0, NULL, REG_OPTION_VOLATILE,
                                    KEY_ALL_ACCESS, NULL, &key, NULL);

    if (error != ERROR_SUCCESS)
        LOG_ERROR("create reg key %S failed %x.", CRASHFLAG_KEY, (unsigned)error);
    else
        RegCloseKey(key);
    return (uint32_t)error;
}

uint32_t delete_crashflag_key(const wchar_t *path)
{
    LSTATUS error = ERROR_SUCCESS;

    for (int i = 0; i < TRIES; i++) {
        error = RegDeleteKeyW(HKEY_LOCAL_MACHINE, path);
        if (error == ERROR_SUCCESS || error == ERROR_NOT_FOUND)
            return ERROR_SUCCESS;
        oxni_msleep(TRY_PAUSE_MS);
    }
    return (uint32_t)error;
}

uint32_t delete_crash_record(const wchar_t *path, const char *driver)
{
    DWORD error = ERROR_SUCCESS;

    for (int i = 0; i < TRIES; i++) {
        if (DeleteFileW(path))
            break;
        error = GetLastError();
        LOG_ERROR("delete %s crash config %S failed %x.", driver, path, (unsigned)error);
        if (error == ERROR_FILE_NOT_FOUND)
            return ERROR_SUCCESS;
        oxni_msleep(TRY_PAUSE_MS);
    }
    /* Also after a success at a later try: the caller's log then tells that there was trouble. */
    return error;
}
