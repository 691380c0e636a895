/*
 * Files of the machine. "C:\..." lies in a folder of the run. Write times are those of the real
 * file; creation times are kept here because Wine has none that can be set. Handles have the rights
 * that they were opened with, also where Wine does not check them.
 */
#include "files.h"

#include <map>
#include <unordered_map>

#include "../../platform/liboxnibase/host.h"
#include "../base/text.h"
#include "../calls/stand_in.h"

static constexpr DWORD TIME_RIGHTS =
    FILE_WRITE_ATTRIBUTES | GENERIC_WRITE | GENERIC_ALL | MAXIMUM_ALLOWED;
static constexpr size_t MOST_KNOWN_PATHS = 64;

struct open_file {
    std::wstring real_path; /* in lower case */
    DWORD access;
    bool changed;  /* the close sets the write time */
    bool time_set; /* ... unless the plug-in set it */
};

static std::wstring s_disk;       /* the folder that "C:\..." lies in */
static std::wstring s_run_folder; /* the one around it, in lower case, with a backslash */
/* Creation times by real path in lower case. */
static std::map<std::wstring, uint64_t> s_created;

static std::map<HANDLE, open_file> s_open_files;
static std::map<HANDLE, std::wstring> s_searches; /* to the real folder, in lower case */
static std::map<std::wstring, HANDLE> s_held; /* real path of a file that another program opened */

static FILETIME filetime_of(uint64_t time)
{
    return {static_cast<DWORD>(time), static_cast<DWORD>(time >> 32)};
}

void machine_open_disk(const std::wstring &folder)
{
    machine_release_all_files();
    s_disk = folder;
    s_run_folder = text_lower(s_disk.substr(0, s_disk.find_last_of(L'\\') + 1));
    s_created.clear();
    CreateDirectoryW(s_disk.c_str(), nullptr);
}

/* Whether the present directory has no part in it. */
static bool is_absolute(const std::wstring &path)
{
    return path.size() > 2 && path[1] == L':' && (path[2] == L'\\' || path[2] == L'/');
}

/* "C:\dir\file" from any spelling of it. */
static std::wstring full_path(const std::wstring &path)
{
    static std::unordered_map<std::wstring, std::wstring> known; /* Windows takes long */
    wchar_t full[1024];

    const auto at = known.find(path);
    if (at != known.end())
        return at->second;
    const DWORD chars = GetFullPathNameW(path.c_str(), ARRAYSIZE(full), full, nullptr);
    std::wstring found = chars > 0 && chars < ARRAYSIZE(full) ? full : path;
    if (known.size() == MOST_KNOWN_PATHS)
        known.clear();
    if (is_absolute(path))
        known[path] = found;
    return found;
}

std::wstring machine_real_path(const std::wstring &path)
{
    std::wstring full = full_path(path);

    if (text_lower(full.substr(0, s_run_folder.size())) == s_run_folder)
        return full;
    if (full.size() > 2 && full[1] == L':')
        return s_disk + L"\\" + full[0] + full.substr(2);
    /* "\\\\server\\..." and the like, which must not reach the developer's network. */
    for (wchar_t &c : full)
        if (c == L'?' || c == L':' || c == L'*')
            c = L'_';
    return s_disk + L"\\other\\" + full;
}

static void make_parents(const std::wstring &real_path)
{
    for (size_t at = real_path.find(L'\\', 3); at != std::wstring::npos;
         at = real_path.find(L'\\', at + 1))
        CreateDirectoryW(real_path.substr(0, at).c_str(), nullptr);
}

/* Whether Windows takes a path at all: not empty, and not beyond MAX_PATH without the prefix. */
static bool is_usable(const std::wstring &path)
{
    return !path.empty() && (path.size() < MAX_PATH || path.rfind(L"\\\\?\\", 0) == 0);
}

static HANDLE open_real(const wchar_t *path, DWORD access, DWORD share, DWORD disposition,
                        DWORD flags)
{
    if (path == nullptr || !is_usable(path))
        return stand_in_fail(ERROR_PATH_NOT_FOUND, INVALID_HANDLE_VALUE);
    if (disposition == TRUNCATE_EXISTING && (access & (GENERIC_WRITE | GENERIC_ALL)) == 0)
        return stand_in_fail(ERROR_INVALID_PARAMETER, INVALID_HANDLE_VALUE);
    const std::wstring real_path = machine_real_path(path), lower = text_lower(real_path);
    bool existed = GetFileAttributesW(real_path.c_str()) != INVALID_FILE_ATTRIBUTES;
    HANDLE handle =
        CreateFileW(real_path.c_str(), access, share, nullptr, disposition, flags, nullptr);
    DWORD error = GetLastError();

    if (handle == INVALID_HANDLE_VALUE)
        return handle;
    s_open_files[handle] = {
        lower, access, !existed || disposition == CREATE_ALWAYS || disposition == TRUNCATE_EXISTING,
        false};
    if (!existed)
        s_created[lower] = oxnih_clock_now_100ns();
    SetLastError(error);
    return handle;
}

static HANDLE WINAPI stand_in_CreateFileW(const wchar_t *path, DWORD access, DWORD share,
                                          SECURITY_ATTRIBUTES *security, DWORD disposition,
                                          DWORD flags, HANDLE template_file)
{
    (void)security;
    (void)template_file;
    return open_real(path, access, share, disposition, flags);
}

/* The path is in the ANSI code page, as for the real call. */
static HANDLE WINAPI stand_in_CreateFileA(const char *path, DWORD access, DWORD share,
                                          SECURITY_ATTRIBUTES *security, DWORD disposition,
                                          DWORD flags, HANDLE template_file)
{
    wchar_t wide[1024];

    (void)security;
    (void)template_file;
    if (path != nullptr && MultiByteToWideChar(CP_ACP, 0, path, -1, wide, ARRAYSIZE(wide)) == 0)
        return stand_in_fail(ERROR_FILENAME_EXCED_RANGE, INVALID_HANDLE_VALUE);
    return open_real(path != nullptr ? wide : nullptr, access, share, disposition, flags);
}

static BOOL WINAPI stand_in_WriteFile(HANDLE handle, const void *buffer, DWORD bytes,
                                      DWORD *written, OVERLAPPED *overlapped)
{
    auto file = s_open_files.find(handle);

    if (!WriteFile(handle, buffer, bytes, written, overlapped))
        return FALSE;
    if (file != s_open_files.end() && bytes > 0)
        file->second.changed = true;
    return TRUE;
}

BOOL machine_close_file(HANDLE handle)
{
    auto file = s_open_files.find(handle);

    if (file != s_open_files.end()) {
        FILETIME now = filetime_of(oxnih_clock_now_100ns());

        if (file->second.changed && !file->second.time_set)
            SetFileTime(handle, nullptr, nullptr, &now);
        s_open_files.erase(file);
    }
    return CloseHandle(handle);
}

/* Sets the creation time that the machine keeps for a file, and leaves an unknown file's alone. */
static void set_created(const std::wstring &real_path, FILETIME *created)
{
    const auto time = s_created.find(real_path);

    if (time != s_created.end())
        *created = filetime_of(time->second);
}

static BOOL WINAPI stand_in_GetFileTime(HANDLE handle, FILETIME *created, FILETIME *accessed,
                                        FILETIME *written)
{
    auto file = s_open_files.find(handle);

    if (!GetFileTime(handle, created, accessed, written))
        return FALSE;
    if (file == s_open_files.end())
        return TRUE;
    if (created != nullptr)
        set_created(file->second.real_path, created);
    if (accessed != nullptr)
        *accessed = filetime_of(oxnih_clock_now_100ns());
    return TRUE;
}

static BOOL WINAPI stand_in_GetFileInformationByHandle(HANDLE handle,
                                                       BY_HANDLE_FILE_INFORMATION *information)
{
    auto file = s_open_files.find(handle);

    if (information == nullptr)
        return stand_in_fail(ERROR_NOACCESS, FALSE);
    if (!GetFileInformationByHandle(handle, information))
        return FALSE;
    if (file != s_open_files.end()) {
        set_created(file->second.real_path, &information->ftCreationTime);
        information->ftLastAccessTime = filetime_of(oxnih_clock_now_100ns());
    }
    return TRUE;
}

static BOOL WINAPI stand_in_SetFileTime(HANDLE handle, const FILETIME *created,
                                        const FILETIME *accessed, const FILETIME *written)
{
    auto file = s_open_files.find(handle);

    if (file != s_open_files.end() && (file->second.access & TIME_RIGHTS) == 0)
        return stand_in_fail(ERROR_ACCESS_DENIED, FALSE);
    if (!SetFileTime(handle, created, accessed, written))
        return FALSE;
    if (file == s_open_files.end())
        return TRUE;
    file->second.time_set = file->second.time_set || written != nullptr;
    if (created != nullptr)
        s_created[file->second.real_path] =
            (static_cast<uint64_t>(created->dwHighDateTime) << 32) | created->dwLowDateTime;
    return TRUE;
}

static void set_found_created(HANDLE search, WIN32_FIND_DATAW *data)
{
    set_created(s_searches[search] + text_lower(std::wstring(data->cFileName)),
                &data->ftCreationTime);
}

static HANDLE WINAPI stand_in_FindFirstFileW(const wchar_t *pattern, WIN32_FIND_DATAW *data)
{
    if (pattern == nullptr || !is_usable(pattern))
        return stand_in_fail(ERROR_PATH_NOT_FOUND, INVALID_HANDLE_VALUE);
    if (data == nullptr)
        return stand_in_fail(ERROR_NOACCESS, INVALID_HANDLE_VALUE);
    const std::wstring real_path = machine_real_path(pattern);
    HANDLE search = FindFirstFileW(real_path.c_str(), data);
    const DWORD error = GetLastError();
    if (search != INVALID_HANDLE_VALUE) {
        s_searches[search] = text_lower(real_path.substr(0, real_path.rfind(L'\\') + 1));
        set_found_created(search, data);
    }
    SetLastError(error);
    return search;
}

static BOOL WINAPI stand_in_FindNextFileW(HANDLE search, WIN32_FIND_DATAW *data)
{
    if (!FindNextFileW(search, data))
        return FALSE;
    set_found_created(search, data);
    return TRUE;
}

static BOOL WINAPI stand_in_FindClose(HANDLE search)
{
    s_searches.erase(search);
    return FindClose(search);
}

static BOOL WINAPI stand_in_DeleteFileW(const wchar_t *path)
{
    if (path == nullptr || !is_usable(path))
        return stand_in_fail(ERROR_PATH_NOT_FOUND, FALSE);
    const std::wstring real_path = machine_real_path(path);
    if (!DeleteFileW(real_path.c_str()))
        return FALSE;
    s_created.erase(text_lower(real_path));
    return TRUE;
}

void machine_hold_file(const std::wstring &path, DWORD share)
{
    const std::wstring real_path = machine_real_path(path);

    machine_release_file(path);
    HANDLE file = CreateFileW(real_path.c_str(), GENERIC_READ | GENERIC_WRITE, share, nullptr,
                              OPEN_EXISTING, FILE_ATTRIBUTE_NORMAL, nullptr);
    if (file == INVALID_HANDLE_VALUE)
        throw devhost_error(EXIT_BAD_CALL, text_format("%s: cannot be held open, error %lu",
                                                       text_narrow(path).c_str(), GetLastError()));
    s_held[text_lower(real_path)] = file;
}

void machine_release_file(const std::wstring &path)
{
    auto held = s_held.find(text_lower(machine_real_path(path)));

    if (held == s_held.end())
        return;
    CloseHandle(held->second);
    s_held.erase(held);
}

void machine_release_all_files(void)
{
    for (const auto &held : s_held)
        CloseHandle(held.second);
    s_held.clear();
}

void machine_write_file(const std::wstring &path, const std::string &bytes, uint64_t written_100ns,
                        uint64_t created_100ns)
{
    std::wstring real_path = machine_real_path(path);
    FILETIME written = filetime_of(written_100ns);
    DWORD count = 0;
    HANDLE file;

    make_parents(real_path);
    file = CreateFileW(real_path.c_str(), GENERIC_WRITE, FILE_SHARE_READ | FILE_SHARE_WRITE,
                       nullptr, CREATE_ALWAYS, FILE_ATTRIBUTE_NORMAL, nullptr);
    if (file == INVALID_HANDLE_VALUE ||
        !WriteFile(file, bytes.data(), static_cast<DWORD>(bytes.size()), &count, nullptr) ||
        !SetFileTime(file, nullptr, nullptr, &written)) {
        DWORD error = GetLastError();

        if (file != INVALID_HANDLE_VALUE)
            CloseHandle(file);
        throw devhost_error(EXIT_BAD_CALL,
                            text_format("%s: cannot be written into the run's folder, error %lu",
                                        text_narrow(path).c_str(), error));
    }
    CloseHandle(file);
    s_created[text_lower(real_path)] = created_100ns;
}

void machine_delete_file(const std::wstring &path)
{
    stand_in_DeleteFileW(path.c_str());
}

bool machine_file_exists(const std::wstring &path)
{
    return GetFileAttributesW(machine_real_path(path).c_str()) != INVALID_FILE_ATTRIBUTES;
}

uint64_t machine_file_created(const std::wstring &real_path)
{
    const auto created = s_created.find(text_lower(real_path));

    return created != s_created.end() ? created->second : 0;
}

machine_times machine_file_times(const std::wstring &path)
{
    const std::wstring real_path = machine_real_path(path);
    WIN32_FIND_DATAW data = {};
    HANDLE search = FindFirstFileW(real_path.c_str(), &data);

    if (search != INVALID_HANDLE_VALUE)
        FindClose(search);
    return {(static_cast<uint64_t>(data.ftLastWriteTime.dwHighDateTime) << 32) |
                data.ftLastWriteTime.dwLowDateTime,
            machine_file_created(real_path)};
}

std::string machine_read_real_file(const std::wstring &real_path, int status)
{
    HANDLE file = CreateFileW(real_path.c_str(), GENERIC_READ, FILE_SHARE_READ | FILE_SHARE_WRITE,
                              nullptr, OPEN_EXISTING, FILE_ATTRIBUTE_NORMAL, nullptr);
    DWORD error = GetLastError(), count = 0;
    LARGE_INTEGER size = {};
    std::string bytes;
    bool complete;

    if (file == INVALID_HANDLE_VALUE)
        throw devhost_error(status, text_format("%s: cannot be opened, error %lu",
                                                text_narrow(real_path).c_str(), error));
    GetFileSizeEx(file, &size);
    bytes.resize(static_cast<size_t>(size.QuadPart));
    complete = ReadFile(file, bytes.data(), static_cast<DWORD>(bytes.size()), &count, nullptr) &&
               count == bytes.size();
    error = GetLastError();
    CloseHandle(file);
    if (!complete)
        throw devhost_error(status, text_format("%s: cannot be read, error %lu",
                                                text_narrow(real_path).c_str(), error));
    return bytes;
}

void machine_close_agent_files(void)
{
    for (const auto &file : s_open_files)
        CloseHandle(file.first);
    s_open_files.clear();
}

void *machine_file_stand_in(const char *name)
{
    static const stand_in_row rows[] = {
        STAND_IN(CreateFileA),    STAND_IN(CreateFileW),   STAND_IN(WriteFile),
        STAND_IN(GetFileTime),    STAND_IN(SetFileTime),   STAND_IN(GetFileInformationByHandle),
        STAND_IN(FindFirstFileW), STAND_IN(FindNextFileW), STAND_IN(FindClose),
        STAND_IN(DeleteFileW),
    };

    return stand_in_find(rows, name);
}
