/* Universally unique identifiers. */
#ifndef OXNI_BASE_UUID_H
#define OXNI_BASE_UUID_H

#include <oxni/base/api.h>

/* Layout of a Windows GUID. */
typedef struct oxni_uuid {
    uint32_t data1;
    uint16_t data2;
    uint16_t data3;
    uint8_t data4[8];
} oxni_uuid;

/* Creates a new identifier. Result 0; -1 failed: uuid is then all zero. */
OXNI_API int oxni_uuid_create(oxni_uuid *uuid);

/* Writes its text, 36 lower-case characters grouped 8-4-4-4-12. Result 0; -1 when it does not fit:
 * buffer is then empty. */
OXNI_API int oxni_uuid_make_cstr(const oxni_uuid *uuid, char *buffer, size_t size);

#endif
