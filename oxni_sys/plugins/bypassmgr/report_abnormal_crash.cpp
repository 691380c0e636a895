/*
 * The alarm for a bypassed product: pending reports, the alarm's content, its upload, at once or
 * deferred until the management side is connected, and the answer. Host's callbacks.
 */
#include "report_internal.h"

#include <string.h>

#include <oxni/base/agentid.h>
#include <oxni/base/json.h>
#include <oxni/base/memory.h>
#include <oxni/base/resource.h>
#include <oxni/base/str.h>
#include <oxni/base/time.h>
#include <oxni/base/timer.h>
#include <oxni/base/uuid.h>

#include "boot_time.h"
#include "bypass_log.h"
#include "json_text.h"
#include "time_text.h"

#define UPLOAD_DEFER_MS        60000u
#define REPORT_RESOURCE        "/oxni/quality_opr"
#define REPORT_PRODUCT_VERSION "16.20.933"
#define REPORT_TEXT_CHARS      260

/* A report that was accepted and not forgotten. Everything in it is owned. */
struct drv_info {
    char *product;
    char **driver_names;
    int32_t driver_count;
    struct crash_info *crash_info; /* NULL when the caller had none */
};

/* Pending reports. Key: the product name with its NUL; value: its struct drv_info, owned. */
static oxni_xhash *s_drv_info_map;
/* The deferred upload's own re-arming. Nobody reads it: that timer runs until it finds a connected
 * management side. */
static uint64_t s_upload_retry_timer;

static void drv_info_free(void *value)
{
    struct drv_info *report = (struct drv_info *)value;

    if (report == NULL)
        return;
    for (int32_t index = 0; report->driver_names != NULL && index < report->driver_count; index++)
        oxni_free_(report->driver_names[index]);
    oxni_free_(report->product);
    oxni_free_(report->driver_names);
    oxni_free_(report->crash_info);
    oxni_free_(report);
}

static bool arguments_are_bad(char *const *names, int32_t driver_count, const char *product)
{
    return names == NULL || driver_count < 1 || names[0] == NULL || product == NULL;
}

static bool is_pending(const char *product)
{
    return oxni_xhash_search(s_drv_info_map, product, strlen(product) + 1, NULL) == 0;
}

/* Fills a zeroed record whose name array is allocated. Result 0; -1 logged, what was copied so far
 * stays in the record. */
static int drv_info_fill(struct drv_info *report, char *const *names, const char *product,
                         const struct crash_info *crash)
{
    report->product = oxni_strdup(product);
    if (report->product == NULL) {
        LOG_WARN("Failed to strdup memory");
        return -1;
    }
    for (int32_t index = 0; index < report->driver_count; index++) {
        report->driver_names[index] = oxni_strdup(names[index]);
        if (report->driver_names[index] == NULL) {
            LOG_WARN("strdup filed!");
            return -1;
        }
    }
    if (crash == NULL)
        return 0;
    report->crash_info = (struct crash_info *)oxni_zero_malloc_(sizeof(*report->crash_info));
    if (report->crash_info == NULL) {
        LOG_WARN("expr[drv_info->crash_info] false! zero_malloc fail");
        return -1;
    }
    (void)oxni_strlcpy(report->crash_info->crash_module, crash->crash_module, CRASH_TEXT_CHARS);
    (void)oxni_strlcpy(report->crash_info->crash_path, crash->crash_path, CRASH_TEXT_CHARS);
    (void)oxni_strlcpy(report->crash_info->crash_create_time, crash->crash_create_time,
                       CRASH_TEXT_CHARS);
    return 0;
}

/* Makes the report pending; without memory it is dropped, and the next call tries again. */
static void drv_info_add(char *const *names, int32_t driver_count, const char *product,
                         const struct crash_info *crash)
{
    struct drv_info *report;
    char **copies;

    if (arguments_are_bad(names, driver_count, product) || is_pending(product))
        return;
    copies = (char **)oxni_zero_malloc_((size_t)driver_count * sizeof(*copies));
    if (copies == NULL) {
        LOG_WARN("Failed to zero_malloc memory");
        return;
    }
    report = (struct drv_info *)oxni_zero_malloc_(sizeof(*report));
    if (report == NULL) {
        LOG_WARN("Failed to zero_malloc memory");
        oxni_free_(copies);
        return;
    }
    report->driver_names = copies;
    report->driver_count = driver_count;
    if (drv_info_fill(report, names, product, crash) != 0) {
        drv_info_free(report);
    } else if (oxni_xhash_insert(s_drv_info_map, product, strlen(product) + 1, report) != 0) {
        LOG_WARN("Failed to zero_malloc memory");
        drv_info_free(report);
    }
}

/* No text, no member. Result 0; -1 when memory runs out. */
static int set_text(json_t *object, const char *key, const char *text)
{
    return text != NULL ? json_object_set_new(object, key, json_string(text)) : 0;
}

/* As set_text; what is no UTF-8, as a name of an old code page or one that was cut within a
 * character, has no member either, and the alarm goes out without it. */
static int set_foreign_text(json_t *object, const char *key, const char *text)
{
    if (text == NULL || MultiByteToWideChar(CP_UTF8, MB_ERR_INVALID_CHARS, text, -1, NULL, 0) == 0)
        return 0;
    return set_text(object, key, text);
}

static int set_crash(json_t *detail, const struct crash_info *crash)
{
    json_t *crash_json = json_object();
    int failed = 0;

    failed |= set_foreign_text(crash_json, "dumpPath", crash->crash_path);
    failed |= set_foreign_text(crash_json, "dumpPathCreateTime", crash->crash_create_time);
    failed |= set_foreign_text(crash_json, "crashModuleName", crash->crash_module);
    failed |= json_object_set_new(detail, "crashInfo", crash_json);
    return failed;
}

/* What happened, as a list with one entry in JSON text; new, NULL when memory runs out. */
static char *alarm_detail_text(char *const *names, int32_t driver_count,
                               const struct crash_info *crash, const char *bypass_time)
{
    json_t *list = json_array(), *detail = json_object(), *modules = json_array();
    char *text = NULL;
    int failed = 0;

    for (int32_t index = 0; index < driver_count; index++)
        failed |= json_array_append_new(modules, json_string(names[index]));
    failed |= set_text(detail, "bypassTime", bypass_time);
    failed |= json_object_set_new(detail, "driverName", modules);
    if (crash != NULL && crash->crash_path[0] != '\0')
        failed |= set_crash(detail, crash);
    failed |= json_array_append_new(list, detail);
    if (failed == 0)
        text = json_text_dump(list);
    json_decref(list);
    return text;
}

/* The members that name product, device and agent. Result as that of set_text, as below. */
static int set_identity(json_t *data, const char *product)
{
    const struct device_info *device = report_link_device(product);
    int failed = 0;

    failed |=
        set_foreign_text(data, "deviceId", device != NULL ? device->device_id : "XNI_DEVICE_ID");
    failed |= set_foreign_text(data, "appversion",
                               device != NULL ? device->agent_version : REPORT_PRODUCT_VERSION);
    failed |= set_text(data, "reportProductVer", REPORT_PRODUCT_VERSION);
    failed |= set_text(data, "productType", product);
    failed |= set_text(data, "reportProductType", product);
    return failed;
}

/* The members that are the same for every alarm, and the time stamps among them. */
static int set_description(json_t *data, int64_t timestamp)
{
    int failed = 0;

    failed |= set_text(data, "alarmResultTitle", "Driver Bypass");
    failed |= set_text(data, "alarmSource", "local");
    failed |= set_text(data, "vendor", "quorvel");
    failed |= set_text(data, "alarmResultAdvice",
                       "The driver has a pass, please pay attention to it in a timely manner by "
                       "your development colleagues");
    failed |= set_text(data, "alarmType", "developer");
    failed |= set_text(data, "productVer", "");
    failed |= json_object_set_new(data, "recordTimestamp", json_integer(timestamp));
    failed |= json_object_set_new(data, "uploadTimestamp", json_integer(timestamp));
    failed |= json_object_set_new(data, "insertTimestamp", json_integer(timestamp));
    failed |= set_text(data, "alarmSeverity", "urgent");
    failed |= set_text(data, "pathList", "");
    failed |= set_text(data, "keyId", "");
    failed |= set_text(data, "alarmName", "Driver Bypass");
    failed |= set_text(data, "alarmResultSummary",
                       "The system encountered a driver pass, please locate the problem based on "
                       "the details");
    failed |= set_text(data, "alarmResult", "failed");
    return failed;
}

static int set_reporter(json_t *data)
{
    char device_id[REPORT_TEXT_CHARS] = "", device_crc[REPORT_TEXT_CHARS];
    int failed = 0;

    (void)oxni_dev_get_id_md5(device_id, sizeof(device_id)); /* empty on failure */
    (void)oxni_str_snprintf(device_crc, sizeof(device_crc), "%u", oxni_dev_get_id_crc32());
    failed |= set_text(data, "reportDeviceId", device_id);
    failed |= set_text(data, "reportDeviceIdCRC", device_crc);
    LOG_INFO("reportDeviceId [%s], reportDeviceIdCRC[%s]", device_id, device_crc);
    return failed;
}

/* A new object; NULL when memory runs out: an alarm that lacks something would be taken for the
 * whole one and never be repeated. The order of the members is the management side's. */
static json_t *build_alarm_content(char *const *names, int32_t driver_count, const char *product,
                                   const struct crash_info *crash)
{
    json_t *content = json_object(), *data = json_object();
    boot_time_filetime boot_time;
    char uuid_text[REPORT_TEXT_CHARS] = "", bypass_time[TIME_TEXT_CHARS];
    oxni_uuid uuid;
    int64_t timestamp;
    char *detail;
    int failed = 0;

    (void)get_system_process_start_time(&boot_time); /* for the log lines of a failure only */
    (void)oxni_uuid_create(&uuid);
    (void)oxni_uuid_make_cstr(&uuid, uuid_text, sizeof(uuid_text));
    timestamp = oxni_time();
    time_text_local(timestamp, bypass_time, sizeof(bypass_time));
    detail = alarm_detail_text(names, driver_count, crash, bypass_time);
    failed |= json_object_set_new(data, "v", json_integer(1));
    failed |= set_text(data, "uuId", uuid_text);
    failed |= detail == NULL;
    failed |= set_text(data, "alarmResultDetail", detail);
    json_text_free(detail);
    failed |= set_text(data, "alarmResultFile", "");
    failed |= set_identity(data, product);
    failed |= set_description(data, timestamp);
    failed |= set_reporter(data);
    failed |= json_object_set_new(content, "data", data);
    failed |= set_text(content, "type", "QA_ALERT_LOG");
    if (failed == 0)
        return content;
    json_decref(content);
    return NULL;
}

/* A failed upload is not repeated: its report stays pending until the product is forgotten. */
static void upload_reply_cb(oxnir_rsp *response, void *user)
{
    char *product = (char *)user;
    int32_t error = oxnir_rsp_get_errno(response);

    if (error != 0) {
        /* The product copy is left with the failed request. */
        LOG_WARN("report_abnormal_crash received a failed reply, error: %d", error);
        return;
    }
    if (json_integer_value(json_object_get(oxnir_rsp_get_resp(response), "errcode")) != 0)
        LOG_WARN("Report failed! errcode(I64d)");
    else
        (void)upload_history_save(product);
    oxni_free_(product);
}

static void log_request(const json_t *request)
{
    char *text;

    if (oxni_log_level_get() < OXNI_LOG_DEBUG)
        return;
    text = json_dumps(request, JSON_INDENT(4));
    LOG_INFO("crach info %s", text != NULL ? text : "");
    json_text_free(text);
}

static int upload_bypass_report(char *const *names, int32_t driver_count, const char *product,
                                const struct crash_info *crash)
{
    static const char template_text[] =
        "{\"product_name\": \"KVD\", \"opr\": \"upload\", \"data\": "
        "{\"task_name\": \"XNI\", \"data_type\": \"data\", "
        "\"content\": {}}}";
    json_error_t error = {};
    json_t *request;
    char *user;

    if (arguments_are_bad(names, driver_count, product))
        return -1;
    request = json_loads(template_text, 0, &error);
    if (request == NULL) {
        LOG_WARN("error: on line %d: %s", error.line, error.text);
        return -1;
    }
    if (json_object_set_new(json_object_get(request, "data"), "content",
                            build_alarm_content(names, driver_count, product, crash)) != 0) {
        LOG_WARN("Failed to zero_malloc memory");
        json_decref(request);
        return -1;
    }
    log_request(request);
    user = oxni_strdup(product); /* freed by the answer */
    if (user == NULL) {          /* nobody would note what was reported */
        LOG_WARN("Failed to strdup memory");
        json_decref(request);
        return -1;
    }
    LOG_INFO("start upload bypass log for [%s]", product);
    if (oxni_res_deliver(REPORT_RESOURCE, request, user, upload_reply_cb, 0) != 0)
        oxni_free_(user);
    return 0;
}

static void upload_pending_reports_timer(void *timer, void *arg)
{
    const oxni_xhash_entry *entry;

    (void)timer;
    (void)arg;
    if (!report_link_connected()) {
        s_upload_retry_timer =
            oxni_timer_start(UPLOAD_DEFER_MS, upload_pending_reports_timer, NULL);
        return;
    }
    s_upload_retry_timer = 0;
    for (entry = oxni_xhash_first(s_drv_info_map); entry != NULL;
         entry = oxni_xhash_next(s_drv_info_map, entry)) {
        const struct drv_info *report = (const struct drv_info *)entry->value;

        (void)upload_bypass_report(report->driver_names, report->driver_count, report->product,
                                   report->crash_info);
    }
}

void report_pending_create(void)
{
    s_drv_info_map = oxni_xhash_create(drv_info_free, 0);
}

void report_pending_forget(const char *product)
{
    (void)oxni_xhash_delete(s_drv_info_map, product, strlen(product) + 1);
}

int report_abnormal_crash(char *const *names, int32_t driver_count, const char *product,
                          const struct crash_info *crash)
{
    if (arguments_are_bad(names, driver_count, product))
        return -1;
    if (upload_history_need_report(product) == 0 || is_pending(product)) {
        LOG_INFO("The product(%s) has been reported as bypassed and will not be reported again.",
                 product);
        return 0;
    }
    drv_info_add(names, driver_count, product, crash);
    if (report_link_connected())
        return upload_bypass_report(names, driver_count, product, crash);
    LOG_INFO("MGR not connected, waiting for access, task for %s", product);
    if (report_link_timer() == 0)
        report_link_set_timer(
            oxni_timer_start(UPLOAD_DEFER_MS, upload_pending_reports_timer, NULL));
    return 0;
}
