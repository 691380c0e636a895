/* Whether a service of Windows is stopped. Stateless; any thread of the host. */
#ifndef SERVICE_STATE_H
#define SERVICE_STATE_H

#include <stdint.h>

/* A service that is about to start or stop is queried at most wait_count times, at least once,
 * and once a second.
 * Result: true when it is stopped, not installed, or its state cannot be queried; false in any other
 * state, also when the service manager or the service cannot be opened. */
bool is_service_stopped(int32_t wait_count, const wchar_t *service);

#endif
