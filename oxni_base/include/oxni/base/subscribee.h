/* Services ("subscribees") that subscribers register with. */
#ifndef OXNI_BASE_SUBSCRIBEE_H
#define OXNI_BASE_SUBSCRIBEE_H

#include <oxni/base/api.h>
#include <oxni/base/json.h>
#include <oxni/base/subscriber.h>

/* Moments of a service's callback. */
enum oxni_subscribee_moment {
    OXNI_MOMENT_NONE = 0,
    OXNI_MOMENT_MESSAGE = 1,     /* a subscriber sent a message, the first one to register */
    OXNI_MOMENT_UNSUBSCRIBE = 2, /* it left or died; once */
    OXNI_MOMENT_ACCEPTED = 3,    /* it is subscribed now */
};

/*
 * error       0; another value tells that the event failed.
 * message     For moment 1, borrowed for the call; otherwise NULL.
 * subscriber  Borrowed for the call: who keeps it retains it.
 */
typedef void (*oxni_subscribee_fn)(int32_t error, void *arg, int32_t moment, json_t *message,
                                   oxni_subscriber *subscriber);

/* A second callback that this platform never calls. */
typedef void (*oxni_subscribee_second_fn)(void);

/*
 * Offers a service.
 *
 * schema   JSON Schema that the messages of subscribers are held to: one that fails is refused to
 *          its sender and not delivered.
 * flags    Reserved, 0.
 * Result   0 installed; -1 a null argument, a text that is no schema, or a name in use.
 */
OXNI_API int oxni_subscribee_install(const char *name, const char *schema, unsigned flags,
                                     oxni_subscribee_fn fn, oxni_subscribee_second_fn second);

/*
 * Sends a message to one subscriber. Queued. The reply is called after the subscriber's callback has
 * returned; a subscriber that is unreachable, or leaves in between, gives a nonzero error.
 *
 * message  Kept. NULL is refused.
 * reply    Gets exactly one call, with cookie; may be NULL.
 * Result   0 queued; -1 refused: message is NULL, or no living handle of that value exists. reply is
 *          not called, and cookie stays the caller's.
 */
OXNI_API int oxni_subscribee_pushback(oxni_subscriber *subscriber, json_t *message, void *cookie,
                                      oxni_push_reply_fn reply);

#endif
