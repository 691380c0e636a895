/* Promises about resources, the debug console and timers. */
#include "check.h"

#include <oxni/base/debug_console.h>
#include <oxni/base/resource.h>
#include <oxni/base/time.h>
#include <oxni/base/timer.h>

static void on_state(const char *path, int32_t state)
{
    note(path + std::string("=") + std::to_string(state));
}

static void on_response(oxnir_rsp *response, void *user)
{
    const int32_t error = oxnir_rsp_get_errno(response);
    json_t *body = oxnir_rsp_get_resp(response);

    note(std::string(static_cast<const char *>(user)) + (error == 0 ? ":0:" : ":error:") +
         text_of(json_string_value(body)));
}

/* Keeps a reference to the message, so that the platform's references can be counted. */
static int request(const char *path, json_t *message)
{
    return oxni_res_deliver(path, json_incref(message), const_cast<char *>("u"), on_response, 0);
}

static void on_answer(int32_t error, const char *echo)
{
    note((error == 0 ? "0:" : "error:") + text_of(echo));
}

static void responses_arrive_once()
{
    const char *path = unique("/check/answers");
    json_t *message = json_of("\"m\"");

    ABLE(answer_requests)(path);
    SAME(0, request(path, message));
    SAME("", notes());
    deliver();
    SAME("u:0:m", notes());
    deliver();
    SAME("", notes());
    SAME(1, message->refcount);
}

PROMISE_BY(
    responses_arrive_once, links, "oxni_res_deliver",
    "\"/oxni/quality_opr\", the alarm, a copy of the product's name as user pointer, the reply "
    "function, 0; at most one reply; not 0: none")

PROMISE_BY(responses_arrive_once, links, "oxnir_rsp_get_errno",
           "the reply; 0 when a response arrived")

PROMISE_BY(responses_arrive_once, links, "oxnir_rsp_get_resp",
           "the reply; the response, of which the plug-in reads \"errcode\", or NULL")

static void commands_run()
{
    const char *name = unique("check"), *ns = unique("ns");

    SAME(0, oxni_dbg_decl(ns, name, "what it does",
                          [](int32_t argc, char **argv, oxni_dbg_context *context) {
                              for (int32_t i = 1; i < argc; i++)
                                  note(argv[i]);
                              HOLDS(argv[argc] == nullptr);
                              oxni_dbg_echo(context, 0, argv[0]);
                          }));
    ABLE(type)(ns, (name + std::string(" -p  x")).c_str());
    deliver();
    SAME("-p x", notes());
    SAME(name, ABLE(printed)());
}

PROMISE_BY(commands_run, links, "oxni_dbg_decl",
           "\"oxni\", \"bypass\", its help, the function: argv[0] is the command name")

PROMISE_BY(commands_run, links, "oxni_dbg_echo", "the context of the running command, 0, text")

PROMISE(links, "oxni_res_require",
        "the path of the management module's console, 0, a callback: the current state, then each "
        "change; the first call is queued")
{
    const char *path = unique("/check/link");
    const std::string p = path;
    SAME(0, oxni_res_require(path, 0, on_state));
    SAME("", notes());
    deliver();
    SAME(p + "=0", notes());
    SAME(-1, oxni_res_require(path, 0, nullptr));
    for (int state : {1, 1, 3})
        ABLE(set_state)(path, state);
    deliver();
    SAME(p + "=1 " + p + "=3", notes());
}

PROMISE(links, "oxni_res_deliver", "an error when there is no handler")
{
    json_t *message = json_of("\"m\"");
    SAME(0, request(unique("/check/none"), message));
    SAME("", notes());
    deliver();
    SAME("u:error:NULL", notes());
    SAME(1, message->refcount);
}

PROMISE(links, "oxni_res_deliver", "request stolen, also on failure")
{
    json_t *message = json_of("\"m\"");
    SAME(-1, request(nullptr, message));
    deliver();
    SAME("", notes());
    SAME(1, message->refcount);
}

PROMISE(links, "oxni_dbg_decl", "-1 when it is already declared")
{
    const char *name = unique("twice");
    oxni_dbg_fn none = [](int32_t, char **, oxni_dbg_context *) {};
    SAME(0, oxni_dbg_decl("oxni", name, "h", none));
    SAME(-1, oxni_dbg_decl("oxni", name, "h", none));
    SAME(-1, oxni_dbg_decl("oxni", unique("null"), "h", nullptr));
}

PROMISE(links, "oxni_dbg_exec",
        "\"oxni\", \"quality_opr info\", 0, the function for the answer; at most one answer")
{
    const char *ns = unique("module");
    ABLE(answer_commands)(ns);
    SAME(0, oxni_dbg_exec(ns, "quality_opr info", 0, on_answer));
    SAME("", notes());
    deliver();
    SAME("0:quality_opr info", notes());
}

PROMISE(links, "oxni_dbg_exec", "an error when there is no handler")
{
    SAME(0, oxni_dbg_exec(unique("missing"), "info", 0, on_answer));
    deliver();
    SAME("error:NULL", notes());
    SAME(-1, oxni_dbg_exec("oxni", nullptr, 0, on_answer));
}

/* Arms a timer that notes its name. */
static uint64_t arm(uint32_t ms, const char *name)
{
    return oxni_timer_start(
        ms, [](void *, void *arg) { note(static_cast<const char *>(arg)); },
        const_cast<char *>(name));
}

static void nothing_is_delivered_in_a_sleep(void (*sleep)(unsigned), unsigned argument)
{
    arm(1, "due");
    sleep(argument);
    SAME("", notes());
    deliver(10);
    SAME("due", notes());
}

PROMISE(timers, "oxni_timer_start", "1 s to 1 h, a function, a user pointer")
{
    static uint64_t s_at;
    const uint64_t armed = oxni_time_get_tick_cout();
    uint64_t timer = oxni_timer_start(
        60,
        [](void *handle, void *arg) {
            s_at = oxni_time_get_tick_cout();
            note(arg == &s_at ? "fired" : "another argument");
            note(std::to_string(reinterpret_cast<uintptr_t>(handle)));
        },
        &s_at);
    deliver(100);
    SAME("fired " + std::to_string(timer), notes());
    HOLDS(s_at + 16 >= armed + 60 && s_at <= armed + 600);
    deliver(100);
    SAME("", notes());
    SAME(0, oxni_timer_start(1, nullptr, nullptr));
}

PROMISE(timers, "oxni_timer_start",
        "fires once, in the order of the due times; handles are not reused")
{
    /* Far apart: a busy machine takes its time between two calls. */
    const uint64_t late = arm(400, "late"), soon = arm(150, "soon"), now = arm(0, "now");
    HOLDS(late != 0 && soon != 0 && now != 0 && late != soon && soon != now);
    SAME("", notes()); /* never inside the call that arms it */
    deliver(450);
    SAME("now soon late", notes());
    const uint64_t next = arm(1000, "x");
    HOLDS(next != late && next != soon && next != now);
    oxni_timer_stop(next);
}

PROMISE(timers, "oxni_timer_stop",
        "a handle, also of a timer that fired; unknown handles are ignored")
{
    static uint64_t s_own, s_other;
    uint64_t stopped = arm(20, "stopped"), kept = arm(20, "kept");
    oxni_timer_stop(stopped);
    oxni_timer_stop(stopped);
    oxni_timer_stop(0);
    oxni_timer_stop(UINT64_MAX);
    deliver(50);
    SAME("kept", notes());
    oxni_timer_stop(kept);
    s_own = oxni_timer_start(
        10,
        [](void *, void *) {
            oxni_timer_stop(s_own); /* has fired */
            oxni_timer_stop(s_other);
            note("own");
        },
        nullptr);
    s_other = arm(250, "stopped in a callback");
    deliver(300);
    SAME("own", notes());
}

PROMISE(timers, "oxni_msleep", "nothing is delivered meanwhile")
{
    nothing_is_delivered_in_a_sleep(oxni_msleep, 30);
}

PROMISE(timers, "oxni_sleep",
        "All current callers query once, so the plug-in does not call it. Nothing is delivered "
        "meanwhile")
{
    nothing_is_delivered_in_a_sleep(oxni_sleep, 1);
}
