/* The messages of products and what their registration starts. Host's subscriber callbacks. */
#ifndef BYPASS_MGR_REGISTRY_H
#define BYPASS_MGR_REGISTRY_H

#include <stdint.h>

#include <oxni/base/json.h>
#include <oxni/base/subscriber.h>

/* From this uptime on a run of Windows counts as proven, and counts go back to 1: ten days. */
#define BYPASS_PROVEN_UPTIME_SECONDS 864000u

/* A message of a subscriber arrived. Result 0; -1 bad arguments, no memory, or a second "reg". */
int32_t bypass_mgr_receive(oxni_subscriber *subscriber, json_t *message);

/* A subscriber left: its record is freed and its handle released. NULL is harmless. */
void bypass_mgr_unsubscribe(oxni_subscriber *subscriber);

#endif
