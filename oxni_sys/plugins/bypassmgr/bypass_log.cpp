/* Opening the host's log, time and JSON text, and the data folder. Stateless; any thread of the
 * host. */
#include "bypass_log.h"

#include <oxni/base/path.h>
#include <oxni/base/str.h>
#include <oxni/base/time.h>

/* Log files kept of one process. */
#define LOG_FILES 5

void bypass_log_open(bool *ready)
{
    char base[BYPASS_PATH_CHARS], process[BYPASS_PATH_CHARS], directory[3 * BYPASS_PATH_CHARS];

    if (*ready)
        return;
    *ready = true;
    if (oxni_log_is_regestered() != 0)
        return;
    (void)oxni_process_name(process, sizeof(process)); /* empty when it does not fit */
    if (oxni_log_dir(base, sizeof(base)) != 0)
        (void)oxni_str_snprintf(directory, sizeof(directory), "%s/%s/%s/", base,
                                "/Quorvel/OXNI3_LOG/oxni_default_autolog/", process);
    else
        (void)oxni_str_snprintf(directory, sizeof(directory), "%s/%s/",
                                "@/../var/logs/oxni_default_autolog/", process);
    (void)oxni_autolog_init(directory, LOG_FILES); /* without a log there is nowhere to say so */
}

const char *bypass_log_base_name(const char *file)
{
    return oxni_path_basename(file);
}

void bypass_time_text(int64_t seconds, char *buffer, size_t size)
{
    struct tm local;

    if (oxni_time_stamp_to_local(seconds, &local) != 0) {
        (void)oxni_strlcpy(buffer, "1970-01-01 00:00:00", size);
        return;
    }
    (void)oxni_str_snprintf(buffer, size, "%d-%02d-%02d %02d:%02d:%02d", local.tm_year + 1900,
                            local.tm_mon + 1, local.tm_mday, local.tm_hour, local.tm_min,
                            local.tm_sec);
}

void bypass_log_now(char *buffer, size_t size)
{
    bypass_time_text(oxni_time(), buffer, size);
}

char *bypass_json_text(const json_t *json)
{
    return json != NULL ? json_dumps(json, 0) : NULL;
}

void bypass_json_text_free(char *text)
{
    json_free_t free_text = NULL;

    if (text == NULL)
        return;
    json_get_alloc_funcs(NULL, &free_text); /* the host's choice */
    free_text(text);
}

void bypass_data_path(const char *relative, char *buffer, size_t size)
{
    char folder[BYPASS_PATH_CHARS];

    (void)oxni_dirutils_path_transform(BYPASS_DATA_FOLDER, folder, sizeof(folder));
    if (oxni_path_is_exist_u(folder) == 0)
        /* The write that needs the folder fails by itself. */
        (void)oxni_dirutils_mkdir(folder, BYPASS_FOLDER_MODE);
    (void)oxni_dirutils_path_transform(relative, buffer, size);
}
