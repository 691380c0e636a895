/* Mapping of evidence, writing of results, and folders. */
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

static uint64_t number_of(const FILETIME &time)
{
    return static_cast<uint64_t>(time.dwHighDateTime) << 32 | time.dwLowDateTime;
}

evidence_file::evidence_file(const std::string &path) : path_(path)
{
    LARGE_INTEGER size;
    FILETIME written;

    if (folder_exists(path))
        bad("a folder, expected a file");
    const scoped_handle file = {CreateFileW(text_wide(path).c_str(), GENERIC_READ,
                                            FILE_SHARE_READ | FILE_SHARE_WRITE | FILE_SHARE_DELETE,
                                            nullptr, OPEN_EXISTING, FILE_ATTRIBUTE_NORMAL,
                                            nullptr)};

    /* Not GetFileInformationByHandle, which asks another process for the volume under Wine. */
    if (file.handle == INVALID_HANDLE_VALUE || !GetFileSizeEx(file.handle, &size) ||
        !GetFileTime(file.handle, nullptr, nullptr, &written)) {
        const DWORD error = GetLastError();

        bad("cannot be opened: " + text_error(error));
    }
    bytes_ = static_cast<uint64_t>(size.QuadPart);
    written_100ns_ = number_of(written);
    if (bytes_ == 0)
        return;
    const scoped_handle mapping = {
        CreateFileMappingW(file.handle, nullptr, PAGE_READONLY, 0, 0, nullptr)};

    if (mapping.handle != nullptr)
        data_ = static_cast<const uint8_t *>(MapViewOfFile(mapping.handle, FILE_MAP_READ, 0, 0, 0));
    if (data_ == nullptr) {
        const DWORD error = GetLastError();

        bad("cannot be read: " + text_error(error));
    }
    is_mapped_ = true;
}

evidence_file::~evidence_file()
{
    if (is_mapped_)
        UnmapViewOfFile(data_);
}

void evidence_file::limit(uint64_t most_bytes) const
{
    if (bytes_ > most_bytes)
        bad(text_format("has %llu bytes, expected %llu at most", bytes_, most_bytes));
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

std::string file_name_of(const std::string &path)
{
    return path.substr(path.find_last_of("/\\") + 1); /* npos + 1 is 0 */
}

bool folder_exists(const std::string &path)
{
    const DWORD attributes = GetFileAttributesW(text_wide(path).c_str());

    return attributes != INVALID_FILE_ATTRIBUTES && (attributes & FILE_ATTRIBUTE_DIRECTORY) != 0;
}

void folder_make(const std::string &path)
{
    if (CreateDirectoryW(text_wide(path).c_str(), nullptr))
        return;
    const DWORD error = GetLastError();

    throw devhost_error(EXIT_BAD_CALL,
                        "cannot make the folder '" + path + "': " + text_error(error));
}

std::vector<found_file> files_find(const std::string &pattern)
{
    std::vector<found_file> found;
    WIN32_FIND_DATAW entry;
    const HANDLE find = FindFirstFileW(text_wide(pattern).c_str(), &entry);

    if (find == INVALID_HANDLE_VALUE)
        return found;
    do {
        const std::string name = text_narrow(entry.cFileName);

        if (name != "." && name != "..")
            found.push_back({name, (entry.dwFileAttributes & FILE_ATTRIBUTE_DIRECTORY) != 0,
                             (entry.dwFileAttributes & FILE_ATTRIBUTE_REPARSE_POINT) != 0,
                             number_of(entry.ftLastWriteTime)});
    } while (FindNextFileW(find, &entry));
    FindClose(find);
    return found;
}

void folder_empty(const std::string &path)
{
    for (const found_file &found : files_find(path + "\\*")) {
        const std::string below = path + "\\" + found.name;

        if (!found.is_folder) {
            DeleteFileW(text_wide(below).c_str());
            continue;
        }
        folder_empty(below);
        RemoveDirectoryW(text_wide(below).c_str());
    }
}
