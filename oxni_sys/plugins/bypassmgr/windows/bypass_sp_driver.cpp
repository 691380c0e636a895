/* oxnisp_driver's crash state: its record file in the platform's configuration, and its mark under
 * the product's own key. Stateless; the host's message and timer threads. */
#include "bypass_sp_driver.h"

#include "bypass_driver.h"
#include "bypass_log.h"
#include "platform_path.h"

#include <algorithm>

#include <windows.h>

#include <oxni/base/str.h>

#define CRASH_CONFIG_SUFFIX "\\Quorvel\\OXNI3_CFG\\oxnisp_driver\\crash_config.cfg"
#define DRIVER_NAME         L"oxnisp_driver"
#define DRIVER_KEY          L"SYSTEM\\CurrentControlSet\\Services\\oxnisp_driver"
#define PRODUCT_KEY         L"SOFTWARE\\QUORVEL\\XNI\\"
#define CRASH_COUNT         2

/* Opens the product's key, or creates it: a machine may hold nothing else of the product's there,
 * and what the mark needs goes with the restart like the mark. */
static LSTATUS open_product_key(HKEY *key)
{
    LSTATUS error = RegOpenKeyExW(HKEY_LOCAL_MACHINE, PRODUCT_KEY, 0, KEY_CREATE_SUB_KEY, key);

    if (error == ERROR_FILE_NOT_FOUND) {
        error = RegCreateKeyExW(HKEY_LOCAL_MACHINE, PRODUCT_KEY, 0, NULL, REG_OPTION_VOLATILE,
                                KEY_ALL_ACCESS, NULL, key, NULL);
        if (error != ERROR_SUCCESS)
            LOG_ERROR("create reg key %S failed %x.", PRODUCT_KEY, (unsigned)error);
    } else if (error != ERROR_SUCCESS) {
        LOG_ERROR("open reg key %S failed %x.", PRODUCT_KEY, (unsigned)error);
    }
    return error;
}

int get_oxnisp_crash_config_path(wchar_t *buffer, int32_t size)
{
    char base[PLATFORM_PATH_CHARS], path[2 * PLATFORM_PATH_CHARS];

    if (buffer == NULL || size < 1) {
        LOG_WARN("invalid parameter");
        return 0;
    }
    if (oxni_log_dir(base, sizeof(base)) == 0) {
        LOG_WARN("get log dir is error");
        return 0;
    }
    (void)oxni_str_snprintf(path, std::min((size_t)size, sizeof(path)), "%s%s", base,
                            CRASH_CONFIG_SUFFIX);
    if (MultiByteToWideChar(CP_UTF8, 0, path, -1, buffer, size) == 0)
        buffer[0] = L'\0';
    LOG_INFO("oxnisp_driver crash cfg path %S", buffer);
    return 1;
}

int read_oxnisp_crash_config(crash_config_record *record)
{
    wchar_t path[PLATFORM_PATH_CHARS] = {};

    (void)get_oxnisp_crash_config_path(path,
                                       PLATFORM_PATH_CHARS); /* without a path nothing opens */
    return read_crash_config(record, path);
}

int write_oxnisp_crash_config(crash_config_record *record)
{
    wchar_t path[PLATFORM_PATH_CHARS] = {};

    (void)get_oxnisp_crash_config_path(path, PLATFORM_PATH_CHARS);
    return write_crash_config(record, path);
}

uint32_t get_oxnisp_driver_crash_threshold(void)
{
    return CRASH_COUNT;
}

int check_oxnisp_driver_bypass(uint32_t wait_count)
{
    crash_config_record record = {};
    const int error = read_oxnisp_crash_config(&record);

    if (error != CRASH_CONFIG_OK) {
        LOG_WARN("get oxnisp_driver crash info failed %x.", (unsigned)error);
        return 0;
    }
    if (record.count < get_oxnisp_driver_crash_threshold())
        return 0;
    return is_service_stopped((int32_t)wait_count, DRIVER_NAME);
}

bool get_oxnisp_driver_errortime(char *buffer, int32_t size)
{
    if (buffer == NULL || size < 0) {
        LOG_WARN("invalid parameter");
        return false;
    }
    return get_errortime_string(buffer, size, DRIVER_KEY);
}

uint32_t set_oxnisp_driver_crashflag(void)
{
    HKEY key = NULL;
    const LSTATUS error = open_product_key(&key);

    if (error != ERROR_SUCCESS)
        return (uint32_t)error;
    const uint32_t result = create_crashflag_below(key);
    RegCloseKey(key);
    return result;
}

uint32_t delete_oxnisp_crashflag(void)
{
    return delete_crashflag_key(PRODUCT_KEY CRASHFLAG_KEY);
}

uint32_t recover_oxnisp_driver(void)
{
    wchar_t path[PLATFORM_PATH_CHARS] = {};

    (void)delete_oxnisp_crashflag(); /* the mark goes with the next restart anyway */
    (void)get_oxnisp_crash_config_path(path, PLATFORM_PATH_CHARS);
    return delete_crash_record(path, "oxnisp_driver");
}
