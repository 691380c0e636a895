/* Services ("subscribees") that subscribers register with. */
#ifndef OXNI_BASE_SUBSCRIBEE_H
#define OXNI_BASE_SUBSCRIBEE_H

#include <oxni/base/api.h>
#include <oxni/base/json.h>
#include <oxni/base/subscriber.h>

/* Why the platform calls a service's callback. */
enum oxni_subscribee_moment {
    OXNI_MOMENT_NONE = 0,
    OXNI_MOMENT_MESSAGE = 1,     /* a subscriber sent a message; its first one registers it */
    OXNI_MOMENT_UNSUBSCRIBE = 2, /* a subscriber left or died; once per subscriber */
    OXNI_MOMENT_ACCEPTED = 3,    /* a subscriber is now subscribed */
};

/*
 * error       0; nonzero when the event failed.
 * message     For OXNI_MOMENT_MESSAGE, borrowed for the call; otherwise NULL.
 * subscriber  Borrowed for the call. Retain it to keep it longer.
 */
typedef void (*oxni_subscribee_fn)(int32_t error, void *arg, int32_t moment, json_t *message,
                                   oxni_subscriber *subscriber);

/* A second callback, which this platform never calls. */
typedef void (*oxni_subscribee_second_fn)(void);

/*
 * Installs a service.
 *
 * schema   JSON Schema for the messages of subscribers. A message that does not match is rejected:
 *          the sender gets an error and the service does not receive it.
 * flags    Reserved, 0.
 * Result   0 installed; -1 for a null argument, an invalid schema, or a name in use.
 */
OXNI_API int oxni_subscribee_install(const char *name, const char *schema, unsigned flags,
                                     oxni_subscribee_fn fn, oxni_subscribee_second_fn second);

/*
 * Queues a message to one subscriber. The reply is called after the subscriber's callback has
 * returned. Its error is nonzero when the subscriber is unreachable or leaves before the delivery.
 *
 * message  Kept. NULL is rejected.
 * reply    Called exactly once, with cookie. May be NULL.
 * Result   0 queued; -1 when message is NULL or subscriber is not a live handle: reply is not
 *          called and the caller still owns cookie.
 */
OXNI_API int oxni_subscribee_pushback(oxni_subscriber *subscriber, json_t *message, void *cookie,
                                      oxni_push_reply_fn reply);

#endif
