/*
 * The store: what this boot knows of each product, and the crash that was blamed in it. Held as one
 * document, written whole where a change must survive a restart of the agent. Host's callbacks.
 */
#include "bypass_mgr_store.h"

#include <oxni/base/ejs.h>
#include <oxni/base/json.h>
#include <oxni/base/str.h>

#include "bypass_log.h"
#include "platform_path.h"

#define PERSISTENCE_FILE PLATFORM_DATA_FOLDER "bypass_mgr_persistence.ejs"

/* The whole document, {"start_time": boot, "data": {product: entry, "crash_info": crash}}. Lives as
 * long as the process; NULL while memory is too short for it. */
static json_t *s_persist_json;
/* Start of this boot of Windows, seconds since 1970 UTC. */
static json_int_t s_start_time;

/* Writes the document. A failed write is not noticed: the document in memory remains
 * authoritative. */
static void write_document(void)
{
    char path[PLATFORM_PATH_CHARS];

    if (s_persist_json == NULL)
        return;
    platform_path_create_data_folder(PERSISTENCE_FILE, path, sizeof(path));
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

/* The document of this boot belongs to it. An integer that is there is set in place, which needs no
 * memory. Result 0; -1 no memory. */
static int set_start_time(void)
{
    json_t *start_time = json_object_get(s_persist_json, "start_time");

    if (json_is_integer(start_time))
        return json_integer_set(start_time, s_start_time);
    return json_object_set_new(s_persist_json, "start_time", json_integer(s_start_time));
}

/* Makes the document complete again after memory was too short for a part of it, or after a
 * document of this boot was loaded whose "data" is missing or no object. Result: "data", borrowed;
 * NULL, logged, when members cannot be stored now. */
static json_t *complete_data(void)
{
    json_t *data;
    int failed;

    if (s_persist_json == NULL)
        s_persist_json = json_object();
    failed = set_start_time();
    data = json_object_get(s_persist_json, "data");
    if (!json_is_object(data)) {
        LOG_WARN("store has no data object, starting an empty one");
        failed |= json_object_set_new(s_persist_json, "data", json_object());
        data = json_object_get(s_persist_json, "data");
    }
    if (failed == 0)
        return data;
    LOG_WARN("Malloc memory failure");
    return NULL;
}

/* Stores a member of "data", whose reference is stolen, in place of an earlier one. A member that
 * memory was too short to build does not replace the earlier one: half an entry reads as none. A
 * product without a name has no entry. */
static void set_data_member(const char *name, json_t *member, int incomplete)
{
    json_t *data = complete_data();

    if (incomplete != 0)
        LOG_WARN("Malloc memory failure");
    if (incomplete != 0 || data == NULL || name == NULL)
        json_decref(member);
    else if (json_object_set_new(data, name, member) != 0)
        LOG_WARN("Malloc memory failure");
}

/* Empties the document for this boot. Nothing of the previous boot may stay in force when memory
 * runs out, so what is there is cleared in place, which needs none. */
static void reset_document(void)
{
    json_t *data = json_object_get(s_persist_json, "data");
    int failed = set_start_time();

    if (json_is_object(data))
        failed |= json_object_clear(data);
    else
        failed |= json_object_set_new(s_persist_json, "data", json_object());
    if (failed != 0)
        LOG_WARN("Malloc memory failure");
}

void bypass_mgr_store_load(uint64_t boot_time)
{
    char path[PLATFORM_PATH_CHARS];

    s_start_time = (json_int_t)boot_time;
    platform_path_create_data_folder(PERSISTENCE_FILE, path, sizeof(path));
    wdu_json_delete_ejs(s_persist_json); /* of an earlier initialisation */
    s_persist_json = wdu_json_load_file_ejs(path);
    if (!json_is_object(s_persist_json)) { /* nothing could be kept in it */
        wdu_json_delete_ejs(s_persist_json);
        s_persist_json = json_object();
    }
    if (s_persist_json == NULL) {
        LOG_WARN("Malloc memory failure");
        return;
    }
    if (json_integer_value(wdu_json_object_get_ejs(s_persist_json, "start_time")) == s_start_time)
        return;
    reset_document();
    (void)wdu_json_dump_file_ejs(s_persist_json, path);
}

void bypass_mgr_store_product(const struct suber_set *record)
{
    json_t *entry = json_object();
    int failed = json_object_set_new(entry, "count", json_integer(record->count));

    failed |= json_object_set_new(entry, "status", json_integer(record->status));
    set_data_member(record->product_name, entry, failed);
    write_document();
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
