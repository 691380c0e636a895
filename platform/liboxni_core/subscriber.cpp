/* Services, subscriber handles and registration. The host's thread. */
#include "core.h"

#include <map>
#include <new>
#include <set>

#include <oxni/base/memory.h>

struct subscriber_table {
    std::map<std::string, std::shared_ptr<service>> services;
    /* Live handles. Every handle is looked up here before use: plug-ins may pass stale ones. */
    std::set<const oxni_subscriber *> handles;
    uint64_t excess_deletes = 0;
    bool lenient = false;
};

static subscriber_table &s_table = *new subscriber_table;

static void free_unreferenced(oxni_subscriber *subscriber)
{
    if (subscriber->user_references != 0 || subscriber->platform_references != 0)
        return;
    s_table.handles.erase(subscriber);
    subscriber->~oxni_subscriber();
    oxni_free_(subscriber);
}

subscriber_ref::subscriber_ref(oxni_subscriber *subscriber) : subscriber_(subscriber)
{
    subscriber_->platform_references++;
}

subscriber_ref::subscriber_ref(const subscriber_ref &other) : subscriber_ref(other.subscriber_)
{
}

subscriber_ref::~subscriber_ref()
{
    subscriber_->platform_references--;
    free_unreferenced(subscriber_);
}

bool subscriber_is_known(const oxni_subscriber *subscriber, const char *call)
{
    bool known = s_table.handles.count(subscriber) != 0;

    if (!known && subscriber != nullptr)
        oxnih_complain("%s: %p is not a live subscriber handle", call,
                       static_cast<const void *>(subscriber));
    return known;
}

oxni_subscriber *oxni_subscriber_new(const oxni_subscriber_attr *attr)
{
    void *memory;

    if (attr == nullptr || attr->ns == nullptr || attr->name == nullptr)
        return nullptr;
    /* Allocated with the agent's allocator, so that a handle that is never released counts as a
     * leak. */
    memory = oxni_zero_malloc_(sizeof(oxni_subscriber));
    if (memory == nullptr)
        return nullptr;
    oxni_subscriber *made = new (memory) oxni_subscriber();
    made->ns = attr->ns;
    made->name = attr->name;
    made->attr.ns = made->ns.c_str();
    made->attr.name = made->name.c_str();
    made->user_references = 1;
    s_table.handles.insert(made);
    return made;
}

void oxni_subscriber_retain(oxni_subscriber *subscriber)
{
    if (subscriber_is_known(subscriber, "oxni_subscriber_retain"))
        subscriber->user_references++;
}

void oxni_subscriber_delete(oxni_subscriber *subscriber)
{
    if (subscriber == nullptr)
        return;
    if (!subscriber_is_known(subscriber, "oxni_subscriber_delete")) {
        s_table.excess_deletes++;
        return;
    }
    /* The platform still uses the handle. */
    if (subscriber->user_references == 0) {
        s_table.excess_deletes++;
        oxnih_complain("oxni_subscriber_delete: no reference of subscriber %s/%s is left to give "
                       "back but the platform's own",
                       subscriber->attr.ns, subscriber->attr.name);
        return;
    }
    subscriber->user_references--;
    free_unreferenced(subscriber);
}

const oxni_subscriber_attr *oxni_subscriber_get_attr(oxni_subscriber *subscriber)
{
    return subscriber_is_known(subscriber, "oxni_subscriber_get_attr") ? &subscriber->attr
                                                                       : nullptr;
}

uint64_t oxnih_subscriber_references(oxni_subscriber *subscriber)
{
    return s_table.handles.count(subscriber) != 0 ? subscriber->user_references : 0;
}

uint64_t oxnih_core_excess_deletes(void)
{
    return s_table.excess_deletes;
}

static void notify(enum oxnih_event_kind kind, oxni_subscriber *subscriber, const std::string &name,
                   json_t *message, const char *text)
{
    oxnih_event event = {};

    event.kind = kind;
    event.subscriber = subscriber;
    event.name = name.c_str();
    event.message = message;
    event.text = text;
    dispatcher_tell(event);
}

int oxni_subscribee_install(const char *name, const char *text, unsigned flags,
                            oxni_subscribee_fn fn, oxni_subscribee_second_fn second)
{
    auto made = std::make_shared<service>();

    (void)flags;
    (void)second;
    if (name == nullptr || text == nullptr || fn == nullptr || service_find(name) != nullptr)
        return -1;
    made->name = name;
    made->rules = schema_new(text);
    made->fn = fn;
    if (made->rules == nullptr)
        return -1;
    s_table.services[name] = made;
    notify(OXNIH_EVENT_SERVICE, nullptr, made->name, nullptr, nullptr);
    return 0;
}

std::shared_ptr<service> service_find(const std::string &name)
{
    auto at = s_table.services.find(name);

    return at == s_table.services.end() ? nullptr : at->second;
}

void oxnih_core_set_lenient(int lenient)
{
    s_table.lenient = lenient != 0;
}

int32_t service_check(const std::shared_ptr<service> &home, const std::string &name,
                      oxni_subscriber *subscriber, json_t *message)
{
    std::string why;

    if (home == nullptr)
        why = "there is no such service";
    else if (!s_table.lenient)
        why = schema_check(*home->rules, message);
    if (why.empty())
        return 0;
    notify(OXNIH_EVENT_REFUSED, subscriber, name, message, why.c_str());
    return home == nullptr ? OXNIH_ERROR_UNREACHABLE : OXNIH_ERROR_REFUSED;
}

void service_receive(const service &home, oxni_subscriber *subscriber, json_t *message)
{
    notify(OXNIH_EVENT_TO_SERVICE, subscriber, home.name, message, nullptr);
    home.fn(0, nullptr, OXNI_MOMENT_MESSAGE, message, subscriber);
}

/* Takes the platform's reference to a live subscriber. */
static void hold(oxni_subscriber *subscriber)
{
    subscriber->platform_references++;
}

static void let_go(oxni_subscriber *subscriber)
{
    subscriber->platform_references--;
    free_unreferenced(subscriber);
}

/* Runs the whole registration in one delivery, so that no other event comes between its steps. */
static void run_subscribe(oxni_subscriber *subscriber, const std::string &name, json_t *message)
{
    if (subscriber->state != SUBSCRIBER_SUBSCRIBING)
        return;
    std::shared_ptr<service> home = service_find(name);
    if (service_check(home, name, subscriber, message) != 0) {
        subscriber->state = SUBSCRIBER_NEW;
        let_go(subscriber);
        return;
    }
    /* Set before the service's callback, which may push, and in which the host may make the
     * subscriber leave. */
    subscriber->home = home;
    subscriber->state = SUBSCRIBER_SUBSCRIBED;
    service_receive(*home, subscriber, message);
    notify(OXNIH_EVENT_SUBSCRIBED, subscriber, name, nullptr, nullptr);
    home->fn(0, nullptr, OXNI_MOMENT_ACCEPTED, nullptr, subscriber);
    if (subscriber->state == SUBSCRIBER_SUBSCRIBED)
        subscriber->fn(subscriber, 0, nullptr, nullptr);
}

int oxni_subscriber_subscribe(oxni_subscriber *subscriber, const char *name, json_t *message,
                              oxni_subscriber_fn fn)
{
    if (!subscriber_is_known(subscriber, "oxni_subscriber_subscribe") || name == nullptr ||
        message == nullptr || fn == nullptr || subscriber->state != SUBSCRIBER_NEW)
        return -1;
    subscriber->state = SUBSCRIBER_SUBSCRIBING;
    subscriber->fn = fn;
    hold(subscriber);
    dispatcher_queue(0, [ref = subscriber_ref(subscriber), to = std::string(name),
                         kept = json_ref(message)] { run_subscribe(ref.get(), to, kept.get()); });
    return 0;
}

static void run_leave(oxni_subscriber *subscriber)
{
    subscriber->state = SUBSCRIBER_GONE;
    notify(OXNIH_EVENT_LEFT, subscriber, subscriber->home->name, nullptr, nullptr);
    subscriber->home->fn(0, nullptr, OXNI_MOMENT_UNSUBSCRIBE, nullptr, subscriber);
}

void oxnih_subscriber_leave(oxni_subscriber *subscriber)
{
    subscriber_state before;

    if (!subscriber_is_known(subscriber, "oxnih_subscriber_leave"))
        return;
    before = subscriber->state;
    if (before == SUBSCRIBER_LEFT || before == SUBSCRIBER_GONE)
        return;
    subscriber->state = before == SUBSCRIBER_SUBSCRIBED ? SUBSCRIBER_LEFT : SUBSCRIBER_GONE;
    /* A service is notified only about subscribers that it has accepted. */
    if (before == SUBSCRIBER_SUBSCRIBED)
        dispatcher_queue(0, [ref = subscriber_ref(subscriber)] { run_leave(ref.get()); });
    if (before != SUBSCRIBER_NEW)
        let_go(subscriber);
}

void oxnih_subscriber_set_unreachable(oxni_subscriber *subscriber, int32_t error)
{
    if (subscriber_is_known(subscriber, "oxnih_subscriber_set_unreachable"))
        subscriber->unreachable = error;
}

void oxnih_subscriber_set_reply_delay(oxni_subscriber *subscriber, uint64_t delay_ms)
{
    if (subscriber_is_known(subscriber, "oxnih_subscriber_set_reply_delay"))
        subscriber->reply_delay_ms = delay_ms;
}

void subscriber_reset()
{
    s_table.services.clear();
    while (!s_table.handles.empty()) {
        oxni_subscriber *last = const_cast<oxni_subscriber *>(*s_table.handles.begin());
        last->user_references = 0;
        last->platform_references = 0;
        free_unreferenced(last);
    }
}
