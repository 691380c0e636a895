/* A registry read that Windows has no single call for. */
#ifndef OXNI_BASE_REGISTRY_H
#define OXNI_BASE_REGISTRY_H

#include <windows.h>

#include <oxni/base/api.h>

/*
 * Reads a REG_QWORD value of 8 bytes.
 *
 * root     A predefined or open key.
 * path     Path of the key below root.
 * value    Receives the number; unchanged on failure.
 * Result   Nonzero on success; 0 when the key or value is missing, or the value has another type or
 *          size.
 */
OXNI_API int oxni_req_query_qword_w(HKEY root, const wchar_t *path, const wchar_t *name,
                                    uint64_t *value);

#endif
