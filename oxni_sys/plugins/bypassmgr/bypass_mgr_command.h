/* Commands to registered products, and what their delivery changes. Host's callbacks. */
#ifndef BYPASS_MGR_COMMAND_H
#define BYPASS_MGR_COMMAND_H

#include <stdint.h>

#include <oxni/base/subscriber.h>

/* The count that a proven run of Windows resets products to. */
#define CALIBRATED_COUNT 1

/* A command to send. Borrowed texts. */
struct bypass_cmd {
    const char *type;   /* "bypass", "recover" or "set_count"; NULL is "bypass" */
    const char *reason; /* NULL is "none" */
    int64_t count;      /* for "set_count" only */
};

/* Result 0 sent, refused by the platform, or the subscriber is not registered; -1 a null handle or
 * no memory. Everything but 0 sent is logged. */
int bypass_mgr_send(oxni_subscriber *subscriber, const struct bypass_cmd *request);

/* "recover" to every product that is in bypass, was examined and has not been sent one. */
void bypass_mgr_send_recovery(void);

/* "set_count" 1 to every product that is not in bypass and counts 2 or more. */
void bypass_mgr_calibrate_counts(void);

#endif
