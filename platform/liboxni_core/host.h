/*
 * The reference platform's other side: the dispatcher of liboxni_core, and what a host of plug-ins
 * plays through it. A plug-in never includes this.
 *
 * One dispatcher delivers everything, one at a time, ordered by due time; of what is due at the
 * same millisecond, queued deliveries go before timers, and each kind in the order in which it was
 * queued or armed. All functions are called on the host's one thread; those that only queue may be
 * called from inside a callback.
 */
#ifndef OXNIH_CORE_HOST_H
#define OXNIH_CORE_HOST_H

#include <oxni/base/api.h>
#include <oxni/base/json.h>
#include <oxni/base/subscriber.h>

/* Dispatcher. */

/*
 * Delivers everything that is due up to that tick (milliseconds since Windows started), moving
 * simulated time from event to event and at last to tick_ms; real time is waited for.
 *
 * Result   0; -1 called from inside a callback (a complaint says so), or an exception left a
 *          callback: what was due behind it is still queued. A complaint names the exception,
 *          unless the host's exit function threw it.
 */
OXNI_API int oxnih_core_run_until(uint64_t tick_ms);
/* Delivers the next event if it is due now. Result 1 delivered, 0 nothing due, -1 as above. */
OXNI_API int oxnih_core_run_one(void);
/* Tick of the next event; UINT64_MAX when there is none. */
OXNI_API uint64_t oxnih_core_next_due(void);
/* Queues a call of the host's own, after delay_ms. */
OXNI_API void oxnih_core_post(uint64_t delay_ms, void (*fn)(void *user), void *user);
/* Forgets timers, queued events (the host's own too), replies, services, subscribers, commands and
 * watches, without calling anybody: the agent's process ended. Timer handles are not used again all
 * the same. The observer, handlers and resources' states stay. Refused inside a callback, with a
 * complaint. */
OXNI_API void oxnih_core_reset(void);

/* Errors that the platform itself puts into replies and answers. */
enum {
    OXNIH_ERROR_NOBODY = 2,   /* nobody answers, or the one who would has left */
    OXNIH_ERROR_REFUSED = 22, /* the message failed the service's schema */
};

/* What happens, for views and expectations. */

enum oxnih_event_kind {
    OXNIH_EVENT_SERVICE,    /* a service was installed: name */
    OXNIH_EVENT_REFUSED,    /* a message failed the schema, or its service is missing: text why */
    OXNIH_EVENT_SUBSCRIBED, /* a subscriber was accepted */
    OXNIH_EVENT_LEFT,       /* it left */
    OXNIH_EVENT_TO_SERVICE, /* a message is delivered to the service */
    OXNIH_EVENT_PUSHED,     /* the service pushed a message: queued */
    OXNIH_EVENT_TO_SUBSCRIBER, /* it was delivered */
    OXNIH_EVENT_REPLY,         /* the push was answered: error */
    OXNIH_EVENT_LINK,     /* a watcher was told a resource's state: name, error holds the state */
    OXNIH_EVENT_REQUEST,  /* a request for a resource was delivered: name, message */
    OXNIH_EVENT_RESPONSE, /* it was answered: name, error, message or NULL */
    OXNIH_EVENT_COMMAND,  /* a console command line ran: name, text the line */
    OXNIH_EVENT_ECHO,     /* it printed: text */
    OXNIH_EVENT_EXEC,     /* a plug-in called a command of another module: name, text the line */
    OXNIH_EVENT_EXEC_ANSWER,   /* it was answered: error, text or NULL */
    OXNIH_EVENT_TIMER_ARMED,   /* timer, delay_ms */
    OXNIH_EVENT_TIMER_FIRED,   /* timer; told before the callback runs */
    OXNIH_EVENT_TIMER_STOPPED, /* timer; only when it was pending */
    OXNIH_EVENT_DELIVERED,     /* what was due has been delivered, its callbacks have returned */
};

/* Told right before the call that an event stands for, OXNIH_EVENT_DELIVERED behind all of them.
 * Unused members are NULL or 0; everything is borrowed for the call. */
typedef struct oxnih_event {
    enum oxnih_event_kind kind;
    int32_t error;
    uint64_t timer;
    uint64_t delay_ms;
    oxni_subscriber *subscriber;
    const char *name; /* service, resource path or namespace */
    const char *text;
    json_t *message;
} oxnih_event;

typedef void (*oxnih_observer_fn)(const oxnih_event *event, void *user);
OXNI_API void oxnih_core_set_observer(oxnih_observer_fn fn, void *user);

/* Subscribers. */

/* Messages that fail the schema are delivered all the same, as a lenient host does. */
OXNI_API void oxnih_core_set_lenient(int lenient);
/* The subscriber leaves or dies: its service gets moment 2, once, queued; what is on its way to it,
 * delayed replies among it, gets error replies afterwards. The handle stays valid while somebody
 * holds a reference. */
OXNI_API void oxnih_subscriber_leave(oxni_subscriber *subscriber);
/* Pushes to it are answered with this error and not delivered; 0 makes it reachable. */
OXNI_API void oxnih_subscriber_set_unreachable(oxni_subscriber *subscriber, int32_t error);
/* The reply for a push to it comes this much after the delivery; UINT64_MAX: never. */
OXNI_API void oxnih_subscriber_set_reply_delay(oxni_subscriber *subscriber, uint64_t delay_ms);
/* References held at present by everybody but the platform, and deletes that had no reference to
 * give back. */
OXNI_API uint64_t oxnih_subscriber_references(oxni_subscriber *subscriber);
OXNI_API uint64_t oxnih_core_excess_deletes(void);
/* Pushes, in both directions, whose reply has not come yet. */
OXNI_API uint64_t oxnih_core_pending_replies(void);

/* Resources. */

typedef struct oxnih_request oxnih_request;

/* Tells the watchers of path, queued, when the state differs from the last one (0 at start). */
OXNI_API void oxnih_res_set_state(const char *path, int32_t state);
/* Who answers requests for a path; NULL: nobody, they fail in transport with error 2. message is
 * borrowed for the call. The handler answers with oxnih_res_answer, in the call or later or
 * never. */
typedef void (*oxnih_res_handler_fn)(oxnih_request *request, json_t *message, void *user);
OXNI_API void oxnih_res_set_handler(const char *path, oxnih_res_handler_fn fn, void *user);
/* Queues the answer, once a request. answer is kept and may be NULL. */
OXNI_API void oxnih_res_answer(oxnih_request *request, int32_t error, json_t *answer,
                               uint64_t delay_ms);

/* Debug console. */

/* Queues a command line for a declared command of that namespace, words separated by blanks. What
 * it prints comes as OXNIH_EVENT_ECHO; an unknown word is an OXNIH_EVENT_REFUSED. */
OXNI_API void oxnih_dbg_run(const char *ns, const char *command_line);
/* The help text of a declared command, borrowed; NULL when there is none. */
OXNI_API const char *oxnih_dbg_help(const char *ns, const char *command);
/* Who answers oxni_dbg_exec calls for a namespace; NULL: nobody, they get error 2. */
typedef void (*oxnih_dbg_handler_fn)(oxnih_request *call, const char *command_line, void *user);
OXNI_API void oxnih_dbg_set_handler(const char *ns, oxnih_dbg_handler_fn fn, void *user);
/* Queues the answer, once a call. echo is copied and may be NULL. */
OXNI_API void oxnih_dbg_answer(oxnih_request *call, int32_t error, const char *echo,
                               uint64_t delay_ms);

#endif
