/* The reference platform's other side of the device identity. A plug-in never includes this. */
#ifndef OXNIH_AGENTID_HOST_H
#define OXNIH_AGENTID_HOST_H

#include <oxni/base/api.h>

/* The device id from here on, copied; UTF-8. NULL goes back to the machine's own: the GUID that
 * Windows' set-up gave it, or the computer's name. */
OXNI_API void oxnih_set_device_id(const char *id);

#endif
