/* load_driver's crash state in its record file and under its service key. Stateless; the host's
 * message and timer threads. */
#include "bypass_driver.h"

#include <stdlib.h>
#include <wchar.h>
#include <windows.h>

#include <oxni/base/path.h>
#include <oxni/base/str.h>

#include "bypass_log.h"
#include "platform_driver.h"
#include "platform_path.h"
#include "windows_owner.h"

#define DRIVER_NAME          L"load_driver"
#define DRIVER_KEY           SERVICES_KEY DRIVER_NAME
#define RECORD_SUFFIX        "\\" CRASH_CONFIG_FILE
#define STANDARD_CRASH_COUNT 3
#define VALUE_CHARS          32

static bool record_path(wchar_t *buffer, int32_t size)
{
    char executable[PLATFORM_PATH_CHARS], folder[PLATFORM_PATH_CHARS];
    char path[PLATFORM_PATH_CHARS + sizeof(RECORD_SUFFIX)];

    buffer[0] = L'\0';
    if (oxni_process_path(executable, sizeof(executable)) != 0 ||
        oxni_path_directory(executable, folder, sizeof(folder)) != 0) {
        LOG_WARN("path of the executable is unknown or too long");
        return false;
    }
    (void)oxni_str_snprintf(path, sizeof(path), "%s%s", folder, RECORD_SUFFIX);
    return driver_path_utf16(path, buffer, size);
}

static uint32_t delete_load_driver_crashflag(void)
{
    return delete_service_crashflag(DRIVER_NAME);
}

static const platform_driver s_driver = {
    "load_driver",
    DRIVER_NAME,
    DRIVER_KEY,
    record_path,
    get_load_driver_crash_threshold,
    delete_load_driver_crashflag,
};

/* One value of the open service key; result and value as of read_load_driver_value. */
static uint32_t query_number(HKEY key, const wchar_t *name, uint32_t *value)
{
    wchar_t text[VALUE_CHARS] = {};
    DWORD size = sizeof(text) - sizeof(text[0]); /* Windows may store no terminator */
    DWORD type = REG_NONE;
    LSTATUS error = RegQueryValueExW(key, name, NULL, &type, (BYTE *)text, &size);

    if (error != ERROR_SUCCESS)
        LOG_WARN("query value %S failed %x.", name, (unsigned)error);
    else if (type == REG_SZ || type == REG_EXPAND_SZ)
        *value = (uint32_t)_wtoi(text);
    else
        LOG_WARN("value[%S] type unmatch %d.", name, (int)type);
    return (uint32_t)error;
}

/* Path of a service's key or of a key below it. path: PLATFORM_PATH_CHARS characters. Result:
 * whether it fits; a failure is logged. */
static bool service_key_path(const wchar_t *service, const wchar_t *below, wchar_t *path)
{
    path[PLATFORM_PATH_CHARS - 1] = L'\0';
    if (_snwprintf(path, PLATFORM_PATH_CHARS - 1, L"%ls%ls%ls", SERVICES_KEY, service, below) >= 0)
        return true;
    LOG_ERROR("path of the key of service %S is too long", service);
    return false;
}

int read_load_driver_crash_config(crash_config_record *record)
{
    return read_driver_record(s_driver, record);
}

int write_load_driver_crash_config(crash_config_record *record)
{
    return write_driver_record(s_driver, record);
}

uint32_t read_load_driver_value(const wchar_t *name, uint32_t *value)
{
    HKEY key = NULL;
    LSTATUS error;

    if (name == NULL)
        return ERROR_INVALID_PARAMETER;
    error = RegOpenKeyExW(HKEY_LOCAL_MACHINE, s_driver.service_key, 0, KEY_READ, &key);
    if (error != ERROR_SUCCESS) {
        LOG_WARN("open service key %S failed %x.", s_driver.service_key, (unsigned)error);
        return (uint32_t)error;
    }
    const owned_key owner(key);
    return query_number(key, name, value);
}

uint32_t get_load_driver_crash_threshold(void)
{
    uint32_t threshold = STANDARD_CRASH_COUNT;

    (void)read_load_driver_value(L"CrashCount", &threshold); /* the standard stays on failure */
    return threshold;
}

bool check_load_driver_bypass(uint32_t wait_count)
{
    return check_driver_bypass(s_driver, wait_count);
}

bool get_load_driver_errortime(char *buffer, int32_t size)
{
    if (buffer == NULL || size < 1) {
        LOG_WARN("invalid parameter");
        return false;
    }
    return get_errortime_string(buffer, size, s_driver.service_key);
}

uint32_t set_load_driver_crashflag(void)
{
    return create_service_crashflag(s_driver.service);
}

uint32_t create_service_crashflag(const wchar_t *service)
{
    wchar_t path[PLATFORM_PATH_CHARS];

    if (service == NULL)
        return ERROR_INVALID_PARAMETER;
    if (!service_key_path(service, L"", path))
        return ERROR_FILENAME_EXCED_RANGE;
    return create_crashflag_key(path, false);
}

uint32_t delete_service_crashflag(const wchar_t *service)
{
    wchar_t path[PLATFORM_PATH_CHARS];

    if (service == NULL)
        return ERROR_INVALID_PARAMETER;
    if (!service_key_path(service, L"\\" CRASHFLAG_KEY, path))
        return ERROR_FILENAME_EXCED_RANGE;
    return delete_crashflag_key(path);
}

uint32_t recover_load_driver(void)
{
    return recover_driver(s_driver);
}
