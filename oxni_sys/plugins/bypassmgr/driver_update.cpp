/* The driver-update file; only the time of its last write counts. Host's callbacks. */
#include "driver_update.h"

#include <oxni/base/str.h>

#include "bypass_log.h"
#include "crash_dump.h"
#include "platform_path.h"

/* The component that writes the file spells it so. */
#define DRIVER_UPDATE_SUFFIX "/Quorvel/OXNI3_CFG/driver/oxni_driver_updata.cfg"

bool driver_update_check(void)
{
    char path[PLATFORM_PATH_CHARS];
    wchar_t *wide;
    bool updated;

    if (!platform_path_config(DRIVER_UPDATE_SUFFIX, path, sizeof(path)))
        return false;
    LOG_DEBUG("driver update file path %s", path);
    wide = oxni_str_utf8_to_unicode(path);
    updated = is_file_updated_since_boot(wide);
    oxni_str_free(wide);
    return updated;
}
