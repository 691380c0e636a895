/*
 * Entry of the plug-in and initialisation of the core: what is set up, in which order, and the
 * hourly check of the uptime. Host's loader thread, then its callbacks.
 */
#include "bypass_mgr.h"

#include <oxni/base/debug_console.h>
#include <oxni/base/mutex.h>
#include <oxni/base/subscribee.h>
#include <oxni/base/time.h>

#include "boot_time.h"
#include "bypass_log.h"
#include "bypass_mgr_command.h"
#include "bypass_mgr_debug.h"
#include "bypass_mgr_registry.h"
#include "bypass_mgr_schema.h"
#include "bypass_mgr_store.h"
#include "bypass_mgr_table.h"
#include "bypass_subscriber.h"
#include "exception_boundary.h"
#include "report_pending.h"
#include "watch_timer.h"

#define UPTIME_FIRST_DELAY_MS 1000u
#define UPTIME_PERIOD_MS      3600000u

/* Created and never taken: the host delivers one callback at a time. */
static oxni_mutex *s_suber_mutex;

/* The host needs a second callback and this core does not. */
static void bypass_mgr_second_cb(void)
{
}

static void handle_event(int32_t error, int32_t moment, json_t *message,
                         oxni_subscriber *subscriber)
{
    LOG_DEBUG("start install bypass_mgr errcode(%d) moment(%d) subscriber(%p)", error, moment,
              (void *)subscriber);
    watch_timer_resume();
    if (error != 0) {
        LOG_WARN("expr[0 == err] false! bypass_mgr callback failed! errcode(%d)", error);
        return;
    }
    switch (moment) {
    case OXNI_MOMENT_NONE:
    case OXNI_MOMENT_ACCEPTED: break;
    case OXNI_MOMENT_MESSAGE:
        (void)bypass_mgr_receive(subscriber, message); /* the host takes no answer */
        break;
    case OXNI_MOMENT_UNSUBSCRIBE: bypass_mgr_unsubscribe(subscriber); break;
    default: LOG_WARN("invalid moment[%d]", moment); break;
    }
}

static void bypass_mgr_install_cb(int32_t error, void *arg, int32_t moment, json_t *message,
                                  oxni_subscriber *subscriber)
{
    (void)arg;
    exception_boundary("subscriber event",
                       [&] { handle_event(error, moment, message, subscriber); });
}

static void bypass_mgr_uptime_timer(void *timer, void *arg)
{
    (void)timer;
    (void)arg;
    watch_timer_resume();
    if (oxni_time_get_tick_cout() / 1000 < BYPASS_PROVEN_UPTIME_SECONDS)
        watch_timer_start("uptime", UPTIME_PERIOD_MS, bypass_mgr_uptime_timer, NULL);
    else
        exception_boundary("count calibration", [] { bypass_mgr_calibrate_counts(); });
}

int bypass_mgr_init(void)
{
    if (bypass_mgr_table_create() != 0) {
        LOG_WARN("expr[s_suber_map] false! init s_suber_map fail!");
        return -1;
    }
    if (s_suber_mutex == NULL && oxni_mutex_init(&s_suber_mutex) != VKL_E_SUCCESS) {
        LOG_WARN("expr[VKL_E_SUCCESS == ret] false! init mutex fail!");
        return -1;
    }
    bypass_mgr_store_load(get_bootup_time());
    (void)oxni_subscribee_install("bypass_mgr", bypass_mgr_registration_schema, 0,
                                  bypass_mgr_install_cb, bypass_mgr_second_cb);
    (void)oxni_dbg_decl("oxni", "bypass", bypass_mgr_dbg_help, bypass_mgr_dbg_cmd);
    report_init();
    watch_timer_start("uptime", UPTIME_FIRST_DELAY_MS, bypass_mgr_uptime_timer, NULL);
    return 0;
}

/* The one export. A core that could not be set up stays idle and is visible in the log: the agent
 * must not fail with it. */
extern "C" uint64_t oxni_plugin_init(void);

extern "C" uint64_t oxni_plugin_init(void)
{
    exception_boundary("bypass_mgr_init", [] { (void)bypass_mgr_init(); });
    exception_boundary("bypass_subscriber_init", [] { (void)bypass_subscriber_init(); });
    return 0;
}
