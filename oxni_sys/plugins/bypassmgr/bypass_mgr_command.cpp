/*
 * Commands to products: building and sending one, what its delivery reply changes, and the two
 * broadcasts. Host's subscriber, timer and console callbacks.
 */
#include "bypass_mgr_command.h"

#include <string.h>

#include <oxni/base/memory.h>
#include <oxni/base/subscribee.h>

#include "bypass_log.h"
#include "bypass_mgr_report.h"
#include "bypass_mgr_store.h"
#include "bypass_mgr_table.h"
#include "exception_boundary.h"
#include "json_text.h"

/* Kept with each command until its reply. */
enum command_kind {
    COMMAND_OTHER = 0,
    COMMAND_BYPASS = 1,
    COMMAND_RECOVER = 2,
    COMMAND_SET_COUNT = 3,
};

static enum command_kind kind_of_type(const char *type)
{
    if (type == NULL || strcmp(type, "bypass") == 0)
        return COMMAND_BYPASS;
    if (strcmp(type, "recover") == 0)
        return COMMAND_RECOVER;
    if (strcmp(type, "set_count") == 0)
        return COMMAND_SET_COUNT;
    return COMMAND_OTHER;
}

/* Sets the members of a message that the template cannot know. Result: NULL, or the name of the
 * member that a command must not lack and memory was too short for. */
static const char *set_command(json_t *message, const struct bypass_cmd *request)
{
    if (message == NULL)
        return "message";
    if (request->type != NULL &&
        json_object_set_new(message, "type", json_string(request->type)) != 0)
        return "type";
    if (kind_of_type(request->type) == COMMAND_SET_COUNT &&
        json_object_set_new(message, "count", json_integer(request->count)) != 0)
        return "count";
    /* No UTF-8, as a name that was truncated within a character: the template's "none" remains. The
     * order matters more than its reason. */
    if (request->reason != NULL &&
        json_object_set_new(message, "reason", json_string(request->reason)) != 0)
        LOG_WARN("command is sent without its reason");
    return NULL;
}

/* A new message; NULL, logged, when it cannot be built: without type or count it would be another
 * command. */
static json_t *command_message(const struct bypass_cmd *request)
{
    json_t *message = json_loads(R"({"type":"bypass","reason":"none"})", 0, NULL);
    const char *failed = set_command(message, request);

    if (failed == NULL)
        return message;
    LOG_WARN("Malloc memory failure, command without %s is not sent", failed);
    json_decref(message);
    return NULL;
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
    bypass_mgr_store_product(record);
}

/* A push that was delivered. A "set_count" changes nothing here: its sender decided what the record
 * keeps. */
static void command_delivered(int32_t kind, oxni_subscriber *subscriber, const char *ns,
                              const char *name)
{
    struct suber_set *record = bypass_mgr_table_find(subscriber);

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

static void command_replied(int32_t error, int32_t kind, oxni_subscriber *subscriber)
{
    const oxni_subscriber_attr *attr = oxni_subscriber_get_attr(subscriber);
    const char *ns = attr != NULL ? attr->ns : "";
    const char *name = attr != NULL ? attr->name : "";

    if (error != 0)
        LOG_INFO("Sending notification failed, type(%d), ns(%s), name(%s), error(%d)", kind, ns,
                 name, error);
    else
        command_delivered(kind, subscriber, ns, name);
}

static void command_reply_cb(int32_t error, void *cookie, oxni_subscriber *subscriber,
                             void *reserved)
{
    (void)reserved;
    if (cookie == NULL || subscriber == NULL)
        return;
    exception_boundary("command reply",
                       [&] { command_replied(error, *(const int32_t *)cookie, subscriber); });
    oxni_free_(cookie);
}

/* Pushes a message; kind is given back by the reply. A refused push gets no reply. */
static void push_command(oxni_subscriber *subscriber, json_t *message, int32_t *kind)
{
    const oxni_subscriber_attr *attr = oxni_subscriber_get_attr(subscriber);

    if (oxni_subscribee_pushback(subscriber, message, kind, command_reply_cb) == 0)
        return;
    LOG_WARN("push refused, type(%d), ns(%s), name(%s)", *kind, attr != NULL ? attr->ns : "",
             attr != NULL ? attr->name : "");
    oxni_free_(kind);
}

int bypass_mgr_send(oxni_subscriber *subscriber, const struct bypass_cmd *request)
{
    int32_t *kind;
    json_t *message;

    if (subscriber == NULL) {
        LOG_WARN("invalid parameter");
        return -1;
    }
    if (bypass_mgr_table_find(subscriber) == NULL) {
        LOG_INFO("The subscriber may have lost contact");
        return 0;
    }
    kind = (int32_t *)oxni_zero_malloc_(sizeof(*kind));
    if (kind == NULL) {
        LOG_WARN("Malloc memory failure");
        return -1;
    }
    *kind = kind_of_type(request->type);
    message = command_message(request);
    if (message == NULL) {
        oxni_free_(kind);
        return -1;
    }
    LOG_INFO_JSON(message);
    push_command(subscriber, message, kind);
    json_decref(message);
    return 0;
}

void bypass_mgr_send_recovery(void)
{
    static const struct bypass_cmd request = {"recover", NULL, 0};
    const oxni_xhash_entry *entry;

    LOG_INFO("Send recovery request");
    for (entry = bypass_mgr_table_first(); entry != NULL; entry = bypass_mgr_table_next(entry)) {
        const struct suber_set *record = bypass_mgr_table_record(entry);

        if (record->recover_sent == 0 && record->status == STATUS_BYPASS && record->parsed == 1)
            (void)bypass_mgr_send(bypass_mgr_table_subscriber(entry), &request);
    }
}

void bypass_mgr_calibrate_counts(void)
{
    static const struct bypass_cmd request = {"set_count", NULL, CALIBRATED_COUNT};
    const oxni_xhash_entry *entry;

    LOG_DEBUG("Send resetcount");
    for (entry = bypass_mgr_table_first(); entry != NULL; entry = bypass_mgr_table_next(entry)) {
        const struct suber_set *record = bypass_mgr_table_record(entry);

        if (record->status == STATUS_BYPASS || record->count < 2)
            continue;
        LOG_INFO("Send resetcount %s %d-->%d", suber_set_name(record), (int)record->count,
                 CALIBRATED_COUNT);
        (void)bypass_mgr_send(bypass_mgr_table_subscriber(entry), &request);
        /* The old count goes into the store: the new one comes in with the product's next
         * registration. */
        bypass_mgr_store_product(record);
    }
}
