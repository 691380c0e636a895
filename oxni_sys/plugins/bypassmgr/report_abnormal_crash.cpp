/*
 * The report of a bypassed product: its upload, at once or deferred until the management side is
 * connected, and the answer. Host's callbacks.
 */
#include "report_abnormal_crash.h"

#include <oxni/base/json.h>
#include <oxni/base/memory.h>
#include <oxni/base/resource.h>

#include "bypass_log.h"
#include "exception_boundary.h"
#include "json_text.h"
#include "report_alarm.h"
#include "report_history.h"
#include "report_link.h"
#include "report_pending.h"
#include "watch_timer.h"

#define UPLOAD_DEFER_MS 60000u
#define REPORT_RESOURCE "/oxni/quality_opr"

/* The deferred upload's own re-arming. Never read: that timer runs until the management side is
 * connected. */
static uint64_t s_upload_retry_timer;

/* A failed upload is not repeated: its report stays pending until the product is forgotten. */
static void take_reply(oxnir_rsp *response, char *product)
{
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

static void upload_reply_cb(oxnir_rsp *response, void *user)
{
    exception_boundary("upload reply", [&] { take_reply(response, (char *)user); });
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
        R"({"product_name": "KVD", "opr": "upload", "data": )"
        R"({"task_name": "XNI", "data_type": "data", "content": {}}})";
    json_error_t error = {};
    json_t *request;
    char *user;

    if (drv_info_is_bad(names, driver_count, product))
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
    user = oxni_strdup(product); /* freed by the reply */
    if (user == NULL) {          /* the reply could not record which product was reported */
        LOG_WARN("Failed to strdup memory");
        json_decref(request);
        return -1;
    }
    LOG_INFO("start upload bypass log for [%s]", product);
    if (oxni_res_deliver(REPORT_RESOURCE, request, user, upload_reply_cb, 0) != 0)
        oxni_free_(user); /* no reply comes */
    return 0;
}

static void upload_pending_reports(void)
{
    const oxni_xhash_entry *entry;

    for (entry = report_pending_first(); entry != NULL; entry = report_pending_next(entry)) {
        const struct drv_info *report = (const struct drv_info *)entry->value;

        (void)upload_bypass_report(report->driver_names, report->driver_count, report->product,
                                   report->crash_info);
    }
}

static void upload_pending_reports_timer(void *timer, void *arg)
{
    (void)timer;
    (void)arg;
    if (!report_link_connected()) {
        watch_timer_start("deferred upload", UPLOAD_DEFER_MS, upload_pending_reports_timer,
                          &s_upload_retry_timer);
        return;
    }
    s_upload_retry_timer = 0;
    exception_boundary("deferred upload", [] { upload_pending_reports(); });
}

int report_abnormal_crash(char *const *names, int32_t driver_count, const char *product,
                          const struct crash_info *crash)
{
    if (drv_info_is_bad(names, driver_count, product))
        return -1;
    if (!upload_history_need_report(product) || report_pending_has(product)) {
        LOG_INFO("The product(%s) has been reported as bypassed and will not be reported again.",
                 product);
        return 0;
    }
    drv_info_add(names, driver_count, product, crash);
    if (report_link_connected())
        return upload_bypass_report(names, driver_count, product, crash);
    LOG_INFO("MGR not connected, waiting for access, task for %s", product);
    watch_timer_start_if_empty("deferred upload", UPLOAD_DEFER_MS, upload_pending_reports_timer,
                               report_link_timer_slot());
    return 0;
}
