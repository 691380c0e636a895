/*
 * The registry: products by subscriber handle, their messages, and the reconciliation of what a
 * product reports with what this boot's store knows of it. Host's subscriber callbacks.
 */
#include "bypass_mgr_registry.h"

#include <string.h>
#include <windows.h>

#include <oxni/base/memory.h>
#include <oxni/base/time.h>

#include "bypass_log.h"
#include "bypass_mgr_command.h"
#include "bypass_mgr_decision.h"
#include "bypass_mgr_report.h"
#include "bypass_mgr_store.h"
#include "bypass_mgr_table.h"
#include "driver_update.h"
#include "json_text.h"
#include "report_pending.h"
#include "status_check.h"

/* A word of a message and its number. */
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

/* A missing word and one that is not in the table give 0. */
static int32_t number_of_word(const struct word_number *table, size_t rows, const char *word)
{
    for (size_t row = 0; word != NULL && row < rows; row++)
        if (strcmp(table[row].word, word) == 0)
            return table[row].number;
    return 0;
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

/* This boot was not examined for the product yet: bypass_mgr_check_cb gets the verdict. */
static void start_check(oxni_subscriber *subscriber)
{
    oxni_subscriber_retain(subscriber); /* released by the verdict */
    (void)start_bypass_status_check(bypass_mgr_check_cb, subscriber);
}

/* This boot's store knows the product and no crash record: compares its count with the stored
 * one. */
static void reconcile_count(oxni_subscriber *subscriber, struct suber_set *record,
                            int64_t stored_count)
{
    struct bypass_cmd request = {"set_count", NULL, stored_count};

    record->parsed = 1;
    if (record->count == stored_count)
        return;
    if (driver_update_check()) {
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
        bypass_mgr_store_product(record);
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
        bypass_mgr_store_product(record);
        return;
    }
    /* A crash was blamed on a registered module already, so every product that registers later is
     * ordered into bypass too. */
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

/* Calibrates a product that registers after ten days of uptime and so missed the calibration. */
static void calibrate_late_product(oxni_subscriber *subscriber, struct suber_set *record)
{
    struct bypass_cmd request = {"set_count", NULL, CALIBRATED_COUNT};

    if (record->status == STATUS_BYPASS || record->count < 2 ||
        oxni_time_get_tick_cout() / 1000 < BYPASS_PROVEN_UPTIME_SECONDS)
        return;
    record->count = CALIBRATED_COUNT;
    bypass_mgr_store_product(record);
    (void)bypass_mgr_send(subscriber, &request);
}

/* record: stolen on success. Result 0; -1 registered already or no memory, logged. */
static int register_product(oxni_subscriber *subscriber, struct suber_set *record)
{
    if (bypass_mgr_table_find(subscriber) != NULL) {
        LOG_WARN("multiple registration");
        return -1;
    }
    oxni_subscriber_retain(subscriber);
    if (bypass_mgr_table_insert(subscriber, record) != 0) {
        /* The reference stays: unsubscribing releases one whether the handle is filed or not. */
        LOG_WARN("Malloc memory failure");
        return -1;
    }
    if (record->status == STATUS_WORKING)
        report_forget(record->product_name);
    calibrate_late_product(subscriber, record);
    reconcile(subscriber, record);
    return 0;
}

/* parsed: the message's record, borrowed. Result 0; -1 the handle is not registered. */
static int modify_product(oxni_subscriber *subscriber, const struct suber_set *parsed)
{
    struct suber_set *record = bypass_mgr_table_find(subscriber);

    if (record == NULL) {
        LOG_WARN("Unregistered subscribers");
        return -1;
    }
    /* The message's own record has seen no evidence, so the trigger waits: a product that enters
     * bypass by itself is not reported from here. */
    if (parsed->status == STATUS_BYPASS)
        (void)bypass_mgr_report_trigger(parsed);
    else if (parsed->status == STATUS_WORKING)
        report_forget(parsed->product_name);
    record->status = parsed->status;
    bypass_mgr_store_product(record);
    return 0;
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
    bypass_mgr_table_delete(subscriber);
    oxni_subscriber_delete(subscriber);
}
