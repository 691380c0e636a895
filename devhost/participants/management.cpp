/*
 * The management side of a scenario: the link, the console command that lists the known products,
 * and the resource that receives alarms.
 */
#include "management.h"

#include <deque>

#include <oxni/base/json.h>

#include "../../platform/liboxni_core/host.h"
#include "../base/json.h"
#include "../base/text.h"
#include "../base/text_json.h"
#include "../scenario/timeline.h"

static constexpr char LINK_PATH[] = "/:broadcast/dbg/oxni/quality_opr";
static constexpr char ACCEPTED[] = R"({"errcode": 0})";
static constexpr double ANSWER_SECONDS = 0.1;
static constexpr char ALARM_PATH[] = "/oxni/quality_opr";

/* How an upload is answered. */
struct upload_answer {
    std::string text; /* JSON; empty: no body */
    int32_t error;
    double delay;
};

/* Its present behaviour. */
static struct {
    int32_t link;     /* state of the link's resource; 0: down */
    bool silent;      /* answers nothing at all */
    node devices;     /* may be missing */
    std::string echo; /* in place of the usual answer */
    bool has_echo;
    bool null_echo;
    int32_t echo_error;
    double echo_delay;
    upload_answer usual;
    std::deque<node> answers; /* of the next uploads, before the usual one */
} s_management;

/* The usual answer to "quality_opr info". */
static std::string devices_text(void)
{
    return json_text<json_line>([](json_line &json) {
        json.StartObject();
        json_member(json, "total", s_management.devices.elements().size());
        json_member_as_is(json, "info",
                          s_management.devices ? node_to_text(*s_management.devices) : "[]");
        json.EndObject();
    });
}

static void answer_console(oxnih_request *call, const char *command_line, void *user)
{
    std::string echo = s_management.has_echo ? s_management.echo : devices_text();

    (void)command_line;
    (void)user;
    if (!s_management.silent)
        oxnih_dbg_answer(call, s_management.echo_error,
                         s_management.null_echo ? nullptr : echo.c_str(),
                         timeline_ms(s_management.echo_delay));
}

/* Takes over how an upload is answered. */
static void change_answer(upload_answer &answer, const node &said)
{
    if (said["answer"])
        answer.text = said["answer"]->IsNull() ? "" : node_to_text(*said["answer"]);
    answer.error = static_cast<int32_t>(said.integer("error", answer.error));
    answer.delay = said.number("delay", answer.delay);
}

static void answer_alarm(oxnih_request *request, json_t *message, void *user)
{
    upload_answer answer = s_management.usual;
    json_t *json = nullptr;

    (void)message;
    (void)user;
    if (!s_management.answers.empty()) {
        change_answer(answer, s_management.answers.front());
        s_management.answers.pop_front();
    }
    if (s_management.silent)
        return;
    if (!answer.text.empty())
        json = json_loadb(answer.text.data(), answer.text.size(), 0, nullptr);
    oxnih_res_answer(request, answer.error, json, timeline_ms(answer.delay));
    json_decref(json);
}

static int32_t link_state(const node &state)
{
    return state->IsBool() ? state->GetBool() : state->GetInt();
}

void management_set_link(const node &state)
{
    s_management.link = link_state(state);
    oxnih_res_set_state(LINK_PATH, s_management.link);
}

void management_report_link(const node &state)
{
    s_management.link = link_state(state);
    oxnih_res_report_state(LINK_PATH, s_management.link);
}

void management_change(const node &said)
{
    node echo = said["echo"];

    s_management.silent = said.flag("silent", s_management.silent);
    if (said["devices"])
        s_management.devices = said["devices"];
    if (echo) {
        s_management.has_echo = true;
        s_management.null_echo = echo->IsNull();
        s_management.echo = said.text("echo");
    }
    s_management.echo_error =
        static_cast<int32_t>(said.integer("echo_error", s_management.echo_error));
    s_management.echo_delay = said.number("echo_delay", s_management.echo_delay);
    change_answer(s_management.usual, said);
    if (said["answers"])
        s_management.answers.clear();
    for (const node &next : said["answers"].elements())
        s_management.answers.push_back(next);
    if (said["link"])
        management_set_link(said["link"]);
}

void management_open(const node &said)
{
    s_management = {};
    s_management.usual = {ACCEPTED, 0, ANSWER_SECONDS};
    s_management.echo_delay = ANSWER_SECONDS;
    oxnih_res_set_state(LINK_PATH, 0); /* the platform keeps the previous scenario's state */
    management_change(said);
}

void management_agent_started(void)
{
    oxnih_res_set_handler(ALARM_PATH, answer_alarm, nullptr);
    oxnih_dbg_set_handler("oxni", answer_console, nullptr);
    oxnih_res_set_state(LINK_PATH, s_management.link);
}
