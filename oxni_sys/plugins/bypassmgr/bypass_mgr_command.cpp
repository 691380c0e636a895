/*
 * Commands to products: building and sending one, what its delivery reply changes, and the two
 * broadcasts. Host's subscriber, timer and console callbacks.
 */
#include "bypass_mgr_internal.h"

#include <string.h>

#include <oxni/base/memory.h>
#include <oxni/base/subscribee.h>

#include "bypass_log.h"
#include "json_text.h"

/* Kept with each command until its reply. */
enum command_kind {
    COMMAND_OTHER = 0,
    COMMAND_BYPASS = 1,
    COMMAND_RECOVER = 2,
    COMMAND_SET_COUNT = 3,
};

static int32_t command_kind(const char *type)
{
    if (type == NULL || strcmp(type, "bypass") == 0)
        return COMMAND_BYPASS;
    if (strcmp(type, "recover") == 0)
        return COMMAND_RECOVER;
    if (strcmp(type, "set_count") == 0)
        return COMMAND_SET_COUNT;
    return COMMAND_OTHER;
}

/* A new message; NULL when memory runs out. A message that lacks a member would be another command,
 * so there is a whole one or none. */
static json_t *command_message(const struct bypass_cmd *request)
{
    json_t *message = json_loads("{\"type\":\"bypass\",\"reason\":\"none\"}", 0, NULL);
    int failed = 0;

    if (request->type != NULL)
        failed |= json_object_set_new(message, "type", json_string(request->type));
    if (request->reason != NULL)
        failed |= json_object_set_new(message, "reason", json_string(request->reason));
    if (command_kind(request->type) == COMMAND_SET_COUNT)
        failed |= json_object_set_new(message, "count", json_integer(request->count));
    if (failed != 0) {
        json_decref(message);
        return NULL;
    }
    return message;
}

/* A delivered "bypass": from here on the product counts as bypassed, with this boot's crash as its
 * own, and is reported. */
static void bypass_delivered(struct suber_set *record)
{
    record->status = STATUS_BYPASS;
    (void)bypass_mgr_stored_crash(&record->crash);
    LOG_DEBUG("crash_info module [%s] time [%s]  path[%s]", record->crash.crash_module,
              record->crash.crash_create_time, record->crash.crash_path);
    record->parsed = 1;
    (void)bypass_mgr_report_trigger(record);
    (void)bypass_mgr_store_product(record);
}

/* A push that worked. A "set_count" changes nothing here: the sender changed the count already. */
static void command_delivered(int32_t kind, oxni_subscriber *subscriber, const char *ns,
                              const char *name)
{
    struct suber_set *record = bypass_mgr_find(subscriber);

    if (record == NULL) {
        LOG_INFO("The subscriber may have lost contact");
        return;
    }
    if (kind == COMMAND_RECOVER) {
        record->recover_sent = 1;
        LOG_INFO("Successfully send recovery command, ns(%s), name(%s)", ns, name);
    } else if (kind == COMMAND_BYPASS) {
        LOG_INFO("Successfully send bypass command, ns(%s), name(%s)", ns, name);
        bypass_delivered(record);
    }
}

static void command_reply_cb(int32_t error, void *cookie, oxni_subscriber *subscriber,
                             void *reserved)
{
    const oxni_subscriber_attr *attr;
    const char *ns, *name;
    int32_t kind;

    (void)reserved;
    if (cookie == NULL || subscriber == NULL)
        return;
    attr = oxni_subscriber_get_attr(subscriber);
    ns = attr != NULL ? attr->ns : "";
    name = attr != NULL ? attr->name : "";
    kind = *(const int32_t *)cookie;
    if (error != 0)
        LOG_INFO("Sending notification failed, type(%d), ns(%s), name(%s), error(%d)", kind, ns,
                 name, error);
    else
        command_delivered(kind, subscriber, ns, name);
    oxni_free_(cookie);
}

int bypass_mgr_send(oxni_subscriber *subscriber, const struct bypass_cmd *request)
{
    int32_t *kind;
    json_t *message;
    int result = 0;

    if (subscriber == NULL) {
        LOG_WARN("invalid parameter");
        return -1;
    }
    if (bypass_mgr_find(subscriber) == NULL) {
        LOG_INFO("The subscriber may have lost contact");
        return 0;
    }
    kind = (int32_t *)oxni_zero_malloc_(sizeof(*kind));
    if (kind == NULL) {
        LOG_WARN("Malloc memory failure");
        return -1;
    }
    *kind = command_kind(request->type);
    message = command_message(request);
    LOG_INFO_JSON(message);
    if (oxni_subscribee_pushback(subscriber, message, kind, command_reply_cb) != 0) {
        LOG_WARN("Malloc memory failure");
        oxni_free_(kind); /* no reply will come for it */
        result = -1;
    }
    json_decref(message);
    return result;
}

void bypass_mgr_send_recovery(void)
{
    static const struct bypass_cmd request = {"recover", NULL, 0};
    const oxni_xhash_entry *entry;

    LOG_INFO("Send recovery request");
    for (entry = bypass_mgr_first_product(); entry != NULL;
         entry = bypass_mgr_next_product(entry)) {
        const struct suber_set *record = bypass_mgr_entry_record(entry);

        if (record->recover_sent == 0 && record->status == STATUS_BYPASS && record->parsed == 1)
            (void)bypass_mgr_send(bypass_mgr_entry_subscriber(entry), &request);
    }
}

void bypass_mgr_calibrate_counts(void)
{
    static const struct bypass_cmd request = {"set_count", NULL, CALIBRATED_COUNT};
    const oxni_xhash_entry *entry;

    LOG_DEBUG("Send resetcount");
    for (entry = bypass_mgr_first_product(); entry != NULL;
         entry = bypass_mgr_next_product(entry)) {
        const struct suber_set *record = bypass_mgr_entry_record(entry);

        if (record->status == STATUS_BYPASS || record->count < 2)
            continue;
        LOG_INFO("Send resetcount %s %d-->%d", suber_set_name(record), (int)record->count,
                 CALIBRATED_COUNT);
        (void)bypass_mgr_send(bypass_mgr_entry_subscriber(entry), &request);
        /* The old count goes into the store: the new one comes in with the product's next
         * registration. */
        (void)bypass_mgr_store_product(record);
    }
}
