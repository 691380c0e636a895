/*
 * The store: what this boot knows of each product, and the crash that was blamed in it. Held as one
 * document, written whole where a change must survive a restart of the agent. Host's callbacks.
 */
#include "bypass_mgr_internal.h"

#include <oxni/base/ejs.h>
#include <oxni/base/str.h>

#include "bypass_log.h"
#include "platform_path.h"

/* The whole document, {"start_time": boot, "data": {product: entry, "crash_info": crash}}. Lives as
 * long as the process. */
static json_t *s_persist_json;

static int persistence_path(char *buffer, size_t size)
{
    platform_path_create_data_folder("@/../var/bypass_mgr/bypass_mgr_persistence.ejs", buffer,
                                     size);
    return 0;
}

/* A failed write is not noticed: the document in memory goes on to hold. */
static void write_document(void)
{
    char path[PLATFORM_PATH_CHARS];

    (void)persistence_path(path, sizeof(path));
    (void)wdu_json_dump_file_ejs(s_persist_json, path);
}

/* A member of "data", borrowed; NULL when it is missing or no object. */
static const json_t *data_member(const char *name)
{
    const json_t *member;

    if (s_persist_json == NULL) {
        LOG_WARN("Error parsing JSON");
        return NULL;
    }
    member = json_object_get(json_object_get(s_persist_json, "data"), name);
    return json_is_object(member) ? member : NULL;
}

/* Files a member of "data", whose reference is stolen, in place of an earlier one. incomplete:
 * memory ran out while it was built, and the earlier one stays: half an entry reads as none. */
static void set_data_member(const char *name, json_t *member, int incomplete)
{
    if (incomplete != 0) {
        LOG_WARN("Malloc memory failure");
        json_decref(member);
        return;
    }
    (void)json_object_set_new(json_object_get(s_persist_json, "data"), name, member);
}

void bypass_mgr_store_load(uint64_t boot_time)
{
    char path[PLATFORM_PATH_CHARS];
    json_t *data;

    (void)persistence_path(path, sizeof(path));
    wdu_json_delete_ejs(s_persist_json); /* of an earlier initialisation */
    s_persist_json = wdu_json_load_file_ejs(path);
    if (s_persist_json == NULL)
        s_persist_json = json_object();
    if (json_integer_value(wdu_json_object_get_ejs(s_persist_json, "start_time")) ==
        (json_int_t)boot_time)
        return;
    /* Both or none: the time of this boot beside the data of the last one would make its crash this
     * boot's, and beside no data nothing could be stored until the next boot. */
    data = json_object();
    if (data != NULL &&
        json_object_set_new(s_persist_json, "start_time", json_integer((json_int_t)boot_time)) ==
            0 &&
        json_object_set(s_persist_json, "data", data) != 0)
        (void)json_object_del(s_persist_json, "start_time");
    json_decref(data);
    (void)wdu_json_dump_file_ejs(s_persist_json, path);
}

int bypass_mgr_store_product(const struct suber_set *record)
{
    json_t *entry = json_object();
    int failed = json_object_set_new(entry, "count", json_integer(record->count));

    failed |= json_object_set_new(entry, "status", json_integer(record->status));
    set_data_member(record->product_name, entry, failed);
    write_document();
    return 0;
}

int64_t bypass_mgr_stored_count(const char *product_name)
{
    const json_t *count = json_object_get(data_member(product_name), "count");

    return json_is_integer(count) ? json_integer_value(count) : -1;
}

int32_t bypass_mgr_stored_status(const char *product_name)
{
    json_int_t status = json_integer_value(json_object_get(data_member(product_name), "status"));

    return status >= STATUS_WORKING && status <= STATUS_INITIALIZING ? (int32_t)status
                                                                     : STATUS_UNKNOWN;
}

int bypass_mgr_stored_crash(struct crash_info *crash)
{
    const json_t *record = data_member("crash_info");
    const char *path = json_string_value(json_object_get(record, "path"));
    const char *create_time = json_string_value(json_object_get(record, "create_time"));
    const char *module_name = json_string_value(json_object_get(record, "module_name"));

    if (path == NULL || create_time == NULL || module_name == NULL)
        return -1;
    (void)oxni_strlcpy(crash->crash_path, path, sizeof(crash->crash_path));
    (void)oxni_strlcpy(crash->crash_create_time, create_time, sizeof(crash->crash_create_time));
    (void)oxni_strlcpy(crash->crash_module, module_name, sizeof(crash->crash_module));
    return 0;
}

void bypass_mgr_store_crash(const char *path, const char *create_time, const char *module_name)
{
    json_t *record = json_object();
    int failed = json_object_set_new(record, "path", json_string(path));

    failed |= json_object_set_new(record, "create_time", json_string(create_time));
    failed |= json_object_set_new(record, "module_name", json_string(module_name));
    set_data_member("crash_info", record, failed);
    write_document();
}
