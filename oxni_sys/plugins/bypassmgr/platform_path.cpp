/* Paths of the platform: data folder and configuration. */
#include "platform_path.h"

#include <string.h>

#include <oxni/base/log.h>
#include <oxni/base/path.h>
#include <oxni/base/str.h>

#include "bypass_log.h"

void platform_path_create_data_folder(const char *file, char *buffer, size_t size)
{
    char folder[PLATFORM_PATH_CHARS];

    if (oxni_dirutils_path_transform(PLATFORM_DATA_FOLDER, folder, sizeof(folder)) == 0 &&
        oxni_path_is_exist_u(folder) == 0)
        /* The write that needs the folder reports its failure. */
        (void)oxni_dirutils_mkdir(folder, PLATFORM_FOLDER_MODE);
    if (oxni_dirutils_path_transform(file, buffer, size) != 0)
        LOG_WARN("path of %s cannot be resolved or is too long", file);
}

bool platform_path_config(const char *suffix, char *buffer, size_t size)
{
    char base[PLATFORM_PATH_CHARS];

    buffer[0] = '\0';
    if (oxni_log_dir(base, sizeof(base)) == 0) {
        LOG_WARN("get log dir is error");
        return false;
    }
    if (strlen(base) + strlen(suffix) >= size) {
        LOG_WARN("get log dir is error, path of %s is too long", suffix);
        return false;
    }
    (void)oxni_str_snprintf(buffer, size, "%s%s", base, suffix);
    return true;
}
