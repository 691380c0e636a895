/* Unique identifiers, or sequential ones for reproducible runs. The host's thread. */
#include "base.h"

#include <cstdio>
#include <cstring>

#include <rpc.h>

#include <oxni/base/uuid.h>

static_assert(sizeof(oxni_uuid) == sizeof(GUID), "a UUID has the layout of a Windows GUID");

static uint32_t s_next; /* 0: Windows creates identifiers */

void oxnih_uuid_fix(uint32_t start)
{
    s_next = start;
}

int oxni_uuid_create(oxni_uuid *uuid)
{
    GUID made = {};
    RPC_STATUS status;

    if (uuid == nullptr)
        return -1;
    if (s_next != 0) {
        /* With the version and variant bits of a random identifier. */
        *uuid = {
            s_next++, 0, 0x4000, {0x80, 0, 0, 0, 0, 0, 0, 0}
        };
        return 0;
    }
    status = UuidCreate(&made);
    if (status != RPC_S_OK && status != RPC_S_UUID_LOCAL_ONLY)
        made = {};
    memcpy(uuid, &made, sizeof(*uuid));
    return status == RPC_S_OK || status == RPC_S_UUID_LOCAL_ONLY ? 0 : -1;
}

int oxni_uuid_make_cstr(const oxni_uuid *uuid, char *buffer, size_t size)
{
    char text[40];

    if (buffer == nullptr || size == 0)
        return -1;
    buffer[0] = '\0';
    if (uuid == nullptr)
        return -1;
    snprintf(text, sizeof(text), "%08x-%04x-%04x-%02x%02x-%02x%02x%02x%02x%02x%02x", uuid->data1,
             uuid->data2, uuid->data3, uuid->data4[0], uuid->data4[1], uuid->data4[2],
             uuid->data4[3], uuid->data4[4], uuid->data4[5], uuid->data4[6], uuid->data4[7]);
    return str_fit(text, buffer, size) ? 0 : -1;
}
