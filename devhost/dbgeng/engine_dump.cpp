/* A dump's file, and the results for what the reader refuses. */
#include "engine_dump.h"

#include <new>

namespace
{
struct error_row {
    enum kernel_dump_error error;
    DWORD code;
};
} // namespace

static const struct error_row s_errors[] = {
    {KERNEL_DUMP_NOT_A_DUMP, ERROR_BAD_FORMAT   },
    {KERNEL_DUMP_USER_MODE,  ERROR_NOT_SUPPORTED},
    {KERNEL_DUMP_32_BIT,     ERROR_NOT_SUPPORTED},
    {KERNEL_DUMP_MACHINE,    ERROR_NOT_SUPPORTED},
    {KERNEL_DUMP_KIND,       ERROR_NOT_SUPPORTED},
    {KERNEL_DUMP_CUT_OFF,    ERROR_HANDLE_EOF   },
    {KERNEL_DUMP_DAMAGED,    ERROR_FILE_CORRUPT },
    {KERNEL_DUMP_NO_CONTEXT, ERROR_INVALID_DATA },
    {KERNEL_DUMP_NO_MODULES, ERROR_INVALID_DATA },
};

static HRESULT result_of(enum kernel_dump_error error)
{
    for (const error_row &row : s_errors) {
        if (row.error == error)
            return HRESULT_FROM_WIN32(row.code);
    }
    return S_OK;
}

static HRESULT read_bytes(const void *bytes, uint64_t size, kernel_dump *dump, std::string *reason)
{
    try {
        return result_of(kernel_dump_read(static_cast<const uint8_t *>(bytes), size, dump, reason));
    } catch (const std::bad_alloc &) {
        return E_OUTOFMEMORY;
    }
}

HRESULT engine_read_dump(const wchar_t *path, kernel_dump *dump, std::string *reason)
{
    HANDLE file = INVALID_HANDLE_VALUE;
    HANDLE mapping = nullptr;
    const void *view = nullptr;
    LARGE_INTEGER size = {};
    DWORD error = ERROR_SUCCESS;
    HRESULT result;

    file = CreateFileW(path, GENERIC_READ, FILE_SHARE_READ, nullptr, OPEN_EXISTING, 0, nullptr);
    if (file == INVALID_HANDLE_VALUE || !GetFileSizeEx(file, &size))
        error = GetLastError();
    /* Windows maps no empty file. */
    if (error == ERROR_SUCCESS && size.QuadPart > 0) {
        mapping = CreateFileMappingW(file, nullptr, PAGE_READONLY, 0, 0, nullptr);
        if (mapping != nullptr)
            view = MapViewOfFile(mapping, FILE_MAP_READ, 0, 0, 0);
        if (view == nullptr)
            error = GetLastError();
    }
    if (error == ERROR_SUCCESS) {
        result = read_bytes(view, static_cast<uint64_t>(size.QuadPart), dump, reason);
    } else {
        result = HRESULT_FROM_WIN32(error);
        *reason = "the file cannot be read: error " + std::to_string(error);
    }
    if (view != nullptr)
        UnmapViewOfFile(view);
    if (mapping != nullptr)
        CloseHandle(mapping);
    if (file != INVALID_HANDLE_VALUE)
        CloseHandle(file);
    return result;
}
