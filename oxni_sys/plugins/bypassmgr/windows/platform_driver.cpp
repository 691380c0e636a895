/* The operations that the platform's drivers share. Stateless; the host's message and timer
 * threads. */
#include "platform_driver.h"

#include <windows.h>

#include <oxni/base/registry.h>
#include <oxni/base/str.h>
#include <oxni/base/time.h>

#include "bypass_log.h"
#include "filetime.h"
#include "platform_path.h"
#include "service_state.h"
#include "windows_owner.h"

#define DELETE_ATTEMPTS 3
#define DELETE_PAUSE_MS 10

static LSTATUS create_volatile_key(HKEY parent, const wchar_t *path, HKEY *key)
{
    const LSTATUS error = RegCreateKeyExW(parent, path, 0, NULL, REG_OPTION_VOLATILE,
                                          KEY_ALL_ACCESS, NULL, key, NULL);

    if (error != ERROR_SUCCESS)
        LOG_ERROR("create reg key %S failed %x.", path, (unsigned)error);
    return error;
}

static LSTATUS open_parent_key(const wchar_t *path, bool create, HKEY *key)
{
    const LSTATUS error = RegOpenKeyExW(HKEY_LOCAL_MACHINE, path, 0, KEY_CREATE_SUB_KEY, key);

    if (error == ERROR_FILE_NOT_FOUND && create)
        return create_volatile_key(HKEY_LOCAL_MACHINE, path, key);
    if (error != ERROR_SUCCESS)
        LOG_ERROR("open reg key %S failed %x.", path, (unsigned)error);
    return error;
}

static uint32_t delete_crash_record(const wchar_t *path, const char *driver)
{
    DWORD error = ERROR_SUCCESS;

    for (int i = 0; i < DELETE_ATTEMPTS; i++) {
        if (DeleteFileW(path))
            break;
        error = GetLastError();
        LOG_ERROR("delete %s crash config %S failed %x.", driver, path, (unsigned)error);
        if (error == ERROR_FILE_NOT_FOUND)
            return ERROR_SUCCESS;
        oxni_msleep(DELETE_PAUSE_MS);
    }
    /* Also after a success at a later attempt: the caller's log then shows that there was trouble. */
    return error;
}

int read_driver_record(const platform_driver &driver, crash_config_record *record)
{
    wchar_t path[PLATFORM_PATH_CHARS] = {};

    (void)driver.record_path(path, PLATFORM_PATH_CHARS); /* without a path nothing opens */
    return read_crash_config(record, path);
}

int write_driver_record(const platform_driver &driver, crash_config_record *record)
{
    wchar_t path[PLATFORM_PATH_CHARS] = {};

    (void)driver.record_path(path, PLATFORM_PATH_CHARS);
    return write_crash_config(record, path);
}

bool check_driver_bypass(const platform_driver &driver, uint32_t wait_count)
{
    crash_config_record record = {};
    const int error = read_driver_record(driver, &record);

    if (error != CRASH_CONFIG_OK) {
        LOG_WARN("get %s crash info failed %x.", driver.name, (unsigned)error);
        return false;
    }
    if (record.count < driver.crash_threshold())
        return false;
    return is_service_stopped((int32_t)wait_count, driver.service);
}

uint32_t recover_driver(const platform_driver &driver)
{
    wchar_t path[PLATFORM_PATH_CHARS] = {};

    (void)driver.delete_crashflag(); /* the mark goes with the next restart anyway */
    (void)driver.record_path(path, PLATFORM_PATH_CHARS);
    return delete_crash_record(path, driver.name);
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
    filetime = filetime_of_value(errortime);
    if (!FileTimeToSystemTime(&filetime, &time)) {
        LOG_WARN("FileTimeToSystemTime failed, errortime: %llu", (unsigned long long)errortime);
        return false;
    }
    (void)oxni_str_snprintf(buffer, (size_t)size, "%d-%02d-%02d %02d:%02d:%02d", time.wYear,
                            time.wMonth, time.wDay, time.wHour, time.wMinute, time.wSecond);
    return true;
}

uint32_t create_crashflag_key(const wchar_t *parent, bool create_parent)
{
    HKEY key = NULL;
    LSTATUS error = open_parent_key(parent, create_parent, &key);

    if (error != ERROR_SUCCESS)
        return (uint32_t)error;
    const owned_key parent_owner(key);
    error = create_volatile_key(parent_owner.get(), CRASHFLAG_KEY, &key);
    if (error == ERROR_SUCCESS)
        (void)RegCloseKey(key);
    return (uint32_t)error;
}

uint32_t delete_crashflag_key(const wchar_t *path)
{
    LSTATUS error = ERROR_SUCCESS;

    for (int i = 0; i < DELETE_ATTEMPTS; i++) {
        error = RegDeleteKeyW(HKEY_LOCAL_MACHINE, path);
        if (error == ERROR_SUCCESS || error == ERROR_NOT_FOUND)
            return ERROR_SUCCESS;
        oxni_msleep(DELETE_PAUSE_MS);
    }
    return (uint32_t)error;
}

bool driver_path_utf16(const char *path, wchar_t *buffer, int32_t size)
{
    if (MultiByteToWideChar(CP_UTF8, MB_ERR_INVALID_CHARS, path, -1, buffer, size) != 0)
        return true;
    LOG_WARN("path %s is not UTF-8 or is too long", path);
    buffer[0] = L'\0';
    return false;
}
