/*
 * The registry: products by subscriber handle, their messages, and the reconciliation of what a
 * product reports with what this boot's store knows of it. Host's subscriber callbacks.
 */
#include "bypass_mgr_internal.h"

#include <string.h>

#include <oxni/base/memory.h>
#include <oxni/base/time.h>

#include "bypass_log.h"
#include "json_text.h"
#include "bypass_mgr.h"

/* A word of a message and the number that stands for it. */
struct word_number {
    const char *word;
    int32_t number;
};

static const struct word_number s_type_words[] = {
    {"reg",      MESSAGE_REG     },
    {"conflict", MESSAGE_CONFLICT},
    {"modify",   MESSAGE_MODIFY  },
};

static const struct word_number s_status_words[] = {
    {"working",      STATUS_WORKING     },
    {"bypass",       STATUS_BYPASS      },
    {"initializing", STATUS_INITIALIZING},
};

/* Registered products. Key: the handle's 8 bytes; value: its struct suber_set, owned. A handle in
 * the table is retained once. */
static oxni_xhash *s_suber_map;

/* A missing word and one that is not in the table give 0. */
static int32_t number_of_word(const struct word_number *table, size_t rows, const char *word)
{
    for (size_t row = 0; word != NULL && row < rows; row++)
        if (strcmp(table[row].word, word) == 0)
            return table[row].number;
    return 0;
}

static void suber_set_free(void *value)
{
    struct suber_set *record = (struct suber_set *)value;

    if (record == NULL) {
        LOG_WARN("suber_set is NULL");
        return;
    }
    oxni_free_(record->product_name);
    oxni_xhash_destroy(record->driver_modules);
    oxni_free_(record);
}

/* Result 0; -1 no memory. Elements that are no strings name no module. */
static int suber_set_parse_modules(struct suber_set *record, const json_t *message)
{
    const json_t *modules = json_object_get(json_object_get(message, "data"), "driver_module");
    size_t count = json_array_size(modules);

    record->driver_modules = oxni_xhash_create(NULL, 0);
    if (record->driver_modules == NULL)
        return -1;
    for (size_t index = 0; index < count; index++) {
        const json_t *element = json_array_get(modules, index);
        const char *name = json_string_value(element);

        if (element == NULL)
            break;
        if (name == NULL)
            continue;
        if (oxni_xhash_insert(record->driver_modules, name, strlen(name) + 1, NULL) != 0)
            return -1;
    }
    return 0;
}

/* A new record; NULL for a NULL message and when memory runs out. Reads leniently: whatever is
 * missing or of another type stays empty. */
static struct suber_set *suber_set_parse(const json_t *message)
{
    struct suber_set *record;
    const char *name = json_string_value(json_object_get(message, "product_name"));

    if (message == NULL)
        return NULL;
    record = (struct suber_set *)oxni_zero_malloc_(sizeof(*record));
    if (record == NULL)
        return NULL;
    record->product_name = oxni_strdup(name);
    record->type = number_of_word(s_type_words, ARRAYSIZE(s_type_words),
                                  json_string_value(json_object_get(message, "type")));
    record->status = number_of_word(s_status_words, ARRAYSIZE(s_status_words),
                                    json_string_value(json_object_get(message, "status")));
    record->count = json_integer_value(json_object_get(message, "count"));
    if ((name != NULL && record->product_name == NULL) ||
        suber_set_parse_modules(record, message) != 0) {
        suber_set_free(record);
        return NULL;
    }
    return record;
}

/* Nobody has examined this boot for the product yet: the verdict comes to bypass_mgr_check_cb. */
static void start_check(oxni_subscriber *subscriber)
{
    oxni_subscriber_retain(subscriber); /* given back by the verdict */
    (void)start_bypass_status_check(bypass_mgr_check_cb, subscriber);
}

/* The product was examined in this boot and nobody was blamed: its count and the stored one
 * meet. */
static void reconcile_count(oxni_subscriber *subscriber, struct suber_set *record,
                            int64_t stored_count)
{
    struct bypass_cmd request = {"set_count", NULL, stored_count};

    record->parsed = 1;
    if (record->count == stored_count)
        return;
    if (bypass_mgr_check_driver_update() != 0) {
        LOG_INFO("Manually upgraded, no longer sending count calibration");
        return;
    }
    if (record->status == STATUS_BYPASS) {
        (void)bypass_mgr_report_trigger(record);
        return;
    }
    if (record->count < stored_count) {
        LOG_INFO("The new count is larger, and the persistent count is no longer set,new(%d) "
                 "old(%d)",
                 (int)record->count, (int)stored_count);
        (void)bypass_mgr_store_product(record);
        return;
    }
    record->count = stored_count;
    (void)bypass_mgr_send(subscriber, &request);
}

static void reconcile(oxni_subscriber *subscriber, struct suber_set *record)
{
    int64_t stored_count = bypass_mgr_stored_count(record->product_name);
    int32_t stored_status = bypass_mgr_stored_status(record->product_name);

    /* The product's own new state wins over everything that the store holds. */
    if (stored_status != record->status && stored_count != -1) {
        LOG_INFO("he state has changed, use the new state (%d -> %d) and count(%d -> %d).",
                 stored_status, record->status, (int)stored_count, (int)record->count);
        (void)bypass_mgr_store_product(record);
        return;
    }
    /* A crash was blamed on a registered module already, so everybody who comes later is ordered
     * into bypass too. */
    if (bypass_mgr_stored_crash(&record->crash) == 0) {
        struct bypass_cmd request = {"bypass", record->crash.crash_module, 0};

        record->parsed = 1;
        (void)bypass_mgr_send(subscriber, &request);
        return;
    }
    if (stored_count == -1) {
        start_check(subscriber);
        return;
    }
    reconcile_count(subscriber, record, stored_count);
}

/* A product that registers after ten days of uptime takes part in the calibration that it
 * missed. */
static void calibrate_late_product(oxni_subscriber *subscriber, struct suber_set *record)
{
    struct bypass_cmd request = {"set_count", NULL, CALIBRATED_COUNT};

    if (record->status == STATUS_BYPASS || record->count < 2 ||
        oxni_time_get_tick_cout() / 1000 < CALIBRATION_UPTIME_SECONDS)
        return;
    record->count = CALIBRATED_COUNT;
    (void)bypass_mgr_store_product(record);
    (void)bypass_mgr_send(subscriber, &request);
}

/* Result 0: the record is the table's now; -1 it stays the caller's. */
static int register_product(oxni_subscriber *subscriber, struct suber_set *record)
{
    if (bypass_mgr_find(subscriber) != NULL) {
        LOG_WARN("multiple registration");
        return -1;
    }
    oxni_subscriber_retain(subscriber);
    if (oxni_xhash_insert(s_suber_map, &subscriber, sizeof(subscriber), record) != 0) {
        /* The reference stays: unsubscribing gives one back whether the handle is filed or not. */
        LOG_WARN("Malloc memory failure");
        return -1;
    }
    if (record->status == STATUS_WORKING)
        (void)report_forget(record->product_name);
    calibrate_late_product(subscriber, record);
    reconcile(subscriber, record);
    return 0;
}

/* parsed: the message's record, borrowed. Result 0; -1 the handle is not registered. */
static int modify_product(oxni_subscriber *subscriber, const struct suber_set *parsed)
{
    struct suber_set *record = bypass_mgr_find(subscriber);

    if (record == NULL) {
        LOG_WARN("Unregistered subscribers");
        return -1;
    }
    /* The message's own record has seen no evidence, so the trigger waits: a product that enters
     * bypass by itself is not reported from here. */
    if (parsed->status == STATUS_BYPASS)
        (void)bypass_mgr_report_trigger(parsed);
    else if (parsed->status == STATUS_WORKING)
        (void)report_forget(parsed->product_name);
    record->status = parsed->status;
    (void)bypass_mgr_store_product(record);
    return 0;
}

int bypass_mgr_registry_create(void)
{
    if (s_suber_map == NULL)
        s_suber_map = oxni_xhash_create(suber_set_free, 0);
    return s_suber_map != NULL ? 0 : -1;
}

int32_t bypass_mgr_receive(oxni_subscriber *subscriber, json_t *message)
{
    struct suber_set *record;
    int result;

    if (subscriber == NULL || message == NULL) {
        LOG_WARN("expr[subscriber && jmsg] false! invalid parameter");
        return -1;
    }
    LOG_INFO_JSON(message);
    record = suber_set_parse(message);
    if (record == NULL) {
        LOG_WARN("expr[msg] false! Parsing JSON failed!");
        return -1;
    }
    if (record->type == MESSAGE_REG) {
        result = register_product(subscriber, record);
        if (result != 0)
            suber_set_free(record);
        return result;
    }
    if (record->type == MESSAGE_MODIFY)
        (void)modify_product(subscriber, record); /* an unknown sender is logged, no failure */
    suber_set_free(record);
    return 0;
}

void bypass_mgr_unsubscribe(oxni_subscriber *subscriber)
{
    const oxni_subscriber_attr *attr;

    if (subscriber == NULL)
        return;
    attr = oxni_subscriber_get_attr(subscriber);
    LOG_INFO("bypass_mgr subscriber ns(%s) name : %s unsubscribe!", attr != NULL ? attr->ns : "",
             attr != NULL ? attr->name : "");
    (void)oxni_xhash_delete(s_suber_map, &subscriber, sizeof(subscriber));
    oxni_subscriber_delete(subscriber);
}

struct suber_set *bypass_mgr_find(oxni_subscriber *subscriber)
{
    void *record = NULL;

    if (oxni_xhash_search(s_suber_map, &subscriber, sizeof(subscriber), &record) != 0)
        return NULL;
    return (struct suber_set *)record;
}

const oxni_xhash_entry *bypass_mgr_first_product(void)
{
    return oxni_xhash_first(s_suber_map);
}

const oxni_xhash_entry *bypass_mgr_next_product(const oxni_xhash_entry *entry)
{
    return oxni_xhash_next(s_suber_map, entry);
}

oxni_subscriber *bypass_mgr_entry_subscriber(const oxni_xhash_entry *entry)
{
    oxni_subscriber *subscriber;

    memcpy(&subscriber, entry->key, sizeof(subscriber));
    return subscriber;
}

struct suber_set *bypass_mgr_entry_record(const oxni_xhash_entry *entry)
{
    return (struct suber_set *)entry->value;
}

json_t *bypass_msg_build(const char *type, const char *status, int32_t count,
                         const char *const *names, int32_t count_of_names)
{
    json_t *message = json_object(), *data = json_object(), *modules = json_array();
    int failed = 0;

    for (int32_t index = 0; index < count_of_names; index++)
        failed |= json_array_append_new(modules, json_string(names[index]));
    failed |= json_object_set_new(message, "product_name", json_string("XNI"));
    failed |= json_object_set_new(message, "type", json_string(type));
    failed |= json_object_set_new(message, "status", json_string(status));
    failed |= json_object_set_new(message, "count", json_integer(count));
    failed |= json_object_set_new(data, "driver_module", modules);
    failed |= json_object_set_new(message, "data", data);
    if (failed != 0) {
        json_decref(message);
        return NULL;
    }
    return message;
}
