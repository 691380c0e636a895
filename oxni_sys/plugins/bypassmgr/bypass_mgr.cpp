/*
 * Entry of the plug-in and initialisation of the core: what is set up, in which order, and the
 * hourly look at the uptime. Host's loader thread, then its callbacks.
 */
#include "bypass_mgr.h"

#include <oxni/base/debug_console.h>
#include <oxni/base/mutex.h>
#include <oxni/base/subscribee.h>
#include <oxni/base/time.h>
#include <oxni/base/timer.h>

#include "boot_time.h"
#include "bypass_log.h"
#include "bypass_mgr_internal.h"
#include "bypass_subscriber.h"
#include "report_abnormal_crash.h"

#define UPTIME_FIRST_DELAY_MS 1000u
#define UPTIME_PERIOD_MS      3600000u

/*
 * What the host holds registration messages to. One line: a pretty-printed text whose line breaks
 * are gone and whose indentation is not.
 */
static const char s_registration_schema[] = "{"
                                            "    \"type\": \"object\","
                                            "    \"properties\": {"
                                            "        \"product_name\": {"
                                            "            \"type\": \"string\","
                                            "            \"description\": \"product name\""
                                            "        },"
                                            "        \"type\": {"
                                            "            \"type\": \"string\","
                                            "            \"description\": \"type of operatorion\","
                                            "            \"enum\": ["
                                            "                \"reg\","
                                            "                \"conflict\","
                                            "                \"modify\""
                                            "            ]"
                                            "        },"
                                            "        \"count\": {"
                                            "            \"type\": \"integer\","
                                            "            \"minimum\": 0,"
                                            "            \"maximum\": 10"
                                            "        },"
                                            "        \"status\": {"
                                            "            \"type\": \"string\","
                                            "            \"enum\": ["
                                            "                \"working\","
                                            "                \"bypass\","
                                            "                \"initializing\""
                                            "                "
                                            "            ]"
                                            "        },"
                                            "        \"data\": {"
                                            "            \"type\": \"object\","
                                            "            \"properties\": {"
                                            "                \"driver_module\": {"
                                            "                    \"type\": \"array\","
                                            "                    \"items\": {"
                                            "                        \"type\": \"string\""
                                            "                    }"
                                            "                }"
                                            "            },"
                                            "            \"required\": ["
                                            "                \"driver_module\""
                                            "            ]"
                                            "        }"
                                            "    },"
                                            "    \"required\": ["
                                            "        \"product_name\","
                                            "        \"type\","
                                            "        \"status\","
                                            "        \"data\","
                                            "        \"count\""
                                            "    ]"
                                            "}";
static_assert(sizeof(s_registration_schema) == 1112 + 1, "the schema is one given text");

/* Made once and never taken: the host delivers one callback at a time. */
static oxni_mutex *s_suber_mutex;

/* The host calls a service's first callback only. */
static void bypass_mgr_second_cb(void)
{
}

static void bypass_mgr_install_cb(int32_t error, void *arg, int32_t moment, json_t *message,
                                  oxni_subscriber *subscriber)
{
    (void)arg;
    LOG_DEBUG("start install bypass_mgr errcode(%d) moment(%d) subscriber(%p)", error, moment,
              (void *)subscriber);
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

static void bypass_mgr_uptime_timer(void *timer, void *arg)
{
    uint64_t uptime_seconds = oxni_time_get_tick_cout() / 1000;

    (void)timer;
    (void)arg;
    if (uptime_seconds < CALIBRATION_UPTIME_SECONDS) {
        (void)oxni_timer_start(UPTIME_PERIOD_MS, bypass_mgr_uptime_timer, NULL);
        return;
    }
    bypass_mgr_calibrate_counts();
}

int bypass_mgr_init(void)
{
    if (bypass_mgr_registry_create() != 0) {
        LOG_WARN("expr[s_suber_map] false! init s_suber_map fail!");
        return -1;
    }
    if (s_suber_mutex == NULL && oxni_mutex_init(&s_suber_mutex) != VKL_E_SUCCESS) {
        LOG_WARN("expr[VKL_E_SUCCESS == ret] false! init mutex fail!");
        return -1;
    }
    bypass_mgr_store_load(get_bootup_time());
    (void)oxni_subscribee_install(BYPASS_SERVICE_NAME, s_registration_schema, 0,
                                  bypass_mgr_install_cb, bypass_mgr_second_cb);
    (void)oxni_dbg_decl("oxni", "bypass", bypass_mgr_dbg_help, bypass_mgr_dbg_cmd);
    report_init();
    (void)oxni_timer_start(UPTIME_FIRST_DELAY_MS, bypass_mgr_uptime_timer, NULL);
    return 0;
}

/* The one export. A core that could not be set up stays idle and shows in the log: the agent must
 * not fail with it. */
extern "C" uint64_t oxni_plugin_init(void);

extern "C" uint64_t oxni_plugin_init(void)
{
    (void)bypass_mgr_init();
    (void)bypass_subscriber_init();
    return 0;
}
