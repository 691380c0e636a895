/* Promises about services, subscribers, resources, the debug console and timers. */
#include "check.h"

#include <algorithm>
#include <atomic>

#include <oxni/base/debug_console.h>
#include <oxni/base/resource.h>
#include <oxni/base/subscribee.h>
#include <oxni/base/time.h>
#include <oxni/base/timer.h>

static const char SCHEMA[] = R"({"type": "object", "required": ["type", "count"], "properties": {
    "type": {"type": "string", "enum": ["reg", "modify"]},
    "count": {"type": "integer", "minimum": 0, "maximum": 10},
    "data": {"type": "object", "required": ["list"], "properties": {
        "list": {"type": "array", "items": {"type": "string"}}}}}})";
static const char REG[] = R"({"type": "reg", "count": 1})";
static const char MODIFY[] = R"({"type": "modify", "count": 1})";

static const char *s_service;
static bool s_answer_forward; /* the subscriber sends a message when it receives a push */

static std::string name_of(oxni_subscriber *who)
{
    const oxni_subscriber_attr *attr = oxni_subscriber_get_attr(who);
    return attr == NULL ? "(none)" : attr->name;
}

static void on_service(int32_t error, void *, int32_t moment, json_t *message, oxni_subscriber *who)
{
    const char *type = json_string_value(json_object_get(message, "type"));

    note("m" + std::to_string(moment) + ":" + name_of(who) + (type == NULL ? "" : "=") +
         (type == NULL ? "" : type) + (error == 0 ? "" : "!"));
}

static void on_reply(int32_t error, void *cookie, oxni_subscriber *who, void *)
{
    note((error == 0 ? "reply:" : "error:") + std::string(static_cast<const char *>(cookie)) + "@" +
         name_of(who));
}

static int forward(oxni_subscriber *who, const char *message)
{
    return oxni_subscriber_pushforward(who, json_of(message), const_cast<char *>("f"), on_reply);
}

static void on_event(oxni_subscriber *who, uint32_t event, void *, json_t *message)
{
    note("e" + std::to_string(event) + ":" + name_of(who) +
         (message == NULL ? "" : "=" + text_of(json_string_value(message))));
    if (message != NULL && s_answer_forward)
        SAME(0, forward(who, MODIFY));
}

static void push(oxni_subscriber *who, const char *text)
{
    SAME(0, oxni_subscribee_pushback(who, json_of("\"" + std::string(text) + "\""),
                                     const_cast<char *>(text), on_reply));
}

static void install()
{
    s_answer_forward = false;
    s_service = unique("service");
    SAME(0, oxni_subscribee_install(s_service, SCHEMA, 0, on_service, NULL));
}

static oxni_subscriber *make(const char *name)
{
    const oxni_subscriber_attr attr = {"ns", name, NULL};
    return oxni_subscriber_new(&attr);
}

static int subscribe(oxni_subscriber *who, const char *message = REG)
{
    return oxni_subscriber_subscribe(who, s_service, json_of(message), on_event);
}

static oxni_subscriber *subscribed(const char *name)
{
    oxni_subscriber *made = make(name);

    SAME(0, subscribe(made));
    deliver();
    notes();
    return made;
}

PROMISE(deliveries, "oxni_subscribee_install",
        "\"bypass_mgr\", its JSON Schema, flags 0, the service's callback and a second one that is "
        "never called; rejects messages that do not match the schema: the sender gets an error, "
        "and the service does not receive them")
{
    static const struct {
        const char *message;
        bool valid;
    } rows[] = {
        {R"({"type": "reg", "count": 10, "data": {"list": []}, "more": null})", true },
        {R"({"type": "reg", "count": 11})",                                     false},
        {R"({"type": "reg", "count": -1})",                                     false},
        {R"({"type": "reg", "count": 1.5})",                                    false},
        {R"({"type": "Reg", "count": 1})",                                      false},
        {R"({"count": 1})",                                                     false},
        {R"({"type": "reg", "count": 1, "data": {}})",                          false},
        {R"({"type": "reg", "count": 1, "data": {"list": ["a", 2]}})",          false},
        {"[1]",                                                                 false},
    };

    install();
    oxni_subscriber *sender = subscribed("a");
    for (const auto &row : rows) {
        check_case(row.message);
        SAME(0, forward(sender, row.message));
        deliver();
        SAME(row.valid ? "m1:a=reg reply:f@a" : "error:f@a", notes());
    }
    check_case("schemas that are none, and a name in use");
    SAME(-1, oxni_subscribee_install(unique("s"), "{", 0, on_service, NULL));
    SAME(-1, oxni_subscribee_install(unique("s"), "{\"pattern\": \"(\"}", 0, on_service, NULL));
    SAME(-1, oxni_subscribee_install(s_service, SCHEMA, 0, on_service, NULL));
    oxni_subscriber_delete(sender);
}

/* Replies follow the messages that the subscriber sends in its callback, too. */
PROMISE(deliveries, "oxni_subscribee_pushback",
        "a registered handle, a command, its kind as cookie, the reply function: exactly one reply "
        "with the cookie, after the subscriber's callback; not 0: no reply")
{
    install();
    oxni_subscriber *a = subscribed("a");
    s_answer_forward = true;
    push(a, "one");
    SAME("", notes()); /* not inside the call */
    deliver();
    SAME("e1:a=one m1:a=modify reply:one@a reply:f@a", notes());
    s_answer_forward = false;
    push(a, "two");
    push(a, "three");
    deliver();
    SAME("e1:a=two e1:a=three reply:two@a reply:three@a", notes());
    oxni_subscriber_delete(a);
    check_case("no message");
    SAME(-1, oxni_subscribee_pushback(a, NULL, NULL, on_reply));
    deliver();
    SAME("", notes());
}

PROMISE(deliveries, "oxni_subscribee_pushback",
        "The reply has a nonzero error when the subscriber is unreachable or has left")
{
    install();
    oxni_subscriber *a = subscribed("a");
    ABLE(leave)(a);
    deliver();
    notes();
    push(a, "late");
    deliver();
    SAME("error:late@a", notes());
    oxni_subscriber_delete(a);
}

/* Returns what happens until a subscriber that just subscribed has left. */
PROMISE(deliveries, "Services and subscribers",
        "The service's callback receives moment 1 with each message, first the registration; "
        "moment 3 when the subscriber is accepted; and moment 2 once when the subscriber leaves or "
        "dies.")
{
    install();
    oxni_subscriber *a = make("a"), *b = make("b");
    SAME(0, subscribe(a));
    SAME(0, forward(a, MODIFY));
    deliver();
    SAME("m1:a=reg m3:a e0:a m1:a=modify reply:f@a", notes());
    ABLE(leave)(a);
    SAME(-1, forward(a, MODIFY));
    ABLE(leave)(a);
    ABLE(leave)(b); /* has never registered */
    SAME(-1, subscribe(b));
    deliver();
    SAME("m2:a", notes());
    oxni_subscriber_delete(a);
    oxni_subscriber_delete(b);
}

PROMISE(deliveries, "oxni_subscriber_subscribe",
        "calls the service first; calls neither when it rejects the registration")
{
    install();
    oxni_subscriber *a = make("a");
    SAME(0, subscribe(a, "{}"));
    deliver();
    SAME("", notes());
    SAME(-1, forward(a, REG));
    SAME(0, oxni_subscriber_subscribe(a, unique("none"), json_of(REG), on_event));
    deliver();
    SAME("", notes());
    SAME(0, subscribe(a));
    SAME(-1, subscribe(a)); /* already */
    deliver();
    SAME("m1:a=reg m3:a e0:a", notes());
    oxni_subscriber_delete(a);
}

PROMISE(deliveries, "oxni_subscriber_subscribe",
        "its own handle, \"bypass_mgr\", the registration, the callback: event 0 when subscribed, "
        "then event 1 with each command")
{
    install();
    oxni_subscriber *a = make("a"), *b = make("b");
    SAME(0, subscribe(a));
    SAME(0, forward(a, MODIFY));
    SAME(0, subscribe(b));
    SAME("", notes());
    deliver();
    SAME("m1:a=reg m3:a e0:a m1:a=modify m1:b=reg m3:b e0:b reply:f@a", notes());
    push(a, "x");
    deliver();
    SAME("e1:a=x reply:x@a", notes());
    oxni_subscriber_delete(a);
    oxni_subscriber_delete(b);
}

static void messages_are_kept()
{
    install();
    oxni_subscriber *a = make("a");
    json_t *registration = json_loads(REG, 0, NULL), *command = json_string("mine"),
           *change = json_loads(MODIFY, 0, NULL);
    SAME(0, oxni_subscriber_subscribe(a, s_service, registration, on_event));
    json_decref(registration);
    deliver();
    SAME("m1:a=reg m3:a e0:a", notes());
    SAME(0, oxni_subscribee_pushback(a, command, const_cast<char *>("c"), on_reply));
    SAME(0, oxni_subscriber_pushforward(a, change, NULL, NULL));
    json_decref(command);
    json_decref(change);
    deliver();
    SAME("e1:a=mine m1:a=modify reply:c@a", notes());
    oxni_subscriber_delete(a);
}

PROMISE(deliveries, "oxni_subscribee_pushback", "message kept")
{
    messages_are_kept();
}

PROMISE(deliveries, "oxni_subscriber_pushforward", "message kept")
{
    messages_are_kept();
}

PROMISE(deliveries, "oxni_subscriber_subscribe", "message kept")
{
    messages_are_kept();
}

PROMISE(deliveries, "oxni_subscriber_pushforward",
        "its own handle and a \"modify\" message, no reply; validated against the schema too")
{
    install();
    oxni_subscriber *a = subscribed("a");
    SAME(0, oxni_subscriber_pushforward(a, json_of(MODIFY), NULL, NULL));
    SAME(0, oxni_subscriber_pushforward(a, json_of("{}"), NULL, NULL));
    SAME(-1, oxni_subscriber_pushforward(a, NULL, NULL, NULL));
    deliver();
    SAME("m1:a=modify", notes());
    oxni_subscriber_delete(a);
}

PROMISE(deliveries, "Services and subscribers", "Pending pushes to it then get error replies.")
{
    install();
    oxni_subscriber *a = subscribed("a");
    push(a, "pending");
    ABLE(leave)(a);
    deliver();
    SAME("m2:a error:pending@a", notes());
    oxni_subscriber_delete(a);
}

PROMISE(deliveries, "Thread",
        "The host delivers its callbacks one at a time, on a thread of its choice.")
{
    static std::atomic<int> s_inside, s_most;
    s_inside = s_most = 0;
    for (int i = 0; i < 5; i++)
        oxni_timer_start(
            1,
            [](void *, void *) {
                s_most = std::max(s_most.load(), ++s_inside);
                Sleep(5);
                --s_inside;
            },
            NULL);
    deliver(50);
    SAME(1, s_most.load());
}

PROMISE(references, "oxni_subscriber_new", "namespace \"XNI\", name \"BYPASS\"; attributes copied")
{
    char ns[] = "XNI", name[] = "BYPASS";
    const oxni_subscriber_attr attr = {ns, name, NULL}, nameless = {ns, NULL, NULL};
    oxni_subscriber *made = oxni_subscriber_new(&attr);
    ns[0] = name[0] = 'z';
    SAME("XNI", oxni_subscriber_get_attr(made)->ns);
    SAME("BYPASS", oxni_subscriber_get_attr(made)->name);
    HOLDS(oxni_subscriber_new(&nameless) == NULL && oxni_subscriber_new(NULL) == NULL);
    oxni_subscriber_delete(made);
}

PROMISE(references, "oxni_subscriber_retain",
        "a product's handle when the plug-in stores it, and again for each check that it starts")
{
    install();
    oxni_subscriber *a = subscribed("a");
    oxni_subscriber_retain(a);
    oxni_subscriber_retain(a);
    oxni_subscriber_delete(a);
    oxni_subscriber_delete(a);
    ABLE(leave)(a);
    deliver();
    SAME("a", name_of(a));
    oxni_subscriber_delete(a);
    oxni_subscriber_retain(NULL);
}

PROMISE(references, "oxni_subscriber_delete",
        "the same handle when the product leaves, even if it never registered, and when a check "
        "ends")
{
    install();
    oxni_subscriber *a = subscribed("a"), *never = make("never");
    oxni_subscriber_delete(a); /* a live subscriber keeps the platform's reference */
    SAME("a", name_of(a));
    push(a, "x");
    ABLE(leave)(a);
    deliver(); /* the push has one until its reply */
    SAME("m2:a error:x@a", notes());
    ABLE(leave)(never);
    oxni_subscriber_delete(never);
    oxni_subscriber_delete(NULL);
}

PROMISE(references, "oxni_subscriber_get_attr",
        "a handle; its namespace and name, also after the product left; NULL for NULL")
{
    install();
    oxni_subscriber *a = subscribed("a");
    ABLE(leave)(a);
    deliver();
    SAME("ns", oxni_subscriber_get_attr(a)->ns);
    SAME("a", name_of(a));
    HOLDS(oxni_subscriber_get_attr(NULL) == NULL);
    oxni_subscriber_delete(a);
}

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

PROMISE(links, "oxni_res_deliver",
        "\"/oxni/quality_opr\", the alarm, a copy of the product's name as user pointer, the reply "
        "function, 0; at most one reply; not 0: none")
{
    responses_arrive_once();
}

PROMISE(links, "oxnir_rsp_get_errno", "the reply; 0 when a response arrived")
{
    responses_arrive_once();
}

PROMISE(links, "oxnir_rsp_get_resp",
        "the reply; the response, of which the plug-in reads \"errcode\", or NULL")
{
    responses_arrive_once();
}

static void commands_run()
{
    const char *name = unique("check"), *ns = unique("ns");

    SAME(0, oxni_dbg_decl(ns, name, "what it does",
                          [](int32_t argc, char **argv, oxni_dbg_context *context) {
                              for (int32_t i = 1; i < argc; i++)
                                  note(argv[i]);
                              HOLDS(argv[argc] == NULL);
                              oxni_dbg_echo(context, 0, argv[0]);
                          }));
    ABLE(type)(ns, (name + std::string(" -p  x")).c_str());
    deliver();
    SAME("-p x", notes());
    SAME(name, ABLE(printed)());
}

PROMISE(links, "oxni_dbg_decl",
        "\"oxni\", \"bypass\", its help, the function: argv[0] is the command name")
{
    commands_run();
}

PROMISE(links, "oxni_dbg_echo", "the context of the running command, 0, text")
{
    commands_run();
}

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
    SAME(-1, oxni_res_require(path, 0, NULL));
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
    SAME(-1, request(NULL, message));
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
    SAME(-1, oxni_dbg_decl("oxni", unique("null"), "h", NULL));
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
    SAME(0, oxni_dbg_exec(unique("nobody"), "info", 0, on_answer));
    deliver();
    SAME("error:NULL", notes());
    SAME(-1, oxni_dbg_exec("oxni", NULL, 0, on_answer));
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
    deliver(20);
    SAME("", notes());
    deliver(80);
    SAME("fired " + std::to_string(timer), notes());
    HOLDS(s_at + 16 >= armed + 60 && s_at <= armed + 600);
    deliver(100);
    SAME("", notes());
    SAME(0, oxni_timer_start(1, NULL, NULL));
}

PROMISE(timers, "oxni_timer_start",
        "fires once, in the order of the due times; handles are not reused")
{
    const uint64_t late = arm(60, "late"), soon = arm(30, "soon"), now = arm(0, "now");
    HOLDS(late != 0 && soon != 0 && now != 0 && late != soon && soon != now);
    SAME("", notes()); /* never inside the call that arms it */
    deliver(100);
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
        NULL);
    s_other = arm(40, "stopped in a callback");
    deliver(100);
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
