/* The check after boot: two phases of polls that ask the System log how the last run of Windows
 * ended. Each check owns one context, which travels as the argument of its one pending timer. */
#include "crash_info.h"

#include "boot_time.h"
#include "bypass_driver.h"
#include "bypass_log.h"

#include <stdexcept>

#include <oxni/base/memory.h>
#include <oxni/base/timer.h>

#define POLL_MS                   30000
#define STANDARD_POLLS            12
#define DUMP_ANALYSIS_MS          300000

#define EVENT_WINDOWS_START       12
#define EVENT_UNEXPECTED_SHUTDOWN 41
#define EVENT_BUGCHECK            1001
#define EVENT_WINLOGON            7001

#define PROVIDER_KERNEL_GENERAL   L"Microsoft-Windows-Kernel-General"

/* One check; from oxni_zero_malloc_. */
struct status_check_ctx {
    status_check_cb callback;
    void *user;
    int32_t left; /* polls still allowed, of both phases together */
};

/* Tells the verdict; the context is the caller's still. */
static void report_verdict(const status_check_ctx *ctx, int32_t result,
                           const crash_module_set &modules, const std::string &dump_path)
{
    const event_info event = {};

    (void)ctx->callback(result, modules, dump_path, event, ctx->user); /* ignored by contract */
}

/* Ends a check that found no crash. */
static void end_check(status_check_ctx *ctx, int32_t result)
{
    report_verdict(ctx, result, crash_module_set(), std::string());
    oxni_free_(ctx);
}

/* Arms the next poll, which owns the context then; a check that cannot go on ends here. Result:
 * whether it goes on. */
static bool arm_poll(oxni_timer_fn poll, status_check_ctx *ctx)
{
    if (oxni_timer_start(POLL_MS, poll, ctx) != 0)
        return true;
    end_check(ctx, STATUS_CHECK_FAILED);
    return false;
}

/* Whether the newest of the expected records is of that event. A failing query is as not found. */
static bool newest_event_is(uint32_t event_id, const expected_event_map &expected, event_info *info)
{
    return win_event_parse().get_crash_info(info, expected) == 0 && info->event_id == event_id;
}

/* A path that no converter takes, or memory that runs out in the search, is not worth the check:
 * the verdict matters, and what was found until then counts. */
static uint8_t find_dump(crash_module_set *modules, uint64_t *dump_time, std::string *dump_path)
{
    try {
        return find_new_crash_dump(DUMP_ANALYSIS_MS, 0, modules, dump_time, dump_path);
    } catch (const std::exception &) {
        return 0;
    }
}

static void end_check_of_crash(status_check_ctx *ctx, const event_info &info)
{
    crash_module_set modules;
    std::string dump_path;
    uint64_t dump_time = 0;
    int recorded;
    const uint8_t parsed = find_dump(&modules, &dump_time, &dump_path);

    LOG_INFO("windows_system_crash left count[%d] time[%s] parse ret[%d]", ctx->left,
             info.time_text, parsed);
    report_verdict(ctx, STATUS_CHECK_CRASH, modules, dump_path);
    recorded = set_dumprecord_time((int64_t)dump_time);
    LOG_INFO("windows_system_crash set record ret[%d] timestamp[%I64d]", recorded,
             (int64_t)dump_time);
    oxni_free_(ctx);
}

/* Second phase: a crash at once, anything else when the polls are used up. The start record of this
 * boot fences off what is older. */
static void bypass_check_timer(void *timer, void *arg)
{
    status_check_ctx *ctx = static_cast<status_check_ctx *>(arg);
    expected_event_map expected;
    event_info info = {};

    (void)timer;
    if (ctx == NULL)
        return;
    LOG_INFO("bypass_check_timer %d ", ctx->left);
    expected[{EVENT_WINDOWS_START, PROVIDER_KERNEL_GENERAL}] = 0;
    expected[{EVENT_BUGCHECK, L"BugCheck"}] = 0;
    if (newest_event_is(EVENT_BUGCHECK, expected, &info)) {
        end_check_of_crash(ctx, info);
        return;
    }
    expected.clear();
    expected[{EVENT_WINDOWS_START, PROVIDER_KERNEL_GENERAL}] = 0;
    expected[{EVENT_UNEXPECTED_SHUTDOWN, L"Microsoft-Windows-Kernel-Power"}] = 0;
    if (newest_event_is(EVENT_UNEXPECTED_SHUTDOWN, expected, &info)) {
        /* A blue screen leaves this record too, and its own is often written later. */
        LOG_WARN("windows_nonomal_shutdown time [%s], waitting crash event, left count[%d] ",
                 info.time_text, ctx->left);
        if (ctx->left < 1) {
            end_check(ctx, STATUS_CHECK_UNEXPECTED_SHUTDOWN);
            return;
        }
    }
    if (ctx->left < 1) {
        end_check(ctx, STATUS_CHECK_NORMAL);
        return;
    }
    ctx->left--;
    (void)arm_poll(bypass_check_timer, ctx);
}

/* Whether somebody has logged on since Windows started; info is that record. */
static bool has_logged_on(event_info *info)
{
    expected_event_map expected;
    FILETIME logged_on;

    expected[{EVENT_WINLOGON, L"Microsoft-Windows-Winlogon"}] = 0;
    if (!newest_event_is(EVENT_WINLOGON, expected, info))
        return false;
    unix_time_to_filetime(info->time_generated, &logged_on);
    return get_systempro_time() <= (int64_t)filetime_value(logged_on);
}

/* First phase: until then Windows may not have written what it knows about the last run. */
static void winlogin_check_timer(void *timer, void *arg)
{
    status_check_ctx *ctx = static_cast<status_check_ctx *>(arg);
    event_info info = {};

    if (ctx == NULL)
        return;
    LOG_INFO("winlogin_check_timer left count[%d] ", ctx->left);
    if (ctx->left < 1) {
        bypass_check_timer(timer, ctx);
        return;
    }
    ctx->left--;
    if (has_logged_on(&info)) {
        LOG_WARN("windows_winlogin left count[%d] time[%s]", ctx->left, info.time_text);
        (void)arm_poll(bypass_check_timer, ctx);
    } else {
        (void)arm_poll(winlogin_check_timer, ctx);
    }
}

int32_t start_bypass_status_check(status_check_cb callback, void *user)
{
    status_check_ctx *ctx;
    uint32_t polls = STANDARD_POLLS;

    LOG_INFO("start bypass_status_check");
    if (callback == NULL)
        return 0;
    ctx = static_cast<status_check_ctx *>(oxni_zero_malloc_(sizeof(*ctx)));
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
