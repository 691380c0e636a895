/*
 * The platform's own drivers as a product: they cannot register themselves, so this subscriber does
 * it for them, applies the core's commands to their registry marks and crash records, and reports to
 * the core when one went into bypass by itself. Host's subscriber and timer callbacks.
 */
#include "bypass_subscriber.h"

#include <string.h>
#include <windows.h>

#include <oxni/base/json.h>
#include <oxni/base/subscriber.h>
#include <oxni/base/time.h>

#include "bypass_driver.h"
#include "bypass_log.h"
#include "json_text.h"
#include "time_text.h"
#include "bypass_sp_driver.h"
#include "exception_boundary.h"
#include "watch_timer.h"

#define CHECK_PERIOD_MS  1800000u
#define SETTER_TRIES     3
#define SETTER_PAUSE_MS  10u
#define ERROR_TIME_CHARS 260
/* Wait count of the service checks: they query once and do not wait. */
#define ASK_ONCE 1u

/* Both groups: the first four share the state of load_driver, the last one is the self-protection
 * driver. */
static const char *const s_driver_names[] = {
    "load_driver", "file_filter", "function_driver", "network_driver", "oxnisp_driver",
};
#define DRIVER_COUNT     5
#define LOAD_GROUP_COUNT 4
static_assert(ARRAYSIZE(s_driver_names) == DRIVER_COUNT, "the last one is a group of its own");

/* Sends every message of this file. Lives as long as the process; NULL until it can be created. */
static oxni_subscriber *s_bypass_subscriber;
/* Whether the subscription was accepted for delivery. */
static bool s_subscribed;
/* The count that the registration announces. */
static int32_t s_start_count;
/* Whether a group's bypass was reported to the core; never cleared. */
static bool s_driver_bypass_sent;
static bool s_sp_driver_bypass_sent;

/* A message of product "XNI"; names in the order of the message. A new object; NULL when memory runs
 * out. */
static json_t *bypass_msg_build(const char *type, const char *status, int32_t count,
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

static void bypass_subscriber_send(const char *type, const char *status, int32_t count,
                                   const char *const *names, int32_t count_of_names)
{
    json_t *message = bypass_msg_build(type, status, count, names, count_of_names);

    LOG_DEBUG_JSON(message);
    (void)oxni_subscriber_pushforward(s_bypass_subscriber, message, NULL, NULL);
    json_decref(message);
}

static void try_set_driver_bypass(void)
{
    for (int tried = 1; tried <= SETTER_TRIES; tried++) {
        uint32_t result = set_load_driver_crashflag();

        LOG_INFO("xni try set driver bypass ret(%d)\n, try count(%d) )", (int)result, tried);
        if (result == 0)
            return;
        oxni_msleep(SETTER_PAUSE_MS);
    }
}

static void try_set_sp_driver_bypass(void)
{
    for (int tried = 1; tried <= SETTER_TRIES; tried++) {
        uint32_t result = set_oxnisp_driver_crashflag();

        LOG_INFO("xni try set sp driver bypass ret(%d)\n, try count(%d) )", (int)result, tried);
        if (result == 0)
            return;
        oxni_msleep(SETTER_PAUSE_MS);
    }
}

static void set_count(uint32_t count)
{
    crash_config_record record = {};
    int result;

    result = read_load_driver_crash_config(&record);
    LOG_INFO("xni get crash info ret:[%d], count:[%d]", result, (int)record.count);
    record.count = count;
    result = write_load_driver_crash_config(&record);
    LOG_INFO("xni set crash info ret:[%d], set count:[%d]", result, (int)count);

    /* The self-protection driver keeps its own count: its record is only written back. */
    record = {};
    result = read_oxnisp_crash_config(&record);
    LOG_INFO("xni get sp crash info ret:[%d], count:[%d]", result, (int)record.count);
    result = write_oxnisp_crash_config(&record);
    LOG_INFO("xni set sp crash info ret:[%d], set count:[%d]", result, (int)count);
}

static void recover(void)
{
    uint32_t result = recover_load_driver();

    LOG_INFO("xni set driver recover %d", (int)result);
    result = recover_oxnisp_driver();
    LOG_INFO("xni set sp driver recover %d", (int)result);
}

static void obey(const json_t *message)
{
    const char *type = json_string_value(json_object_get(message, "type"));

    if (type == NULL)
        return;
    if (strcmp(type, "set_count") == 0) {
        set_count((uint32_t)json_integer_value(json_object_get(message, "count")));
    } else if (strcmp(type, "bypass") == 0) {
        try_set_driver_bypass();
        try_set_sp_driver_bypass();
    } else if (strcmp(type, "recover") == 0) {
        recover();
    }
}

/* Checks a group that was not found in bypass yet, and reports it to the core once. */
static void check_load_group(void)
{
    crash_config_record record = {};

    s_driver_bypass_sent = check_load_driver_bypass(ASK_ONCE);
    if (!s_driver_bypass_sent)
        return;
    (void)read_load_driver_crash_config(&record);
    bypass_subscriber_send("modify", "bypass", (int32_t)record.count, s_driver_names,
                           LOAD_GROUP_COUNT);
}

static void check_sp_driver(void)
{
    crash_config_record record = {};

    s_sp_driver_bypass_sent = check_oxnisp_driver_bypass(ASK_ONCE);
    if (!s_sp_driver_bypass_sent)
        return;
    (void)read_oxnisp_crash_config(&record);
    bypass_subscriber_send("modify", "bypass", (int32_t)record.count,
                           &s_driver_names[LOAD_GROUP_COUNT], DRIVER_COUNT - LOAD_GROUP_COUNT);
}

/* The record's counts and error times at the start, for the log; the count of load_driver is the
 * product's. */
static int32_t read_start_count(void)
{
    crash_config_record record = {}, sp_record = {};
    char time_text[ERROR_TIME_CHARS] = "", sp_time_text[ERROR_TIME_CHARS] = "";
    int result;

    result = read_load_driver_crash_config(&record);
    if (record.count == 0)
        record.count = 1; /* a registration never announces 0 */
    LOG_INFO("oxni load_driver crash_info ret[%d] count[%d]", result, (int)record.count);
    result = read_oxnisp_crash_config(&sp_record);
    LOG_INFO("oxnisp_driver crash_info  ret[%d] count[%d]", result, (int)sp_record.count);
    if (get_oxnisp_driver_errortime(sp_time_text, sizeof(sp_time_text)))
        LOG_INFO("oxnisp_driver bypass time:[%s]", sp_time_text);
    if (get_load_driver_errortime(time_text, sizeof(time_text)))
        LOG_INFO("oxni load_driver bypass time:[%s]", time_text);
    return (int32_t)record.count;
}

static void bypass_subscriber_cb(oxni_subscriber *subscriber, uint32_t event, void *arg,
                                 json_t *message);

/* Registers the platform's drivers; what fails is logged and tried again by the next check. */
static void subscribe(void)
{
    static const oxni_subscriber_attr attr = {"XNI", "BYPASS", NULL};
    json_t *message;

    /* "working" whatever the drivers do at this moment: the check reports a bypass. */
    message = bypass_msg_build("reg", "working", s_start_count, s_driver_names, DRIVER_COUNT);
    if (s_bypass_subscriber == NULL)
        s_bypass_subscriber = oxni_subscriber_new(&attr);
    if (message != NULL && s_bypass_subscriber != NULL)
        s_subscribed = oxni_subscriber_subscribe(s_bypass_subscriber, "bypass_mgr", message,
                                                 bypass_subscriber_cb) == 0;
    if (!s_subscribed)
        LOG_WARN("registration of XNI failed, message(%d) subscriber(%d)", message != NULL,
                 s_bypass_subscriber != NULL);
    json_decref(message);
}

/* A bypass is found once and reported at once, so an unregistered subscriber registers first. */
static void check_groups(void)
{
    if (!s_subscribed)
        subscribe();
    if (s_subscribed && !s_driver_bypass_sent)
        check_load_group();
    if (s_subscribed && !s_sp_driver_bypass_sent)
        check_sp_driver();
}

/* Two chains of this timer run: one from the start, one from the subscription. Each ends when both
 * groups have been reported. */
static void bypass_subscriber_check_timer(void *timer, void *arg)
{
    (void)timer;
    (void)arg;
    exception_boundary("platform drivers' check", [] { check_groups(); });
    if (!s_driver_bypass_sent || !s_sp_driver_bypass_sent)
        watch_timer_start("platform drivers' check", CHECK_PERIOD_MS, bypass_subscriber_check_timer,
                          NULL);
}

static void handle_message(uint32_t event, const json_t *message)
{
    if (event == 0) {
        LOG_INFO("Subscription successful");
        bypass_subscriber_check_timer(NULL, NULL);
    } else if (event == 1 && message != NULL) {
        LOG_DEBUG_JSON(message);
        obey(message);
    }
}

static void bypass_subscriber_cb(oxni_subscriber *subscriber, uint32_t event, void *arg,
                                 json_t *message)
{
    (void)subscriber;
    (void)arg;
    exception_boundary("platform drivers' command", [&] { handle_message(event, message); });
}

int32_t bypass_subscriber_init(void)
{
    s_start_count = read_start_count();
    s_bypass_subscriber = NULL; /* of an earlier initialisation; it lives on */
    s_subscribed = false;
    watch_timer_start("platform drivers' check", CHECK_PERIOD_MS, bypass_subscriber_check_timer,
                      NULL);
    subscribe();
    return 0;
}
