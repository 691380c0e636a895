/* Registry reads. Stateless. */
#include "base.h"

#include <oxni/base/registry.h>

int oxni_req_query_qword_w(HKEY root, const wchar_t *path, const wchar_t *name, uint64_t *value)
{
    HKEY key = nullptr;
    uint64_t number = 0;
    DWORD type = REG_NONE, bytes = sizeof(number);
    LSTATUS error;

    if (path == nullptr || value == nullptr ||
        RegOpenKeyExW(root, path, 0, KEY_QUERY_VALUE, &key) != ERROR_SUCCESS)
        return 0;
    error = RegQueryValueExW(key, name, nullptr, &type, reinterpret_cast<BYTE *>(&number), &bytes);
    RegCloseKey(key);
    if (error != ERROR_SUCCESS || type != REG_QWORD || bytes != sizeof(number))
        return 0;
    *value = number;
    return 1;
}
