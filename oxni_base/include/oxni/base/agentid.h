/* Identity of this device (liboxni_agentid). */
#ifndef OXNI_BASE_AGENTID_H
#define OXNI_BASE_AGENTID_H

#include <oxni/base/api.h>

/* Writes the MD5 hash of the device id, as 32 lower-case hexadecimal digits. Result 0; -1 when the
 * buffer is too small or the hash fails: buffer is then empty. */
OXNI_API int oxni_dev_get_id_md5(char *buffer, size_t size);

/* Returns the CRC-32 of the same device id. */
OXNI_API uint32_t oxni_dev_get_id_crc32(void);

#endif
