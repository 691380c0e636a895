/* Identity of this device (liboxni_agentid). */
#ifndef OXNI_BASE_AGENTID_H
#define OXNI_BASE_AGENTID_H

#include <oxni/base/api.h>

/* The device id as MD5 text: 32 lower-case hexadecimal digits. Result 0; -1 no room: buffer is
 * empty then. */
OXNI_API int oxni_dev_get_id_md5(char *buffer, size_t size);

/* CRC-32 of the same device id. */
OXNI_API uint32_t oxni_dev_get_id_crc32(void);

#endif
