/* Resources of the agent that are reached by path. */
#ifndef OXNI_BASE_RESOURCE_H
#define OXNI_BASE_RESOURCE_H

#include <oxni/base/api.h>
#include <oxni/base/json.h>

/* state: nonzero when the resource is online. */
typedef void (*oxni_res_state_fn)(const char *path, int32_t state);

typedef struct oxnir_rsp oxnir_rsp;

/* response: borrowed for the call. user: as given to oxni_res_deliver. */
typedef void (*oxni_res_reply_fn)(oxnir_rsp *response, void *user);

/* Watches a resource: fn is called once with its present state, queued, and then at each change.
 * reserved is 0. Result 0; -1 a null argument. */
OXNI_API int oxni_res_require(const char *path, int reserved, oxni_res_state_fn fn);

/*
 * Sends a request to a resource. Queued.
 *
 * request  Stolen.
 * reply    Gets at most one call; a transport error when nobody answers.
 * Result   0 queued; -1 a null argument: request is released all the same.
 */
OXNI_API int oxni_res_deliver(const char *path, json_t *request, void *user,
                              oxni_res_reply_fn reply, int reserved);

/* 0 when an answer arrived, otherwise the transport's error. */
OXNI_API int32_t oxnir_rsp_get_errno(oxnir_rsp *response);

/* The answer, borrowed; NULL when there is none. */
OXNI_API json_t *oxnir_rsp_get_resp(oxnir_rsp *response);

#endif
