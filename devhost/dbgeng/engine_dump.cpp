/* A dump's file, and the results for what the reader refuses. */
#include "engine_script_internal.h"

#include <memory>

static const struct {
    enum kernel_dump_error error;
    DWORD code;
} s_errors[] = {
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
    for (const auto &row : s_errors)
        if (row.error == error)
            return HRESULT_FROM_WIN32(row.code);
    return S_OK;
}

static HRESULT cannot_read(std::string *reason)
{
    const DWORD error = GetLastError();

    *reason = "the file cannot be read: error " + std::to_string(error);
    return HRESULT_FROM_WIN32(error);
}

HRESULT engine_read_dump(const wchar_t *path, kernel_dump *dump, std::string *reason)
{
    typedef std::unique_ptr<void, BOOL(WINAPI *)(HANDLE)> scoped_handle;
    const HANDLE opened =
        CreateFileW(path, GENERIC_READ, FILE_SHARE_READ, nullptr, OPEN_EXISTING, 0, nullptr);
    LARGE_INTEGER size = {};

    if (opened == INVALID_HANDLE_VALUE)
        return cannot_read(reason);
    const scoped_handle file(opened, CloseHandle);

    if (!GetFileSizeEx(opened, &size))
        return cannot_read(reason);
    /* Windows maps no empty file. */
    if (size.QuadPart == 0)
        return result_of(kernel_dump_read(nullptr, 0, dump, reason));
    const scoped_handle mapping(CreateFileMappingW(opened, nullptr, PAGE_READONLY, 0, 0, nullptr),
                                CloseHandle);
    const std::unique_ptr<const void, BOOL(WINAPI *)(LPCVOID)> view(
        mapping != nullptr ? MapViewOfFile(mapping.get(), FILE_MAP_READ, 0, 0, 0) : nullptr,
        UnmapViewOfFile);

    if (view == nullptr)
        return cannot_read(reason);
    return result_of(kernel_dump_read(static_cast<const uint8_t *>(view.get()),
                                      static_cast<uint64_t>(size.QuadPart), dump, reason));
}
