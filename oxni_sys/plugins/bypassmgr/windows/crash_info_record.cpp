/* The coded record that each of the platform's drivers keeps of its crashes. The driver may write
 * its file at any time; it is read and written in one piece. */
#include "crash_info.h"

#include "bypass_log.h"

#include <stdio.h>

#include <oxni/base/algo.h>
#include <oxni/base/path.h>

/* The drivers' own. */
static const char s_record_key[] = "Tz!*#4,k";

int read_crash_config(crash_config_record *record, const wchar_t *path)
{
    size_t got;
    FILE *file;

    if (record == NULL || path == NULL)
        return CRASH_CONFIG_NULL;
    file = oxni_file_open_w(path, L"rb");
    if (file == NULL) {
        LOG_WARN("open file %S failed %x.", path, (unsigned)CRASH_CONFIG_NOT_OPEN);
        return CRASH_CONFIG_NOT_OPEN;
    }
    got = fread(record, 1, sizeof(*record), file);
    if (got == sizeof(*record))
        xor_decry(record, sizeof(*record), s_record_key);
    else
        LOG_WARN("read file %S failed %d %x.", path, (int)got, (unsigned)CRASH_CONFIG_TOO_SHORT);
    fclose(file);
    return got == sizeof(*record) ? CRASH_CONFIG_OK : CRASH_CONFIG_TOO_SHORT;
}

int write_crash_config(crash_config_record *record, const wchar_t *path)
{
    FILE *file;

    if (record == NULL || path == NULL)
        return CRASH_CONFIG_NULL;
    file = oxni_file_open_w(path, L"wb+");
    if (file == NULL) {
        LOG_ERROR("open failed %x.", (unsigned)CRASH_CONFIG_NOT_OPEN);
        return CRASH_CONFIG_NOT_OPEN;
    }
    xor_encry(record, sizeof(*record), s_record_key);
    (void)fseek(file, 0, SEEK_SET);
    (void)fwrite(record, 1, sizeof(*record), file); /* a short file is refused when it is read */
    fclose(file);
    return CRASH_CONFIG_OK;
}
