/* Mapping of evidence, and writing of results. */
#include "file.h"

#include <windows.h>

#include "text.h"

void evidence_bad(const std::string &path, const std::string &what)
{
    throw devhost_error(EXIT_BAD_EVIDENCE, path + ": " + what);
}

/* A handle that closes itself. */
struct scoped_handle {
    HANDLE handle;

    ~scoped_handle()
    {
        if (handle != nullptr && handle != INVALID_HANDLE_VALUE)
            CloseHandle(handle);
    }
};

evidence_file::evidence_file(const std::string &path, uint64_t most_bytes)
{
    const std::wstring wide = text_wide(path);
    const DWORD attributes = GetFileAttributesW(wide.c_str());
    LARGE_INTEGER size;
    FILETIME written;

    if (attributes != INVALID_FILE_ATTRIBUTES && (attributes & FILE_ATTRIBUTE_DIRECTORY) != 0)
        evidence_bad(path, "a folder, expected a file");
    const scoped_handle file = {CreateFileW(
        wide.c_str(), GENERIC_READ, FILE_SHARE_READ | FILE_SHARE_WRITE | FILE_SHARE_DELETE, nullptr,
        OPEN_EXISTING, FILE_ATTRIBUTE_NORMAL, nullptr)};

    /* Not GetFileInformationByHandle, which asks another process for the volume under Wine. */
    if (file.handle == INVALID_HANDLE_VALUE || !GetFileSizeEx(file.handle, &size) ||
        !GetFileTime(file.handle, nullptr, nullptr, &written)) {
        const DWORD error = GetLastError();

        evidence_bad(path, "cannot be opened: " + text_error(error));
    }
    bytes_ = static_cast<uint64_t>(size.QuadPart);
    written_100ns_ = static_cast<uint64_t>(written.dwHighDateTime) << 32 | written.dwLowDateTime;
    if (bytes_ > most_bytes)
        evidence_bad(path,
                     text_format("has %llu bytes, expected %llu at most", bytes_, most_bytes));
    if (bytes_ == 0)
        return;
    const scoped_handle mapping = {
        CreateFileMappingW(file.handle, nullptr, PAGE_READONLY, 0, 0, nullptr)};

    if (mapping.handle != nullptr)
        data_ = static_cast<const uint8_t *>(MapViewOfFile(mapping.handle, FILE_MAP_READ, 0, 0, 0));
    if (data_ == nullptr) {
        const DWORD error = GetLastError();

        evidence_bad(path, "cannot be read: " + text_error(error));
    }
    is_mapped_ = true;
}

evidence_file::~evidence_file()
{
    if (is_mapped_)
        UnmapViewOfFile(data_);
}

/* Result: ERROR_SUCCESS or what went wrong. */
static DWORD write_whole(const std::wstring &path, const std::string &text)
{
    const scoped_handle file = {
        CreateFileW(path.c_str(), GENERIC_WRITE, 0, nullptr, CREATE_ALWAYS, 0, nullptr)};

    if (file.handle == INVALID_HANDLE_VALUE)
        return GetLastError();
    for (size_t at = 0; at < text.size();) {
        const size_t left = text.size() - at;
        DWORD written = 0;

        if (!WriteFile(file.handle, text.data() + at,
                       static_cast<DWORD>(left < 0x1000000 ? left : 0x1000000), &written, nullptr))
            return GetLastError();
        at += written;
    }
    return FlushFileBuffers(file.handle) ? static_cast<DWORD>(ERROR_SUCCESS) : GetLastError();
}

void evidence_write(const std::string &path, const std::string &text)
{
    const std::wstring wide = text_wide(path),
                       beside = wide + text_wide(text_format(".%lu.new", GetCurrentProcessId()));
    DWORD error = write_whole(beside, text);

    if (error == ERROR_SUCCESS &&
        !MoveFileExW(beside.c_str(), wide.c_str(), MOVEFILE_REPLACE_EXISTING))
        error = GetLastError();
    if (error == ERROR_SUCCESS)
        return;
    DeleteFileW(beside.c_str());
    throw devhost_error(EXIT_BAD_CALL, "cannot write '" + path + "': " + text_error(error));
}
