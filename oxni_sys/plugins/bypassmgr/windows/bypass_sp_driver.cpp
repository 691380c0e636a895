/* oxnisp_driver's crash state: its record file in the platform's configuration, and its mark under
 * the product's own key. Stateless; the host's message and timer threads. */
#include "bypass_sp_driver.h"

#include <algorithm>

#include <windows.h>

#include "bypass_log.h"
#include "platform_driver.h"
#include "platform_path.h"

#define DRIVER_NAME   L"oxnisp_driver"
#define RECORD_SUFFIX "\\Quorvel\\OXNI3_CFG\\oxnisp_driver\\" CRASH_CONFIG_FILE
#define PRODUCT_KEY   L"SOFTWARE\\QUORVEL\\XNI\\"
#define CRASH_COUNT   2

static const platform_driver s_driver = {
    "oxnisp_driver",
    DRIVER_NAME,
    SERVICES_KEY DRIVER_NAME,
    get_oxnisp_crash_config_path,
    get_oxnisp_driver_crash_threshold,
    delete_oxnisp_crashflag,
};

bool get_oxnisp_crash_config_path(wchar_t *buffer, int32_t size)
{
    char path[PLATFORM_PATH_CHARS];

    if (buffer == NULL || size < 1) {
        LOG_WARN("invalid parameter");
        return false;
    }
    buffer[0] = L'\0';
    if (!platform_path_config(RECORD_SUFFIX, path, std::min((size_t)size, sizeof(path))) ||
        !driver_path_utf16(path, buffer, size))
        return false;
    LOG_INFO("oxnisp_driver crash cfg path %S", buffer);
    return true;
}

int read_oxnisp_crash_config(crash_config_record *record)
{
    return read_driver_record(s_driver, record);
}

int write_oxnisp_crash_config(crash_config_record *record)
{
    return write_driver_record(s_driver, record);
}

uint32_t get_oxnisp_driver_crash_threshold(void)
{
    return CRASH_COUNT;
}

bool check_oxnisp_driver_bypass(uint32_t wait_count)
{
    return check_driver_bypass(s_driver, wait_count);
}

bool get_oxnisp_driver_errortime(char *buffer, int32_t size)
{
    if (buffer == NULL || size < 0) { /* a size of 0 is refused below */
        LOG_WARN("invalid parameter");
        return false;
    }
    return get_errortime_string(buffer, size, s_driver.service_key);
}

uint32_t set_oxnisp_driver_crashflag(void)
{
    /* A machine may hold nothing else of the product's there. */
    return create_crashflag_key(PRODUCT_KEY, true);
}

uint32_t delete_oxnisp_crashflag(void)
{
    return delete_crashflag_key(PRODUCT_KEY CRASHFLAG_KEY);
}

uint32_t recover_oxnisp_driver(void)
{
    return recover_driver(s_driver);
}
