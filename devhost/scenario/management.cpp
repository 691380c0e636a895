/*
 * The management side of a scenario: the link, the console command that tells the known products,
 * and the resource that takes alarms.
 */
#include "management.h"

#include <oxni/base/json.h>

#include "../../platform/liboxni_core/host.h"
#include "../base/text.h"
#include "timeline.h"

#define LINK_PATH  "/:broadcast/dbg/oxni/quality_opr"
#define ALARM_PATH "/oxni/quality_opr"

/* How it behaves at present. */
static struct {
    int32_t link;        /* state of the link's resource; 0: down */
    bool silent;         /* answers nothing at all */
    std::string devices; /* JSON array text */
    std::string echo;    /* in place of the usual answer */
    bool has_echo;
    bool null_echo;
    int32_t echo_error;
    double echo_delay;
    std::string answer; /* JSON text; empty: none */
    int32_t error;
    double delay;
} s_management;

static size_t devices_count(void)
{
    rapidjson::Document document;

    document.Parse(s_management.devices.c_str());
    return document.IsArray() ? document.Size() : 0;
}

static void answer_console(oxnih_request *call, const char *command_line, void *user)
{
    std::string echo = s_management.has_echo ? s_management.echo
                                             : text_format("{\"total\": %u, \"info\": %s}",
                                                           static_cast<unsigned>(devices_count()),
                                                           s_management.devices.c_str());

    (void)command_line;
    (void)user;
    if (!s_management.silent)
        oxnih_dbg_answer(call, s_management.echo_error,
                         s_management.null_echo ? NULL : echo.c_str(),
                         timeline_ms(s_management.echo_delay));
}

static void answer_alarm(oxnih_request *request, json_t *message, void *user)
{
    json_t *answer = NULL;

    (void)message;
    (void)user;
    if (s_management.silent)
        return;
    if (!s_management.answer.empty())
        answer = json_loadb(s_management.answer.data(), s_management.answer.size(), 0, NULL);
    oxnih_res_answer(request, s_management.error, answer, timeline_ms(s_management.delay));
    json_decref(answer);
}

void management_change(const json_value &said)
{
    const json_value *devices = node_member(&said, "devices");
    const json_value *answer = node_member(&said, "answer");
    const json_value *echo = node_member(&said, "echo");
    const json_value *link = node_member(&said, "link");

    s_management.silent = node_flag_of(&said, "silent", s_management.silent);
    if (devices != NULL)
        s_management.devices = node_to_text(*devices);
    if (echo != NULL) {
        s_management.has_echo = true;
        s_management.null_echo = echo->IsNull();
        s_management.echo = echo->IsString() ? echo->GetString() : "";
    }
    s_management.echo_error =
        static_cast<int32_t>(node_integer_of(&said, "echo_error", s_management.echo_error));
    s_management.echo_delay = node_number_of(&said, "echo_delay", s_management.echo_delay);
    if (answer != NULL)
        s_management.answer = answer->IsNull() ? "" : node_to_text(*answer);
    s_management.error = static_cast<int32_t>(node_integer_of(&said, "error", s_management.error));
    s_management.delay = node_number_of(&said, "delay", s_management.delay);
    if (link != NULL) {
        s_management.link = link->IsBool() ? link->GetBool() : link->GetInt();
        oxnih_res_set_state(LINK_PATH, s_management.link);
    }
}

void management_open(const struct scenario &scenario)
{
    const json_value *said = node_member(&scenario.document, "management");

    s_management = {};
    s_management.devices = "[]";
    s_management.answer = "{\"errcode\": 0}";
    s_management.echo_delay = s_management.delay = 0.1;
    oxnih_res_set_state(LINK_PATH, 0); /* the platform keeps what the scenario before left */
    if (said != NULL)
        management_change(*said);
}

void management_agent_started(void)
{
    oxnih_res_set_handler(ALARM_PATH, answer_alarm, NULL);
    oxnih_dbg_set_handler("oxni", answer_console, NULL);
    oxnih_res_set_state(LINK_PATH, s_management.link);
}
