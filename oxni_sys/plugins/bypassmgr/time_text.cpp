/* Local date and time as text. */
#include "time_text.h"

#include <oxni/base/str.h>
#include <oxni/base/time.h>

void time_text_local(int64_t seconds, char *buffer, size_t size)
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

void time_text_now(char *buffer, size_t size)
{
    time_text_local(oxni_time(), buffer, size);
}
