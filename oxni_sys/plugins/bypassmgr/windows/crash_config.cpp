/* The coded record of a driver's crashes. The driver may write its file at any time, so it is read
 * and written in one piece. */
#include "crash_config.h"

#include <stdio.h>

#include <oxni/base/algo.h>
#include <oxni/base/path.h>

#include "bypass_log.h"
#include "windows_owner.h"

/* The drivers' own. */
static const char s_record_key[] = "Tz!*#4,k";

int read_crash_config(crash_config_record *record, const wchar_t *path)
{
    size_t got;

    if (record == NULL || path == NULL)
        return CRASH_CONFIG_NULL;
    const owned_stream file(oxni_file_open_w(path, L"rb"));
    if (!file.is_valid()) {
        LOG_WARN("open file %S failed %x.", path, (unsigned)CRASH_CONFIG_NOT_OPEN);
        return CRASH_CONFIG_NOT_OPEN;
    }
    got = fread(record, 1, sizeof(*record), file.get());
    if (got != sizeof(*record)) {
        LOG_WARN("read file %S failed %d %x.", path, (int)got, (unsigned)CRASH_CONFIG_TOO_SHORT);
        return CRASH_CONFIG_TOO_SHORT;
    }
    xor_decry(record, sizeof(*record), s_record_key);
    return CRASH_CONFIG_OK;
}

int write_crash_config(crash_config_record *record, const wchar_t *path)
{
    if (record == NULL || path == NULL)
        return CRASH_CONFIG_NULL;
    const owned_stream file(oxni_file_open_w(path, L"wb+"));
    if (!file.is_valid()) {
        LOG_ERROR("open failed %x.", (unsigned)CRASH_CONFIG_NOT_OPEN);
        return CRASH_CONFIG_NOT_OPEN;
    }
    xor_encry(record, sizeof(*record), s_record_key);
    (void)fseek(file.get(), 0, SEEK_SET);
    (void)fwrite(record, 1, sizeof(*record), file.get()); /* a short file is refused when read */
    return CRASH_CONFIG_OK;
}
