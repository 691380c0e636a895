/* The core: bypass decisions for registered products. Host's callback threads only. */
#ifndef BYPASS_MGR_H
#define BYPASS_MGR_H

#include <oxni/base/json.h>

/* Sets the core up and offers its service. Result 0; -1 the table or the mutex cannot be made, and
 * nothing else is set up. */
int bypass_mgr_init(void);

/*
 * The message with which the platform's own drivers register, and tell their state, as product
 * "XNI".
 *
 * names    count_of_names module names, in the order of the message.
 * Result   A new object; NULL when memory runs out.
 */
json_t *bypass_msg_build(const char *type, const char *status, int32_t count,
                         const char *const *names, int32_t count_of_names);

#endif
