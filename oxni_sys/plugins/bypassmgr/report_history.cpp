/*
 * The upload history: which products have had their alarm accepted, and when. One small document on
 * the disk, loaded and written whole by each operation. Host's callbacks.
 */
#include "report_history.h"

#include <oxni/base/ejs.h>
#include <oxni/base/json.h>

#include "bypass_log.h"
#include "platform_path.h"
#include "time_text.h"

/* A new document, or NULL when none can be loaded; path receives the file's path either way. */
static json_t *load_history(char *path, size_t size)
{
    platform_path_create_data_folder("@/../var/bypass_mgr/bypass_mgr_upload.ejs", path, size);
    return wdu_json_load_file_ejs(path);
}

bool upload_history_need_report(const char *product)
{
    char path[PLATFORM_PATH_CHARS];
    json_t *history;
    bool needed = false;

    if (product == NULL)
        return false;
    history = load_history(path, sizeof(path));
    if (history == NULL) {
        LOG_INFO("Failed to open [%s]!", path);
        return true;
    }
    if (json_object_get(history, product) == NULL) {
        LOG_INFO("Failed to get [%s] status!", product);
        needed = true;
    }
    wdu_json_delete_ejs(history);
    return needed;
}

bool upload_history_save(const char *product)
{
    char path[PLATFORM_PATH_CHARS], now[TIME_TEXT_CHARS];
    json_t *history;
    bool written;

    if (product == NULL)
        return false;
    history = load_history(path, sizeof(path));
    if (history == NULL)
        history = json_object();
    time_text_now(now, sizeof(now));
    written = json_object_set_new(history, product, json_string(now)) == 0 &&
              wdu_json_dump_file_ejs(history, path) == 0;
    if (!written)
        LOG_WARN("Failed to save bypass upload the history records! [%s]", product);
    wdu_json_delete_ejs(history);
    return written;
}

bool upload_history_delete(const char *product)
{
    char path[PLATFORM_PATH_CHARS];
    json_t *history;
    bool deleted = false;

    if (product == NULL)
        return false;
    history = load_history(path, sizeof(path));
    if (history == NULL) {
        LOG_INFO("Failed to open [%s]!", path);
        return false;
    }
    if (json_object_get(history, product) == NULL) {
        LOG_INFO("Failed to get [%s] status!", product);
    } else {
        (void)json_object_del(history, product);
        deleted = wdu_json_dump_file_ejs(history, path) == 0;
        if (!deleted)
            LOG_WARN("Failed to save bypass upload the history records! Delete [%s]", product);
    }
    wdu_json_delete_ejs(history);
    return deleted;
}
