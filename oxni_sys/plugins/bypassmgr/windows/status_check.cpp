/* The check after boot: two phases of polls that ask the System log how the previous run of Windows
 * ended. Each check owns one context, which travels as the argument of its one pending timer. */
#include "status_check.h"

#include <oxni/base/memory.h>
#include <oxni/base/timer.h>

#include "boot_time.h"
#include "bypass_driver.h"
#include "bypass_log.h"
#include "crash_dump.h"
#include "dump_record.h"
#include "exception_boundary.h"
#include "filetime.h"
#include "system_events.h"
#include "win_event_parse.h"

#define POLL_MS          30000
#define STANDARD_POLLS   12
#define DUMP_ANALYSIS_MS 300000

/* One check; from oxni_zero_malloc_. */
struct status_check_ctx {
    status_check_cb callback;
    void *user;
    int32_t left; /* polls still allowed, of both phases together */
};

/* The start record of this boot comes first in the search when nothing newer was recorded: older
 * crashes and shutdowns are never reached. */
static const event_key s_crash_keys[] = {
    {EVENT_WINDOWS_START, PROVIDER_WINDOWS_START},
    {EVENT_BUGCHECK,      PROVIDER_BUGCHECK     },
};
static const event_key s_power_keys[] = {
    {EVENT_WINDOWS_START,       PROVIDER_WINDOWS_START      },
    {EVENT_UNEXPECTED_SHUTDOWN, PROVIDER_UNEXPECTED_SHUTDOWN},
};
static const event_key s_winlogon_keys[] = {
    {EVENT_WINLOGON, PROVIDER_WINLOGON},
};
static const expected_event_map s_crash_events = {s_crash_keys, ARRAYSIZE(s_crash_keys)};
static const expected_event_map s_power_events = {s_power_keys, ARRAYSIZE(s_power_keys)};
static const expected_event_map s_winlogon_events = {s_winlogon_keys, ARRAYSIZE(s_winlogon_keys)};

/* Reports the verdict; the context stays the caller's. */
static void report_verdict(const status_check_ctx *ctx, int32_t result,
                           const crash_module_set &modules, const std::string &dump_path)
{
    (void)exception_boundary("status_check_cb", [&] {
        const event_info event = {};
        (void)ctx->callback(result, modules, dump_path, event, ctx->user); /* ignored by contract */
    });
}

/* Ends a check that found no crash. */
static void end_check(status_check_ctx *ctx, int32_t result)
{
    report_verdict(ctx, result, crash_module_set(), std::string());
    oxni_free_(ctx);
}

/* Arms the next poll, which then owns the context; a check that cannot go on ends here. Result:
 * whether it goes on. */
static bool arm_poll(oxni_timer_fn poll, status_check_ctx *ctx)
{
    if (oxni_timer_start(POLL_MS, poll, ctx) != 0)
        return true;
    end_check(ctx, STATUS_CHECK_FAILED);
    return false;
}

/* Whether the newest of the expected records is of that event. A failing query counts as not
 * found. */
static bool newest_event_is(uint32_t event_id, const expected_event_map &expected, event_info *info)
{
    return win_event_parse().get_crash_info(info, expected) == 0 && info->event_id == event_id;
}

/* A path that cannot be converted, or memory that runs out in the search, does not end the check:
 * the verdict matters, and what was found until then counts. */
static bool find_dump(crash_module_set *modules, uint64_t *dump_time, std::string *dump_path)
{
    bool parsed = false;

    (void)exception_boundary("find_new_crash_dump", [&] {
        parsed = find_new_crash_dump(DUMP_ANALYSIS_MS, 0, modules, dump_time, dump_path);
    });
    return parsed;
}

static void end_check_of_crash(status_check_ctx *ctx, const event_info &info)
{
    crash_module_set modules;
    std::string dump_path;
    uint64_t dump_time = 0;
    const bool parsed = find_dump(&modules, &dump_time, &dump_path);

    LOG_INFO("windows_system_crash left count[%d] time[%s] parse ret[%d]", ctx->left,
             info.time_text, parsed);
    report_verdict(ctx, STATUS_CHECK_CRASH, modules, dump_path);
    const bool recorded = set_dumprecord_time((int64_t)dump_time);
    LOG_INFO("windows_system_crash set record ret[%d] timestamp[%I64d]", recorded,
             (int64_t)dump_time);
    oxni_free_(ctx);
}

/* The end of the previous run as far as the log has it now: one of enum status_check_result, info
 * is the record of a crash. Throws std::bad_alloc. */
static int32_t find_end_of_previous_run(const status_check_ctx *ctx, event_info *info)
{
    if (newest_event_is(EVENT_BUGCHECK, s_crash_events, info))
        return STATUS_CHECK_CRASH;
    if (!newest_event_is(EVENT_UNEXPECTED_SHUTDOWN, s_power_events, info))
        return STATUS_CHECK_NORMAL;
    /* A blue screen leaves this record too, and its own is often written later. */
    LOG_WARN("windows_nonomal_shutdown time [%s], waitting crash event, left count[%d] ",
             info->time_text, ctx->left);
    return STATUS_CHECK_UNEXPECTED_SHUTDOWN;
}

/* Second phase: a crash ends the check at once, anything else when the polls are used up. */
static void bypass_check_timer(void *timer, void *arg)
{
    status_check_ctx *ctx = (status_check_ctx *)arg;
    int32_t found = STATUS_CHECK_FAILED;
    event_info info = {};

    (void)timer;
    if (ctx == NULL)
        return;
    LOG_INFO("bypass_check_timer %d ", ctx->left);
    (void)exception_boundary("bypass_check_timer",
                             [&] { found = find_end_of_previous_run(ctx, &info); });
    if (found == STATUS_CHECK_CRASH) {
        end_check_of_crash(ctx, info);
        return;
    }
    if (found == STATUS_CHECK_FAILED || ctx->left < 1) {
        end_check(ctx, found);
        return;
    }
    ctx->left--;
    (void)arm_poll(bypass_check_timer, ctx);
}

/* Whether a user has logged on since Windows started; info is that record. */
static bool has_logged_on(event_info *info)
{
    FILETIME logged_on;

    if (!newest_event_is(EVENT_WINLOGON, s_winlogon_events, info))
        return false;
    unix_time_to_filetime(info->time_generated, &logged_on);
    return get_systempro_time() <= (int64_t)filetime_value(logged_on);
}

/* First phase: before a logon Windows may not have recorded yet how the previous run ended. */
static void winlogin_check_timer(void *timer, void *arg)
{
    status_check_ctx *ctx = (status_check_ctx *)arg;
    bool logged_on = false;
    event_info info = {};

    if (ctx == NULL)
        return;
    LOG_INFO("winlogin_check_timer left count[%d] ", ctx->left);
    if (ctx->left < 1) {
        bypass_check_timer(timer, ctx);
        return;
    }
    ctx->left--;
    if (!exception_boundary("winlogin_check_timer", [&] { logged_on = has_logged_on(&info); })) {
        end_check(ctx, STATUS_CHECK_FAILED);
        return;
    }
    if (logged_on)
        LOG_WARN("windows_winlogin left count[%d] time[%s]", ctx->left, info.time_text);
    (void)arm_poll(logged_on ? bypass_check_timer : winlogin_check_timer, ctx);
}

int32_t start_bypass_status_check(status_check_cb callback, void *user)
{
    status_check_ctx *ctx;
    uint32_t polls = STANDARD_POLLS;

    LOG_INFO("start bypass_status_check");
    if (callback == NULL)
        return 0;
    ctx = (status_check_ctx *)oxni_zero_malloc_(sizeof(*ctx));
    if (ctx == NULL) {
        const status_check_ctx unstarted = {callback, user, 0};
        report_verdict(&unstarted, STATUS_CHECK_FAILED, crash_module_set(), std::string());
        return 0;
    }
    ctx->callback = callback;
    ctx->user = user;
    (void)read_load_driver_value(L"TimerMaxCount", &polls); /* the standard stays on failure */
    ctx->left = (int32_t)polls;
    return arm_poll(winlogin_check_timer, ctx) ? 1 : 0;
}
