/* Promises about services and subscribers. */
#include "check.h"

#include <algorithm>
#include <atomic>

#include <oxni/base/subscribee.h>
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
    return attr == nullptr ? "(none)" : attr->name;
}

static void on_service(int32_t error, void *, int32_t moment, json_t *message, oxni_subscriber *who)
{
    const char *type = json_string_value(json_object_get(message, "type"));

    note("m" + std::to_string(moment) + ":" + name_of(who) + (type == nullptr ? "" : "=") +
         (type == nullptr ? "" : type) + (error == 0 ? "" : "!"));
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
         (message == nullptr ? "" : "=" + text_of(json_string_value(message))));
    if (message != nullptr && s_answer_forward)
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
    SAME(0, oxni_subscribee_install(s_service, SCHEMA, 0, on_service, nullptr));
}

static oxni_subscriber *make(const char *name)
{
    const oxni_subscriber_attr attr = {"ns", name, nullptr};
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
    SAME(-1, oxni_subscribee_install(unique("s"), "{", 0, on_service, nullptr));
    SAME(-1, oxni_subscribee_install(unique("s"), "{\"pattern\": \"(\"}", 0, on_service, nullptr));
    SAME(-1, oxni_subscribee_install(s_service, SCHEMA, 0, on_service, nullptr));
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
    SAME(-1, oxni_subscribee_pushback(a, nullptr, nullptr, on_reply));
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
    json_t *registration = json_loads(REG, 0, nullptr), *command = json_string("mine"),
           *change = json_loads(MODIFY, 0, nullptr);
    SAME(0, oxni_subscriber_subscribe(a, s_service, registration, on_event));
    json_decref(registration);
    deliver();
    SAME("m1:a=reg m3:a e0:a", notes());
    SAME(0, oxni_subscribee_pushback(a, command, const_cast<char *>("c"), on_reply));
    SAME(0, oxni_subscriber_pushforward(a, change, nullptr, nullptr));
    json_decref(command);
    json_decref(change);
    deliver();
    SAME("e1:a=mine m1:a=modify reply:c@a", notes());
    oxni_subscriber_delete(a);
}

PROMISE_BY(messages_are_kept, deliveries, "oxni_subscribee_pushback", "message kept")

PROMISE_BY(messages_are_kept, deliveries, "oxni_subscriber_pushforward", "message kept")

PROMISE_BY(messages_are_kept, deliveries, "oxni_subscriber_subscribe", "message kept")

PROMISE(deliveries, "oxni_subscriber_pushforward",
        "its own handle and a \"modify\" message, no reply; validated against the schema too")
{
    install();
    oxni_subscriber *a = subscribed("a");
    SAME(0, oxni_subscriber_pushforward(a, json_of(MODIFY), nullptr, nullptr));
    SAME(0, oxni_subscriber_pushforward(a, json_of("{}"), nullptr, nullptr));
    SAME(-1, oxni_subscriber_pushforward(a, nullptr, nullptr, nullptr));
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
            nullptr);
    deliver(50);
    SAME(1, s_most.load());
}

PROMISE(references, "oxni_subscriber_new", "namespace \"XNI\", name \"BYPASS\"; attributes copied")
{
    char ns[] = "XNI", name[] = "BYPASS";
    const oxni_subscriber_attr attr = {ns, name, nullptr}, nameless = {ns, nullptr, nullptr};
    oxni_subscriber *made = oxni_subscriber_new(&attr);
    ns[0] = name[0] = 'z';
    SAME("XNI", oxni_subscriber_get_attr(made)->ns);
    SAME("BYPASS", oxni_subscriber_get_attr(made)->name);
    HOLDS(oxni_subscriber_new(&nameless) == nullptr && oxni_subscriber_new(nullptr) == nullptr);
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
    oxni_subscriber_retain(nullptr);
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
    oxni_subscriber_delete(nullptr);
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
    HOLDS(oxni_subscriber_get_attr(nullptr) == nullptr);
    oxni_subscriber_delete(a);
}
