/* The record of the last crash dump's time. Nothing is cached between calls; the host's timer
 * thread. */
#include "dump_record.h"

#include <oxni/base/ejs.h>
#include <oxni/base/json.h>

#include "platform_path.h"

#define DUMPRECORD_FILE PLATFORM_DATA_FOLDER "bypass_mgr_dumprecord.ejs"
#define DUMPRECORD_TIME "dump_time"

int get_dumprecord_path(char *buffer, size_t size)
{
    platform_path_create_data_folder(DUMPRECORD_FILE, buffer, size);
    return 0;
}

bool get_dumprecord_time(int64_t *dump_time)
{
    char path[PLATFORM_PATH_CHARS];
    json_t *record, *value;
    bool found;

    (void)get_dumprecord_path(path, sizeof(path));
    record = wdu_json_load_file_ejs(path);
    if (record == NULL)
        return false;
    value = wdu_json_object_get_ejs(record, DUMPRECORD_TIME);
    found = json_is_integer(value);
    if (found)
        *dump_time = json_integer_value(value);
    wdu_json_delete_ejs(record);
    return found;
}

bool set_dumprecord_time(int64_t dump_time)
{
    char path[PLATFORM_PATH_CHARS];
    json_t *record = json_object();
    bool written = false;

    if (record == NULL)
        return false;
    (void)get_dumprecord_path(path, sizeof(path));
    if (json_object_set_new(record, DUMPRECORD_TIME, json_integer(dump_time)) == 0)
        written = wdu_json_dump_file_ejs(record, path) == 0;
    wdu_json_delete_ejs(record);
    return written;
}
