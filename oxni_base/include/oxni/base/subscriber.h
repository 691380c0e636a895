/* Subscribers: they register with a service and receive its messages. */
#ifndef OXNI_BASE_SUBSCRIBER_H
#define OXNI_BASE_SUBSCRIBER_H

#include <oxni/base/api.h>
#include <oxni/base/json.h>

/* A reference-counted handle. The platform holds one reference while the subscriber is live. */
typedef struct oxni_subscriber oxni_subscriber;

/* The identity of a subscriber. ns and name are required. */
typedef struct oxni_subscriber_attr {
    const char *ns;
    const char *name;
    void *reserved; /* NULL */
} oxni_subscriber_attr;

/*
 * Called with event 0 and no message when the subscriber becomes subscribed, and with event 1 for
 * each message from its service. message is borrowed for the call.
 */
typedef void (*oxni_subscriber_fn)(oxni_subscriber *subscriber, uint32_t event, void *arg,
                                   json_t *message);

/* Reports the result of a push: error is 0 when it was delivered. cookie and subscriber are those
 * of the push; reserved is NULL. */
typedef void (*oxni_push_reply_fn)(int32_t error, void *cookie, oxni_subscriber *subscriber,
                                   void *reserved);

/* Returns a new subscriber with one reference, owned by the caller; NULL when an attribute is
 * missing or memory runs out. The texts are copied. */
OXNI_API oxni_subscriber *oxni_subscriber_new(const oxni_subscriber_attr *attr);

/*
 * Queues the registration with a service. The service's callback runs first, then fn with event 0.
 *
 * message  The registration message, kept.
 * Result   0 queued; -1 for a null argument or a subscriber that is already subscribed. When the
 *          message does not match the service's schema, or the service does not exist at delivery,
 *          the platform reports it to the host and does not call fn.
 */
OXNI_API int oxni_subscriber_subscribe(oxni_subscriber *subscriber, const char *service,
                                       json_t *message, oxni_subscriber_fn fn);

/*
 * Queues a message to the service.
 *
 * message  Kept. NULL is rejected.
 * reply    Called exactly once, with cookie. May be NULL.
 * Result   0 queued; -1 not queued: reply is not called.
 */
OXNI_API int oxni_subscriber_pushforward(oxni_subscriber *subscriber, json_t *message, void *cookie,
                                         oxni_push_reply_fn reply);

/* Retain takes a reference; delete releases one. Both ignore NULL. A handle without references is
 * freed. */
OXNI_API void oxni_subscriber_retain(oxni_subscriber *subscriber);
OXNI_API void oxni_subscriber_delete(oxni_subscriber *subscriber);

/* Returns the attributes, borrowed; valid while a reference exists, also after the subscriber has
 * left. Returns NULL for NULL. */
OXNI_API const oxni_subscriber_attr *oxni_subscriber_get_attr(oxni_subscriber *subscriber);

#endif
