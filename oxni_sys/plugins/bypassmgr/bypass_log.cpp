/* Opens the host's log. Stateless; any thread of the host. */
#include "bypass_log.h"

#include <oxni/base/path.h>
#include <oxni/base/str.h>

/* Log files that are kept of one process. */
#define LOG_FILES      5
#define LOG_PATH_CHARS 260

void bypass_log_open(bool *ready)
{
    char base[LOG_PATH_CHARS], process[LOG_PATH_CHARS], directory[3 * LOG_PATH_CHARS];

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
