/* Subscribers: those who register with a service and receive its messages. */
#ifndef OXNI_BASE_SUBSCRIBER_H
#define OXNI_BASE_SUBSCRIBER_H

#include <oxni/base/api.h>
#include <oxni/base/json.h>

/* A counted handle. The platform holds one reference while the subscriber lives. */
typedef struct oxni_subscriber oxni_subscriber;

/* Who a subscriber is. ns and name must be set. */
typedef struct oxni_subscriber_attr {
    const char *ns;
    const char *name;
    void *reserved; /* NULL */
} oxni_subscriber_attr;

/*
 * What reaches a subscriber: event 0, it is subscribed now, without a message; event 1, message
 * from its service. message is borrowed for the call.
 */
typedef void (*oxni_subscriber_fn)(oxni_subscriber *subscriber, uint32_t event, void *arg,
                                   json_t *message);

/* How a push ended: error 0 delivered. cookie and subscriber as pushed, reserved NULL. */
typedef void (*oxni_push_reply_fn)(int32_t error, void *cookie, oxni_subscriber *subscriber,
                                   void *reserved);

/* A new subscriber with one reference for the caller; NULL when an attribute is missing or memory
 * runs out. The texts are copied. */
OXNI_API oxni_subscriber *oxni_subscriber_new(const oxni_subscriber_attr *attr);

/*
 * Registers with a service. Queued: the service is told first, then fn gets event 0.
 *
 * message  The registration message, kept.
 * Result   0 queued; -1 a null argument, or subscribed already. A message that the service's schema
 *          refuses or a service that never comes is reported to the host, and fn is not called.
 */
OXNI_API int oxni_subscriber_subscribe(oxni_subscriber *subscriber, const char *service,
                                       json_t *message, oxni_subscriber_fn fn);

/*
 * Sends a message to the service. Queued.
 *
 * message  Kept. NULL is refused.
 * reply    Gets exactly one call, with cookie; may be NULL.
 * Result   0 queued; -1 not: reply is not called.
 */
OXNI_API int oxni_subscriber_pushforward(oxni_subscriber *subscriber, json_t *message, void *cookie,
                                         oxni_push_reply_fn reply);

/* Takes a reference, and gives one back. NULL is harmless. A handle of which nobody holds a
 * reference is gone. */
OXNI_API void oxni_subscriber_retain(oxni_subscriber *subscriber);
OXNI_API void oxni_subscriber_delete(oxni_subscriber *subscriber);

/* Borrowed; readable while anybody holds a reference, also when the subscriber has left. NULL for
 * NULL. */
OXNI_API const oxni_subscriber_attr *oxni_subscriber_get_attr(oxni_subscriber *subscriber);

#endif
