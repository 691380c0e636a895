/* Host interface of the device identity. Plug-ins never include this header. */
#ifndef OXNIH_AGENTID_HOST_H
#define OXNIH_AGENTID_HOST_H

#include <oxni/base/api.h>

/* Sets the device id; UTF-8, copied. NULL restores the machine's own id: the GUID that Windows
 * set-up created, or the computer name. */
OXNI_API void oxnih_set_device_id(const char *id);

#endif
