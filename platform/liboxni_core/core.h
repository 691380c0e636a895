/* What the files of this library share. Never included from outside. */
#ifndef OXNICORE_CORE_H
#define OXNICORE_CORE_H

#include <functional>
#include <memory>
#include <string>

#include <liboxni_core/host.h>
#include <liboxnibase/host.h>
#include <oxni/base/subscribee.h>

/* A counted reference of a JSON value that copies with its owner. */
class json_ref
{
  public:
    json_ref() = default;
    explicit json_ref(json_t *borrowed) : value_(json_incref(borrowed))
    {
    }
    json_ref(const json_ref &other) : value_(json_incref(other.value_))
    {
    }
    json_ref &operator=(json_ref other)
    {
        std::swap(value_, other.value_);
        return *this;
    }
    ~json_ref()
    {
        json_decref(value_);
    }
    json_t *get() const
    {
        return value_;
    }

  private:
    json_t *value_ = NULL;
};

/* A number for a handle: never 0, never given twice in the process. */
uint64_t dispatcher_new_id();
/* Queues a delivery after delay_ms. */
void dispatcher_queue(uint64_t delay_ms, std::function<void()> run);
/* Tells the host's observer. */
void dispatcher_tell(const oxnih_event &event);

/* Forget what the agent's process held; no calls. */
void console_reset();
void push_reset();
void resource_reset();
void subscriber_reset();

/* A JSON Schema, ready to hold messages to. */
struct schema;
/* New; empty for a text that is no schema. */
std::shared_ptr<schema> schema_new(const char *text);
/* Empty when the message holds; otherwise why not, naming the member. */
std::string schema_check(const schema &rules, json_t *message);

struct service {
    std::string name;
    std::shared_ptr<schema> rules;
    oxni_subscribee_fn fn;
};

/* NULL when there is no such service. */
std::shared_ptr<service> service_find(const std::string &name);
/* 0 when the service takes the message; otherwise the error for its sender, and the host is told.
 * home may be empty: there is no service of that name. */
int32_t service_check(const std::shared_ptr<service> &home, const std::string &name,
                      oxni_subscriber *subscriber, json_t *message);
/* Moment 1. */
void service_receive(const service &home, oxni_subscriber *subscriber, json_t *message);

enum subscriber_state {
    SUBSCRIBER_NEW,         /* or refused: it may try again */
    SUBSCRIBER_SUBSCRIBING, /* the registration message is on its way */
    SUBSCRIBER_SUBSCRIBED,
    SUBSCRIBER_LEFT, /* nothing is delivered to it any more */
    SUBSCRIBER_GONE, /* and its service knows */
};

struct oxni_subscriber {
    oxni_subscriber_attr attr; /* points into the two texts */
    std::string ns, name;
    uint64_t user_references;     /* of everybody but the platform */
    uint64_t platform_references; /* one while it lives, one for each delivery on its way */
    subscriber_state state;
    std::shared_ptr<service> home; /* set once it is subscribed */
    oxni_subscriber_fn fn;
    int32_t unreachable;
    uint64_t reply_delay_ms; /* UINT64_MAX: never */
};

/* The platform's reference of a subscriber, for as long as a delivery needs it. */
class subscriber_ref
{
  public:
    explicit subscriber_ref(oxni_subscriber *subscriber);
    subscriber_ref(const subscriber_ref &other);
    subscriber_ref &operator=(const subscriber_ref &other) = delete;
    ~subscriber_ref();
    oxni_subscriber *get() const
    {
        return subscriber_;
    }
    oxni_subscriber *operator->() const
    {
        return subscriber_;
    }

  private:
    oxni_subscriber *subscriber_;
};

/* Whether it is a handle that lives; otherwise a complaint names the call that it was given to. */
bool subscriber_is_known(const oxni_subscriber *subscriber, const char *call);

#endif
