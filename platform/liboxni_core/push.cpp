/* Messages between subscribers and services, and their replies. The host's thread. */
#include "core.h"

#include <map>

/* One push without a reply so far. */
struct push {
    subscriber_ref subscriber;
    json_ref message;
    void *cookie;
    oxni_push_reply_fn reply;
};

/* Pushes by id. */
static std::map<uint64_t, push> &s_pending = *new std::map<uint64_t, push>;

static void notify(enum oxnih_event_kind kind, const push &sent, int32_t error)
{
    oxnih_event event = {};

    event.kind = kind;
    event.error = error;
    event.subscriber = sent.subscriber.get();
    event.message = sent.message.get();
    if (sent.subscriber->home != nullptr)
        event.name = sent.subscriber->home->name.c_str();
    dispatcher_tell(event);
}

static void run_reply(uint64_t id, bool to_subscriber, int32_t error)
{
    auto at = s_pending.find(id);
    push done = at->second;

    /* Before the callback, which must not see its own push as pending. */
    s_pending.erase(at);
    /* The subscriber left between delivery and reply. */
    if (to_subscriber && error == 0 && done.subscriber->state == SUBSCRIBER_GONE)
        error = OXNIH_ERROR_UNREACHABLE;
    if (to_subscriber)
        notify(OXNIH_EVENT_REPLY, done, error);
    if (done.reply != nullptr)
        done.reply(error, done.cookie, done.subscriber.get(), nullptr);
}

static void queue_reply(uint64_t id, bool to_subscriber, int32_t error, uint64_t delay_ms)
{
    if (delay_ms != UINT64_MAX)
        dispatcher_queue(delay_ms,
                         [id, to_subscriber, error] { run_reply(id, to_subscriber, error); });
}

static uint64_t keep(oxni_subscriber *subscriber, json_t *message, void *cookie,
                     oxni_push_reply_fn reply)
{
    uint64_t id = dispatcher_new_id();

    s_pending.emplace(id, push{subscriber_ref(subscriber), json_ref(message), cookie, reply});
    return id;
}

static void run_pushback(uint64_t id)
{
    push now = s_pending.at(id);
    oxni_subscriber *to = now.subscriber.get();

    if (to->state != SUBSCRIBER_SUBSCRIBED) {
        queue_reply(id, true, OXNIH_ERROR_UNREACHABLE, 0);
        return;
    }
    if (to->unreachable != 0) {
        queue_reply(id, true, to->unreachable, 0);
        return;
    }
    /* The reply must follow the messages that the subscriber sends in its callback. */
    notify(OXNIH_EVENT_TO_SUBSCRIBER, now, 0);
    to->fn(to, 1, nullptr, now.message.get());
    queue_reply(id, true, 0, to->reply_delay_ms);
}

int oxni_subscribee_pushback(oxni_subscriber *subscriber, json_t *message, void *cookie,
                             oxni_push_reply_fn reply)
{
    uint64_t id;

    if (message == nullptr || !subscriber_is_known(subscriber, "oxni_subscribee_pushback"))
        return -1;
    id = keep(subscriber, message, cookie, reply);
    notify(OXNIH_EVENT_PUSHED, s_pending.at(id), 0);
    dispatcher_queue(0, [id] { run_pushback(id); });
    return 0;
}

static void run_pushforward(uint64_t id)
{
    push now = s_pending.at(id);
    std::shared_ptr<service> home = now.subscriber->home;
    int32_t error = OXNIH_ERROR_UNREACHABLE; /* the registration was rejected meanwhile */

    if (home != nullptr)
        error = service_check(home, home->name, now.subscriber.get(), now.message.get());
    if (error == 0)
        service_receive(*home, now.subscriber.get(), now.message.get());
    queue_reply(id, false, error, 0);
}

int oxni_subscriber_pushforward(oxni_subscriber *subscriber, json_t *message, void *cookie,
                                oxni_push_reply_fn reply)
{
    uint64_t id;

    if (message == nullptr || !subscriber_is_known(subscriber, "oxni_subscriber_pushforward") ||
        (subscriber->state != SUBSCRIBER_SUBSCRIBING && subscriber->state != SUBSCRIBER_SUBSCRIBED))
        return -1;
    id = keep(subscriber, message, cookie, reply);
    dispatcher_queue(0, [id] { run_pushforward(id); });
    return 0;
}

uint64_t oxnih_core_pending_replies(void)
{
    return s_pending.size();
}

void push_reset()
{
    s_pending.clear();
}
