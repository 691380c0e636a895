/*
 * Files of the machine. "C:\..." lies in a folder of the run; last-write times are those of the
 * real file, creation times are kept here because Wine keeps none that can be set.
 */
#include "machine.h"

#include "../../platform/liboxnibase/host.h"
#include "../base/text.h"
#include "stand_in.h"

struct open_file {
    std::wstring real_path; /* in lower case */
    bool writable;
};

static std::map<HANDLE, open_file> s_open_files;

static FILETIME filetime_of(uint64_t time)
{
    return {static_cast<DWORD>(time), static_cast<DWORD>(time >> 32)};
}

/* "C:\dir\file" from any spelling of it. */
static std::wstring full_path(const std::wstring &path)
{
    wchar_t full[1024];
    DWORD chars = GetFullPathNameW(path.c_str(), ARRAYSIZE(full), full, NULL);

    return chars > 0 && chars < ARRAYSIZE(full) ? full : path;
}

std::wstring machine_real_path(const std::wstring &path)
{
    const std::wstring &disk = machine_get().disk_folder;
    std::wstring run_folder = text_lower(disk.substr(0, disk.find_last_of(L'\\')));
    std::wstring full = full_path(path);

    if (text_lower(full).rfind(run_folder + L"\\", 0) == 0)
        return full;
    if (full.size() > 2 && full[1] == L':')
        return disk + L"\\" + full[0] + full.substr(2);
    /* "\\\\server\\..." and the like: nobody's place on the developer's machine. */
    for (wchar_t &c : full)
        if (c == L'?' || c == L':' || c == L'*')
            c = L'_';
    return disk + L"\\other\\" + full;
}

static void make_parents(const std::wstring &real_path)
{
    for (size_t at = real_path.find(L'\\', 3); at != std::wstring::npos;
         at = real_path.find(L'\\', at + 1))
        CreateDirectoryW(real_path.substr(0, at).c_str(), NULL);
}

static HANDLE open_real(const std::wstring &real_path, DWORD access, DWORD share, DWORD disposition,
                        DWORD flags)
{
    bool existed = GetFileAttributesW(real_path.c_str()) != INVALID_FILE_ATTRIBUTES;
    HANDLE handle = CreateFileW(real_path.c_str(), access, share, NULL, disposition, flags, NULL);
    DWORD error = GetLastError();
    std::wstring lower = text_lower(real_path);

    if (handle == INVALID_HANDLE_VALUE)
        return handle;
    s_open_files[handle] = {lower, (access & GENERIC_WRITE) != 0};
    if (!existed)
        machine_get().created_100ns[lower] = oxnih_clock_now_100ns();
    SetLastError(error);
    return handle;
}

static HANDLE WINAPI stand_in_CreateFileW(const wchar_t *path, DWORD access, DWORD share,
                                          SECURITY_ATTRIBUTES *security, DWORD disposition,
                                          DWORD flags, HANDLE template_file)
{
    (void)security;
    (void)template_file;
    return open_real(machine_real_path(path), access, share, disposition, flags);
}

/* The path is in the ANSI code page, as for the real call. */
static HANDLE WINAPI stand_in_CreateFileA(const char *path, DWORD access, DWORD share,
                                          SECURITY_ATTRIBUTES *security, DWORD disposition,
                                          DWORD flags, HANDLE template_file)
{
    wchar_t wide[1024];

    (void)security;
    (void)template_file;
    if (MultiByteToWideChar(CP_ACP, 0, path, -1, wide, ARRAYSIZE(wide)) == 0) {
        SetLastError(ERROR_FILENAME_EXCED_RANGE);
        return INVALID_HANDLE_VALUE;
    }
    return open_real(machine_real_path(wide), access, share, disposition, flags);
}

static BOOL WINAPI stand_in_CloseHandle(HANDLE handle)
{
    auto file = s_open_files.find(handle);

    if (machine_close_process_handle(handle))
        return TRUE;
    if (file != s_open_files.end()) {
        FILETIME now = filetime_of(oxnih_clock_now_100ns());

        if (file->second.writable)
            SetFileTime(handle, NULL, NULL, &now);
        s_open_files.erase(file);
    }
    return CloseHandle(handle);
}

static BOOL WINAPI stand_in_GetFileTime(HANDLE handle, FILETIME *created, FILETIME *accessed,
                                        FILETIME *written)
{
    auto file = s_open_files.find(handle);
    const auto &times = machine_get().created_100ns;

    if (!GetFileTime(handle, created, accessed, written))
        return FALSE;
    if (created != NULL && file != s_open_files.end() && times.count(file->second.real_path) != 0)
        *created = filetime_of(times.at(file->second.real_path));
    return TRUE;
}

static BOOL WINAPI stand_in_SetFileTime(HANDLE handle, const FILETIME *created,
                                        const FILETIME *accessed, const FILETIME *written)
{
    auto file = s_open_files.find(handle);

    if (!SetFileTime(handle, created, accessed, written))
        return FALSE;
    if (created != NULL && file != s_open_files.end())
        machine_get().created_100ns[file->second.real_path] =
            (static_cast<uint64_t>(created->dwHighDateTime) << 32) | created->dwLowDateTime;
    return TRUE;
}

static HANDLE WINAPI stand_in_FindFirstFileW(const wchar_t *pattern, WIN32_FIND_DATAW *data)
{
    return FindFirstFileW(machine_real_path(pattern).c_str(), data);
}

static BOOL WINAPI stand_in_DeleteFileW(const wchar_t *path)
{
    std::wstring real_path = machine_real_path(path);

    if (!DeleteFileW(real_path.c_str()))
        return FALSE;
    machine_get().created_100ns.erase(text_lower(real_path));
    return TRUE;
}

static UINT WINAPI stand_in_GetWindowsDirectoryW(wchar_t *buffer, UINT size)
{
    const std::wstring &folder = machine_get().windows_folder;

    if (folder.size() >= size)
        return static_cast<UINT>(folder.size() + 1);
    lstrcpyW(buffer, folder.c_str());
    return static_cast<UINT>(folder.size());
}

/* %NAME% by the machine's environment; names that it does not know stay as they are. */
std::wstring machine_expand(const std::wstring &text)
{
    const auto &environment = machine_get().environment;
    std::wstring expanded;
    size_t at = 0, open, end;

    while ((open = text.find(L'%', at)) != std::wstring::npos &&
           (end = text.find(L'%', open + 1)) != std::wstring::npos) {
        auto value = environment.find(text_lower(text.substr(open + 1, end - open - 1)));

        expanded += text.substr(at, open - at);
        if (value != environment.end()) {
            expanded += value->second;
            at = end + 1;
        } else {
            expanded += text.substr(open, end - open);
            at = end;
        }
    }
    return expanded + text.substr(at);
}

static DWORD WINAPI stand_in_ExpandEnvironmentStringsW(const wchar_t *source, wchar_t *buffer,
                                                       DWORD size)
{
    const std::wstring expanded = machine_expand(source);

    if (expanded.size() < size)
        lstrcpyW(buffer, expanded.c_str());
    return static_cast<DWORD>(expanded.size() + 1);
}

void machine_write_file(const std::wstring &path, const std::string &bytes, uint64_t written_100ns,
                        uint64_t created_100ns)
{
    std::wstring real_path = machine_real_path(path);
    FILETIME written = filetime_of(written_100ns);
    DWORD count = 0;
    HANDLE file;

    make_parents(real_path);
    file = CreateFileW(real_path.c_str(), GENERIC_WRITE, FILE_SHARE_READ | FILE_SHARE_WRITE, NULL,
                       CREATE_ALWAYS, FILE_ATTRIBUTE_NORMAL, NULL);
    if (file == INVALID_HANDLE_VALUE ||
        !WriteFile(file, bytes.data(), static_cast<DWORD>(bytes.size()), &count, NULL) ||
        !SetFileTime(file, NULL, NULL, &written)) {
        DWORD error = GetLastError();

        if (file != INVALID_HANDLE_VALUE)
            CloseHandle(file);
        throw devhost_error(EXIT_BAD_CALL,
                            text_format("%s: cannot be written into the run's folder, error %lu",
                                        text_narrow(path).c_str(), error));
    }
    CloseHandle(file);
    machine_get().created_100ns[text_lower(real_path)] = created_100ns;
}

void machine_delete_file(const std::wstring &path)
{
    stand_in_DeleteFileW(path.c_str());
}

bool machine_file_exists(const std::wstring &path)
{
    return GetFileAttributesW(machine_real_path(path).c_str()) != INVALID_FILE_ATTRIBUTES;
}

machine_times machine_file_times(const std::wstring &path)
{
    const std::wstring real_path = machine_real_path(path);
    const auto created = machine_get().created_100ns.find(text_lower(real_path));
    WIN32_FIND_DATAW data = {};
    HANDLE search = FindFirstFileW(real_path.c_str(), &data);

    if (search != INVALID_HANDLE_VALUE)
        FindClose(search);
    return {(static_cast<uint64_t>(data.ftLastWriteTime.dwHighDateTime) << 32) |
                data.ftLastWriteTime.dwLowDateTime,
            created != machine_get().created_100ns.end() ? created->second : 0};
}

std::string machine_read_real_file(const std::wstring &real_path, int status)
{
    HANDLE file = CreateFileW(real_path.c_str(), GENERIC_READ, FILE_SHARE_READ | FILE_SHARE_WRITE,
                              NULL, OPEN_EXISTING, FILE_ATTRIBUTE_NORMAL, NULL);
    DWORD error = GetLastError(), count = 0;
    LARGE_INTEGER size = {};
    std::string bytes;
    bool complete;

    if (file == INVALID_HANDLE_VALUE)
        throw devhost_error(status, text_format("%s: cannot be opened, error %lu",
                                                text_narrow(real_path).c_str(), error));
    GetFileSizeEx(file, &size);
    bytes.resize(static_cast<size_t>(size.QuadPart));
    complete = ReadFile(file, bytes.data(), static_cast<DWORD>(bytes.size()), &count, NULL) &&
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
        STAND_IN(CreateFileA), STAND_IN(CreateFileW),          STAND_IN(CloseHandle),
        STAND_IN(GetFileTime), STAND_IN(SetFileTime),          STAND_IN(FindFirstFileW),
        STAND_IN(DeleteFileW), STAND_IN(GetWindowsDirectoryW), STAND_IN(ExpandEnvironmentStringsW),
    };

    return stand_in_find(rows, name);
}
