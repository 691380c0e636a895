/*
 * Host interface of liboxni_core: the dispatcher, subscribers, resources and the debug console.
 * Plug-ins never include this header.
 *
 * One dispatcher delivers all events, one at a time, ordered by due time. Among events due at the
 * same millisecond, queued deliveries run before timers, and each kind runs in the order in which
 * it was queued or armed. Call all functions on the host's thread. Functions that only queue may be
 * called from inside a callback.
 */
#ifndef OXNIH_CORE_HOST_H
#define OXNIH_CORE_HOST_H

#include <oxni/base/api.h>
#include <oxni/base/json.h>
#include <oxni/base/subscriber.h>

/* Dispatcher. */

/*
 * Delivers all events due at or before tick_ms (milliseconds since Windows started). Advances
 * simulated time from event to event and finally to tick_ms; waits for real time.
 *
 * Result   0; -1 when called from inside a callback, which the platform complains about, or when an
 *          exception left a callback: later events remain queued. A complaint names the exception
 *          unless the host's exit function threw it.
 */
OXNI_API int oxnih_core_run_until(uint64_t tick_ms);
/* Delivers the next event if it is due now. Result 1 delivered, 0 nothing due, -1 as above. */
OXNI_API int oxnih_core_run_one(void);
/* Returns the tick of the next event; UINT64_MAX when the queue is empty. */
OXNI_API uint64_t oxnih_core_next_due(void);
/* Queues a call to a function of the host after delay_ms. */
OXNI_API void oxnih_core_post(uint64_t delay_ms, void (*fn)(void *user), void *user);
/* Drops timers, queued events (including the host's), replies, services, subscribers, commands and
 * watches without calling any callback, as the end of the agent's process does. Timer handles are
 * still not reused. Keeps the observer, the handlers and the states of resources. Rejected with a
 * complaint inside a callback. */
OXNI_API void oxnih_core_reset(void);

/* Errors that the platform itself sets in replies and responses. */
enum {
    OXNIH_ERROR_UNREACHABLE = 2, /* no receiver exists, or it has left */
    OXNIH_ERROR_REFUSED = 22,    /* the message does not match the service's schema */
};

/* Events, for views and expectations. */

enum oxnih_event_kind {
    OXNIH_EVENT_SERVICE,       /* a service was installed: name */
    OXNIH_EVENT_REFUSED,       /* a message was rejected or its service is missing: text is why */
    OXNIH_EVENT_SUBSCRIBED,    /* a subscriber was accepted */
    OXNIH_EVENT_LEFT,          /* a subscriber left */
    OXNIH_EVENT_TO_SERVICE,    /* a message is delivered to the service */
    OXNIH_EVENT_PUSHED,        /* the service queued a push */
    OXNIH_EVENT_TO_SUBSCRIBER, /* a push is delivered to the subscriber */
    OXNIH_EVENT_REPLY,         /* a push is replied to: error */
    OXNIH_EVENT_LINK,          /* a watcher receives a resource's state: name; error is the state */
    OXNIH_EVENT_REQUEST,       /* a request to a resource is delivered: name, message */
    OXNIH_EVENT_RESPONSE,      /* a response is delivered: name, error, message or NULL */
    OXNIH_EVENT_COMMAND,       /* a console command runs: name; text is the command line */
    OXNIH_EVENT_ECHO,          /* a console command printed: text */
    OXNIH_EVENT_EXEC,          /* a plug-in runs another module's command: name; text is the line */
    OXNIH_EVENT_EXEC_ANSWER,   /* its answer is delivered: error, text or NULL */
    OXNIH_EVENT_TIMER_ARMED,   /* timer, delay_ms */
    OXNIH_EVENT_TIMER_FIRED,   /* timer; reported before the callback runs */
    OXNIH_EVENT_TIMER_STOPPED, /* timer; only when it was pending */
    OXNIH_EVENT_DELIVERED,     /* the callbacks of a due event have returned */
};

/* Passed to the observer right before the callback of the event; OXNIH_EVENT_DELIVERED follows
 * after the callbacks. Unused members are NULL or 0. All pointers are borrowed for the call. */
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

/* Nonzero delivers messages that do not match the schema too, as a lenient host does. */
OXNI_API void oxnih_core_set_lenient(int lenient);
/* Makes the subscriber leave, as its death does. Queues OXNI_MOMENT_UNSUBSCRIBE to its service,
 * once. Pending pushes to it, including those with delayed replies, then get error replies. The
 * handle stays valid while a reference exists. */
OXNI_API void oxnih_subscriber_leave(oxni_subscriber *subscriber);
/* Makes pushes to the subscriber fail with this error, undelivered; 0 makes it reachable. */
OXNI_API void oxnih_subscriber_set_unreachable(oxni_subscriber *subscriber, int32_t error);
/* Delays the replies to pushes to the subscriber after the delivery; UINT64_MAX: no reply. */
OXNI_API void oxnih_subscriber_set_reply_delay(oxni_subscriber *subscriber, uint64_t delay_ms);
/* Return the number of references that the platform does not hold, and the number of deletes
 * without such a reference. */
OXNI_API uint64_t oxnih_subscriber_references(oxni_subscriber *subscriber);
OXNI_API uint64_t oxnih_core_excess_deletes(void);
/* Returns the number of pushes, in both directions, without a reply so far. */
OXNI_API uint64_t oxnih_core_pending_replies(void);

/* Resources. */

typedef struct oxnih_request oxnih_request;

/* Sets a resource's state (initially 0). Queues the state to the watchers of path when it
 * changed. */
OXNI_API void oxnih_res_set_state(const char *path, int32_t state);
/* The same even if the state did not change. */
OXNI_API void oxnih_res_report_state(const char *path, int32_t state);
/* Sets the handler of requests to a path. Without one (NULL), requests fail in transport with error
 * 2. message is borrowed for the call. The handler may call oxnih_res_answer in the call, later, or
 * not at all. */
typedef void (*oxnih_res_handler_fn)(oxnih_request *request, json_t *message, void *user);
OXNI_API void oxnih_res_set_handler(const char *path, oxnih_res_handler_fn fn, void *user);
/* Queues the response, once per request. answer is kept and may be NULL. */
OXNI_API void oxnih_res_answer(oxnih_request *request, int32_t error, json_t *answer,
                               uint64_t delay_ms);

/* Debug console. */

/* Queues a command line for a declared command of that namespace; arguments are separated by
 * blanks. Output arrives as OXNIH_EVENT_ECHO, an unknown command as OXNIH_EVENT_REFUSED. */
OXNI_API void oxnih_dbg_run(const char *ns, const char *command_line);
/* Returns the help text of a declared command, borrowed; NULL for an unknown command. */
OXNI_API const char *oxnih_dbg_help(const char *ns, const char *command);
/* Sets the handler of oxni_dbg_exec calls for a namespace. Without one (NULL), calls get error
 * 2. */
typedef void (*oxnih_dbg_handler_fn)(oxnih_request *call, const char *command_line, void *user);
OXNI_API void oxnih_dbg_set_handler(const char *ns, oxnih_dbg_handler_fn fn, void *user);
/* Queues the answer, once per call. echo is copied and may be NULL. */
OXNI_API void oxnih_dbg_answer(oxnih_request *call, int32_t error, const char *echo,
                               uint64_t delay_ms);

#endif
