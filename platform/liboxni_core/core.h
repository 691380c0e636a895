/* Declarations that the files of this library share. Other libraries never include this header. */
#ifndef OXNICORE_CORE_H
#define OXNICORE_CORE_H

#include <functional>
#include <memory>
#include <string>

#include <liboxni_core/host.h>
#include <liboxnibase/host.h>
#include <oxni/base/subscribee.h>

/* Owns one reference to a JSON value; copies take their own. */
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
    json_t *value_ = nullptr;
};

/* Returns a number for a handle: never 0, unique in the process. */
uint64_t dispatcher_new_id();
/* Queues a delivery after delay_ms. */
void dispatcher_queue(uint64_t delay_ms, std::function<void()> run);
/* Calls the host's observer. */
void dispatcher_tell(const oxnih_event &event);

/* Drop the state of the agent's process without calling any callback. */
void console_reset();
void push_reset();
void resource_reset();
void subscriber_reset();

/* A compiled JSON Schema. */
struct schema;
/* Compiles a schema. Returns an empty pointer for an invalid one. */
std::shared_ptr<schema> schema_new(const char *text);
/* Returns the empty text when the message is valid; otherwise the reason, with the member. */
std::string schema_check(const schema &rules, json_t *message);

struct service {
    std::string name;
    std::shared_ptr<schema> rules;
    oxni_subscribee_fn fn;
};

/* Returns NULL when no service of that name is installed. */
std::shared_ptr<service> service_find(const std::string &name);
/* Returns 0 when the service accepts the message; otherwise reports the rejection to the host and
 * returns the error for the sender. home is empty when no service of that name is installed. */
int32_t service_check(const std::shared_ptr<service> &home, const std::string &name,
                      oxni_subscriber *subscriber, json_t *message);
/* Calls the service with OXNI_MOMENT_MESSAGE. */
void service_receive(const service &home, oxni_subscriber *subscriber, json_t *message);

enum subscriber_state {
    SUBSCRIBER_NEW,         /* or rejected: it may subscribe again */
    SUBSCRIBER_SUBSCRIBING, /* the registration message is queued */
    SUBSCRIBER_SUBSCRIBED,
    SUBSCRIBER_LEFT, /* receives nothing any more */
    SUBSCRIBER_GONE, /* and its service was notified */
};

struct oxni_subscriber {
    oxni_subscriber_attr attr; /* points into the two texts */
    std::string ns, name;
    uint64_t user_references;     /* not held by the platform */
    uint64_t platform_references; /* one while it is live, one per queued delivery */
    subscriber_state state;
    std::shared_ptr<service> home; /* set when it is subscribed */
    oxni_subscriber_fn fn;
    int32_t unreachable;
    uint64_t reply_delay_ms; /* UINT64_MAX: never */
};

/* Owns a platform reference to a subscriber for the duration of a delivery. */
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

/* Returns whether it is a live handle. Complains, with the name of the call, when it is not; NULL
 * gives no complaint. */
bool subscriber_is_known(const oxni_subscriber *subscriber, const char *call);

#endif
