/* The content of an alarm: its members in the management side's order. Keeps no state; host's
 * callbacks. */
#include "report_alarm.h"

#include <windows.h>

#include <oxni/base/agentid.h>
#include <oxni/base/str.h>
#include <oxni/base/time.h>
#include <oxni/base/uuid.h>

#include "boot_time.h"
#include "bypass_log.h"
#include "json_text.h"
#include "report_link.h"
#include "time_text.h"

#define REPORT_PRODUCT_VERSION "16.20.933"
#define REPORT_TEXT_CHARS      260

/* Facts of one alarm. Borrowed texts; NULL leaves the member out. */
struct alarm_facts {
    const char *product;
    const char *detail; /* JSON text */
    const char *device_id;
    const char *agent_version;
    int64_t timestamp; /* seconds since 1970 UTC */
    char uuid[REPORT_TEXT_CHARS];
    char reporter_id[REPORT_TEXT_CHARS];
    char reporter_crc[REPORT_TEXT_CHARS];
};

/* Where a member's value comes from. */
enum alarm_source {
    ALARM_CONSTANT, /* the row's text */
    ALARM_FORMAT_VERSION,
    ALARM_UUID,
    ALARM_DETAIL,
    ALARM_DEVICE_ID,
    ALARM_AGENT_VERSION,
    ALARM_PRODUCT,
    ALARM_TIMESTAMP,
    ALARM_REPORTER_ID,
    ALARM_REPORTER_CRC,
};

/* key, source of the value, constant text */
static const struct alarm_member {
    const char *key;
    enum alarm_source source;
    const char *text;
} s_alarm_members[] = {
    {"v",                  ALARM_FORMAT_VERSION, NULL                                      },
    {"uuId",               ALARM_UUID,           NULL                                      },
    {"alarmResultDetail",  ALARM_DETAIL,         NULL                                      },
    {"alarmResultFile",    ALARM_CONSTANT,       ""                                        },
    {"deviceId",           ALARM_DEVICE_ID,      NULL                                      },
    {"appversion",         ALARM_AGENT_VERSION,  NULL                                      },
    {"reportProductVer",   ALARM_CONSTANT,       REPORT_PRODUCT_VERSION                    },
    {"productType",        ALARM_PRODUCT,        NULL                                      },
    {"reportProductType",  ALARM_PRODUCT,        NULL                                      },
    {"alarmResultTitle",   ALARM_CONSTANT,       "Driver Bypass"                           },
    {"alarmSource",        ALARM_CONSTANT,       "local"                                   },
    {"vendor",             ALARM_CONSTANT,       "quorvel"                                 },
    {"alarmResultAdvice",  ALARM_CONSTANT,
     "The driver has a pass, please pay attention to it in a timely manner by your development "
     "colleagues"                                                                          },
    {"alarmType",          ALARM_CONSTANT,       "developer"                               },
    {"productVer",         ALARM_CONSTANT,       ""                                        },
    {"recordTimestamp",    ALARM_TIMESTAMP,      NULL                                      },
    {"uploadTimestamp",    ALARM_TIMESTAMP,      NULL                                      },
    {"insertTimestamp",    ALARM_TIMESTAMP,      NULL                                      },
    {"alarmSeverity",      ALARM_CONSTANT,       "urgent"                                  },
    {"pathList",           ALARM_CONSTANT,       ""                                        },
    {"keyId",              ALARM_CONSTANT,       ""                                        },
    {"alarmName",          ALARM_CONSTANT,       "Driver Bypass"                           },
    {"alarmResultSummary", ALARM_CONSTANT,
     "The system encountered a driver pass, please locate the problem based on the details"},
    {"alarmResult",        ALARM_CONSTANT,       "failed"                                  },
    {"reportDeviceId",     ALARM_REPORTER_ID,    NULL                                      },
    {"reportDeviceIdCRC",  ALARM_REPORTER_CRC,   NULL                                      },
};

/* Sets a text member. One that is no UTF-8, as a name that was truncated within a character, is left
 * out, and so is NULL. Result 0; -1 no memory. */
static int set_text(json_t *object, const char *key, const char *text)
{
    if (text == NULL || MultiByteToWideChar(CP_UTF8, MB_ERR_INVALID_CHARS, text, -1, NULL, 0) == 0)
        return 0;
    return json_object_set_new(object, key, json_string(text));
}

static int set_crash(json_t *detail, const struct crash_info *crash)
{
    json_t *crash_json = json_object();
    int failed = 0;

    failed |= set_text(crash_json, "dumpPath", crash->crash_path);
    failed |= set_text(crash_json, "dumpPathCreateTime", crash->crash_create_time);
    failed |= set_text(crash_json, "crashModuleName", crash->crash_module);
    failed |= json_object_set_new(detail, "crashInfo", crash_json);
    return failed;
}

/* The detail of the alarm, a list with one entry, as JSON text; new, freed with json_text_free. NULL
 * when memory runs out. */
static char *alarm_detail_text(char *const *names, int32_t driver_count,
                               const struct crash_info *crash, int64_t timestamp)
{
    json_t *list = json_array(), *detail = json_object(), *modules = json_array();
    char bypass_time[TIME_TEXT_CHARS], *text = NULL;
    int failed = 0;

    time_text_local(timestamp, bypass_time, sizeof(bypass_time));
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

static void collect_facts(struct alarm_facts *facts, const char *product)
{
    const struct device_info *device = report_link_device(product);
    oxni_uuid uuid;

    (void)oxni_uuid_create(&uuid);
    (void)oxni_uuid_make_cstr(&uuid, facts->uuid, sizeof(facts->uuid));
    facts->timestamp = oxni_time();
    facts->product = product;
    facts->device_id = device != NULL ? device->device_id : "XNI_DEVICE_ID";
    facts->agent_version = device != NULL ? device->agent_version : REPORT_PRODUCT_VERSION;
    (void)oxni_dev_get_id_md5(facts->reporter_id, sizeof(facts->reporter_id)); /* "" on failure */
    (void)oxni_str_snprintf(facts->reporter_crc, sizeof(facts->reporter_crc), "%u",
                            oxni_dev_get_id_crc32());
}

/* Result 0; -1 no memory. */
static int set_member(json_t *data, const struct alarm_member &member,
                      const struct alarm_facts &facts)
{
    switch (member.source) {
    case ALARM_CONSTANT: return set_text(data, member.key, member.text);
    case ALARM_FORMAT_VERSION: return json_object_set_new(data, member.key, json_integer(1));
    case ALARM_UUID: return set_text(data, member.key, facts.uuid);
    case ALARM_DETAIL: return set_text(data, member.key, facts.detail);
    case ALARM_DEVICE_ID: return set_text(data, member.key, facts.device_id);
    case ALARM_AGENT_VERSION: return set_text(data, member.key, facts.agent_version);
    case ALARM_PRODUCT: return set_text(data, member.key, facts.product);
    case ALARM_TIMESTAMP:
        return json_object_set_new(data, member.key, json_integer(facts.timestamp));
    case ALARM_REPORTER_ID: return set_text(data, member.key, facts.reporter_id);
    case ALARM_REPORTER_CRC: return set_text(data, member.key, facts.reporter_crc);
    }
    return -1;
}

json_t *build_alarm_content(char *const *names, int32_t driver_count, const char *product,
                            const struct crash_info *crash)
{
    json_t *content = json_object(), *data = json_object();
    struct alarm_facts facts = {};
    boot_time_filetime boot_time;
    char *detail;
    int failed;

    (void)get_system_process_start_time(&boot_time); /* only for its log lines */
    collect_facts(&facts, product);
    detail = alarm_detail_text(names, driver_count, crash, facts.timestamp);
    facts.detail = detail;
    failed = detail == NULL;
    for (const struct alarm_member &member : s_alarm_members)
        failed |= set_member(data, member, facts);
    json_text_free(detail);
    LOG_INFO("reportDeviceId [%s], reportDeviceIdCRC[%s]", facts.reporter_id, facts.reporter_crc);
    failed |= json_object_set_new(content, "data", data);
    failed |= set_text(content, "type", "QA_ALERT_LOG");
    if (failed == 0)
        return content;
    json_decref(content);
    return NULL;
}
