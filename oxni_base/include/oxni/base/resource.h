/* Resources of the agent, addressed by path. */
#ifndef OXNI_BASE_RESOURCE_H
#define OXNI_BASE_RESOURCE_H

#include <oxni/base/api.h>
#include <oxni/base/json.h>

/* state is nonzero when the resource is online. */
typedef void (*oxni_res_state_fn)(const char *path, int32_t state);

typedef struct oxnir_rsp oxnir_rsp;

/* response is borrowed for the call. user is as passed to oxni_res_deliver. */
typedef void (*oxni_res_reply_fn)(oxnir_rsp *response, void *user);

/* Watches a resource. The platform queues a call of fn with the current state, and one at each
 * change. reserved is 0. Result 0; -1 for a null argument. */
OXNI_API int oxni_res_require(const char *path, int reserved, oxni_res_state_fn fn);

/*
 * Queues a request to a resource.
 *
 * request  Stolen, also on failure.
 * reply    Called at most once, with a transport error when the resource has no handler.
 * Result   0 queued; -1 for a null argument.
 */
OXNI_API int oxni_res_deliver(const char *path, json_t *request, void *user,
                              oxni_res_reply_fn reply, int reserved);

/* Returns 0 when a response arrived, otherwise the transport error. */
OXNI_API int32_t oxnir_rsp_get_errno(oxnir_rsp *response);

/* Returns the response body, borrowed; NULL when there is none. */
OXNI_API json_t *oxnir_rsp_get_resp(oxnir_rsp *response);

#endif
