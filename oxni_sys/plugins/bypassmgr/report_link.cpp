/*
 * The link to the management side: while it is up and has named no product, it is asked once a
 * minute which products it knows. Host's resource, console and timer callbacks.
 */
#include "report_link.h"

#include <string.h>

#include <oxni/base/debug_console.h>
#include <oxni/base/json.h>
#include <oxni/base/memory.h>
#include <oxni/base/resource.h>
#include <oxni/base/str.h>
#include <oxni/base/xhash.h>

#include "bypass_log.h"
#include "exception_boundary.h"
#include "json_text.h"
#include "platform_path.h"
#include "watch_timer.h"

#define QUALITY_POLL_PERIOD_MS 60000u

/* Products that the management side knows. Key: the name with its NUL; value: its struct
 * device_info, owned. Empty: not connected. Once filled it is never emptied. */
static oxni_xhash *s_device_info_map;
/* The slot that the poll and the deferred upload share; 0: empty. */
static uint64_t s_quality_timer;

static void device_info_free(void *value)
{
    struct device_info *device = (struct device_info *)value;

    if (device == NULL)
        return;
    oxni_free_(device->product);
    oxni_free_(device->device_id);
    oxni_free_(device->agent_version);
    oxni_free_(device);
}

/* The platform's guard ends the process. Its line names the place of the failed allocation, and the
 * log is open for it. */
#define GUARD_ALLOCATION(block)                                                                    \
    do {                                                                                           \
        if ((block) == NULL)                                                                       \
            bypass_log_open(&s_log_ready);                                                         \
        OXNI_ALLOCATION_GUARD(block, bypass_log_base_name(__FILE__));                              \
    } while (0)

static void quality_info_poll_timer(void *timer, void *arg);

static void stop_quality_timer(void)
{
    watch_timer_stop(&s_quality_timer, quality_info_poll_timer);
}

static void start_quality_timer(void)
{
    watch_timer_start("management link poll", QUALITY_POLL_PERIOD_MS, quality_info_poll_timer,
                      &s_quality_timer);
}

/* One element of the answer; one without a product is skipped. */
static void save_device(const json_t *element)
{
    const char *product = json_string_value(json_object_get(element, "product"));
    struct device_info *device;

    if (product == NULL)
        return;
    device = (struct device_info *)oxni_zero_malloc_(sizeof(*device));
    GUARD_ALLOCATION(device);
    device->product = oxni_strdup(product);
    GUARD_ALLOCATION(device->product);
    device->device_id = oxni_strdup(json_string_value(json_object_get(element, "device_id")));
    device->agent_version =
        oxni_strdup(json_string_value(json_object_get(element, "agent_version")));
    if (oxni_xhash_insert(s_device_info_map, product, strlen(product) + 1, device) != 0) {
        LOG_WARN("Failed to zero_malloc memory");
        device_info_free(device);
        return;
    }
    LOG_INFO("save product[%s] report info, device_id[%s], agent_version[%s]", product,
             device->device_id != NULL ? device->device_id : "null",
             device->agent_version != NULL ? device->agent_version : "null");
    stop_quality_timer();
}

static void save_devices(const json_t *answer)
{
    const json_t *info = json_object_get(answer, "info"), *element;

    if (json_integer_value(json_object_get(answer, "total")) < 1)
        return;
    for (size_t index = 0; (element = json_array_get(info, index)) != NULL; index++)
        save_device(element);
}

static void take_answer(int32_t error, const char *echo)
{
    json_t *answer;

    if (error != 0 || echo == NULL) {
        LOG_WARN("expr[!err && echo] false! quality_opr dbg echo fail, err[%d]", error);
        return;
    }
    answer = json_loadb(echo, strlen(echo), 0, NULL);
    if (answer == NULL) {
        LOG_WARN("expr[jresp] false! response[%s] parse to json fail!", echo);
        return;
    }
    LOG_DEBUG_JSON(answer);
    save_devices(answer);
    json_decref(answer);
}

static void quality_info_reply_cb(int32_t error, const char *echo)
{
    exception_boundary("management answer", [&] { take_answer(error, echo); });
}

static void ask_management(void)
{
    (void)oxni_dbg_exec("oxni", "quality_opr info", 0, quality_info_reply_cb);
}

static void quality_info_poll_timer(void *timer, void *arg)
{
    (void)timer;
    (void)arg;
    ask_management();
    start_quality_timer();
}

static void quality_link_cb(const char *path, int32_t state)
{
    if (state == 0) {
        LOG_DEBUG("path[%s] offline!", path);
        stop_quality_timer();
        return;
    }
    if (report_link_connected())
        return;
    ask_management();
    /* The timer in the slot is forgotten, not stopped: a second "online" starts a second poll. */
    start_quality_timer();
}

void report_link_create(void)
{
    s_device_info_map = oxni_xhash_create(device_info_free, 0);
}

void report_link_watch(void)
{
    char path[PLATFORM_PATH_CHARS];

    (void)oxni_str_snprintf(path, sizeof(path), "%s/%s/%s", "/:broadcast/dbg", "oxni",
                            "quality_opr");
    (void)oxni_res_require(path, 0, quality_link_cb);
}

bool report_link_connected(void)
{
    return oxni_xhash_count(s_device_info_map) != 0;
}

const struct device_info *report_link_device(const char *product)
{
    const oxni_xhash_entry *entry;
    void *device = NULL;

    if (oxni_xhash_search(s_device_info_map, product, strlen(product) + 1, &device) == 0)
        return (const struct device_info *)device;
    entry = oxni_xhash_first(s_device_info_map);
    return entry != NULL ? (const struct device_info *)entry->value : NULL;
}

uint64_t *report_link_timer_slot(void)
{
    return &s_quality_timer;
}
