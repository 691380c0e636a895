/* The calls of Windows for files, over a map from paths to bytes. */
#include "memory_disk.h"

#include <cstring>

#include <algorithm>
#include <map>

#include "../base/text.h"
#include "../calls/imports.h"
#include "../calls/stand_in.h"
#include "memory_disk_internal.h"

REAL(L"kernel32.dll", CreateFileW);
REAL(L"kernel32.dll", ReadFile);
REAL(L"kernel32.dll", WriteFile);
REAL(L"kernel32.dll", FlushFileBuffers);
REAL(L"kernel32.dll", CloseHandle);
REAL(L"kernel32.dll", GetFileSizeEx);
REAL(L"kernel32.dll", GetFileTime);
REAL(L"kernel32.dll", SetFileTime);
REAL(L"kernel32.dll", DeleteFileW);
REAL(L"kernel32.dll", GetFileAttributesW);
REAL(L"kernel32.dll", GetFileAttributesExW);
REAL(L"kernel32.dll", CreateDirectoryW);
REAL(L"kernel32.dll", RemoveDirectoryW);
REAL(L"kernel32.dll", MoveFileExW);
REAL(L"kernel32.dll", GetFileInformationByHandle);

struct disk_handle {
    file_ptr file;
    DWORD access;
    DWORD share;
    size_t at;
};

static std::map<HANDLE, disk_handle> s_open;

static bool grants(DWORD share, DWORD access)
{
    return ((access & GENERIC_READ) == 0 || (share & FILE_SHARE_READ) != 0) &&
           ((access & (GENERIC_WRITE | FILE_APPEND_DATA)) == 0 ||
            (share & FILE_SHARE_WRITE) != 0) &&
           ((access & DELETE) == 0 || (share & FILE_SHARE_DELETE) != 0);
}

/* Whether the rights of a handle include a generic right or its specific one. */
static bool can(DWORD access, DWORD generic, DWORD specific = 0)
{
    return (access & (generic | specific | GENERIC_ALL | MAXIMUM_ALLOWED)) != 0;
}

/* Whether an open handle forbids this. */
static bool is_held(const file_ptr &file, DWORD access, DWORD share)
{
    for (const auto &open : s_open)
        if (open.second.file == file &&
            (!grants(open.second.share, access) || !grants(share, open.second.access)))
            return true;
    return false;
}

static HANDLE WINAPI stand_in_CreateFileW(const wchar_t *path, DWORD access, DWORD share,
                                          SECURITY_ATTRIBUTES *security, DWORD disposition,
                                          DWORD flags, HANDLE template_file)
{
    std::wstring key;

    if (!memory_file_key(path, &key))
        return real_CreateFileW(path, access, share, security, disposition, flags, template_file);
    file_ptr file = memory_file_find(key);
    if (disposition == TRUNCATE_EXISTING && !can(access, GENERIC_WRITE))
        return stand_in_fail(ERROR_INVALID_PARAMETER, INVALID_HANDLE_VALUE);
    bool there = file != nullptr, empties = disposition == CREATE_ALWAYS ||
                                            disposition == CREATE_NEW ||
                                            disposition == TRUNCATE_EXISTING;
    if (!there && (disposition == OPEN_EXISTING || disposition == TRUNCATE_EXISTING ||
                   !memory_is_folder(memory_parent(key))))
        return stand_in_fail(memory_missing(key), INVALID_HANDLE_VALUE);
    if (there && disposition == CREATE_NEW)
        return stand_in_fail(ERROR_FILE_EXISTS, INVALID_HANDLE_VALUE);
    if (there && file->is_folder)
        return stand_in_fail(ERROR_ACCESS_DENIED, INVALID_HANDLE_VALUE);
    if (there && is_held(file, access, share))
        return stand_in_fail(ERROR_SHARING_VIOLATION, INVALID_HANDLE_VALUE);
    if (there && !file->real_path.empty())
        return real_CreateFileW(file->real_path.c_str(), access, share, security, disposition,
                                flags, template_file);
    if (!there)
        file = memory_file_make(key, path, false);
    if (empties) {
        file->bytes.clear();
        file->written = memory_now();
    }
    HANDLE handle = stand_in_new_handle();
    s_open[handle] = {file, access, share, 0};
    SetLastError(there && (disposition == CREATE_ALWAYS || disposition == OPEN_ALWAYS)
                     ? ERROR_ALREADY_EXISTS
                     : ERROR_SUCCESS);
    return handle;
}

/* For a caller that maps it. */
static HANDLE WINAPI create_real_file(const wchar_t *path, DWORD access, DWORD share,
                                      SECURITY_ATTRIBUTES *security, DWORD disposition, DWORD flags,
                                      HANDLE template_file)
{
    std::wstring key;

    if (memory_file_key(path, &key))
        if (file_ptr file = memory_file_find(key))
            (void)memory_file_make_real(file);
    return stand_in_CreateFileW(path, access, share, security, disposition, flags, template_file);
}

static HANDLE WINAPI stand_in_CreateFileA(const char *path, DWORD access, DWORD share,
                                          SECURITY_ATTRIBUTES *security, DWORD disposition,
                                          DWORD flags, HANDLE template_file)
{
    wchar_t wide[1024];

    if (MultiByteToWideChar(CP_ACP, 0, path, -1, wide, ARRAYSIZE(wide)) == 0)
        return stand_in_fail(ERROR_FILENAME_EXCED_RANGE, INVALID_HANDLE_VALUE);
    return stand_in_CreateFileW(wide, access, share, security, disposition, flags, template_file);
}

static BOOL WINAPI stand_in_ReadFile(HANDLE handle, void *buffer, DWORD bytes, DWORD *got,
                                     OVERLAPPED *overlapped)
{
    auto open = s_open.find(handle);

    if (open == s_open.end())
        return real_ReadFile(handle, buffer, bytes, got, overlapped);
    if (!can(open->second.access, GENERIC_READ, FILE_READ_DATA))
        return stand_in_fail(ERROR_ACCESS_DENIED, FALSE);
    const std::string &content = open->second.file->bytes;
    size_t at = std::min(open->second.at, content.size());
    *got = static_cast<DWORD>(std::min<size_t>(bytes, content.size() - at));
    memcpy(buffer, content.data() + at, *got);
    open->second.at += *got;
    return TRUE;
}

static BOOL WINAPI stand_in_WriteFile(HANDLE handle, const void *buffer, DWORD bytes,
                                      DWORD *written, OVERLAPPED *overlapped)
{
    auto open = s_open.find(handle);

    if (open == s_open.end())
        return real_WriteFile(handle, buffer, bytes, written, overlapped);
    if (!can(open->second.access, GENERIC_WRITE, FILE_WRITE_DATA | FILE_APPEND_DATA))
        return stand_in_fail(ERROR_ACCESS_DENIED, FALSE);
    *written = bytes;
    if (bytes == 0)
        return TRUE;
    std::string &content = open->second.file->bytes;
    size_t at =
        can(open->second.access, GENERIC_WRITE, FILE_WRITE_DATA) ? open->second.at : content.size();
    content.resize(std::max<size_t>(content.size(), at + bytes));
    memcpy(&content[at], buffer, bytes);
    open->second.at = at + bytes;
    open->second.file->written = memory_now();
    return TRUE;
}

static BOOL WINAPI stand_in_FlushFileBuffers(HANDLE handle)
{
    return s_open.count(handle) != 0 || real_FlushFileBuffers(handle);
}

static BOOL WINAPI stand_in_CloseHandle(HANDLE handle)
{
    return s_open.erase(handle) != 0 || real_CloseHandle(handle);
}

static BOOL WINAPI stand_in_GetFileSizeEx(HANDLE handle, LARGE_INTEGER *size)
{
    auto open = s_open.find(handle);

    if (open == s_open.end())
        return real_GetFileSizeEx(handle, size);
    size->QuadPart = static_cast<LONGLONG>(open->second.file->bytes.size());
    return TRUE;
}

static BOOL WINAPI stand_in_GetFileTime(HANDLE handle, FILETIME *created, FILETIME *accessed,
                                        FILETIME *written)
{
    auto open = s_open.find(handle);

    if (open == s_open.end())
        return real_GetFileTime(handle, created, accessed, written);
    const memory_file &file = *open->second.file;
    if (created != nullptr)
        *created = file.created;
    if (accessed != nullptr)
        *accessed = file.accessed;
    if (written != nullptr)
        *written = file.written;
    return TRUE;
}

static BOOL WINAPI stand_in_SetFileTime(HANDLE handle, const FILETIME *created,
                                        const FILETIME *accessed, const FILETIME *written)
{
    auto open = s_open.find(handle);

    if (open == s_open.end())
        return real_SetFileTime(handle, created, accessed, written);
    if (!can(open->second.access, GENERIC_WRITE, FILE_WRITE_ATTRIBUTES))
        return stand_in_fail(ERROR_ACCESS_DENIED, FALSE);
    if (created != nullptr)
        open->second.file->created = *created;
    if (accessed != nullptr)
        open->second.file->accessed = *accessed;
    if (written != nullptr)
        open->second.file->written = *written;
    return TRUE;
}

static BOOL WINAPI stand_in_GetFileInformationByHandle(HANDLE handle,
                                                       BY_HANDLE_FILE_INFORMATION *information)
{
    auto open = s_open.find(handle);

    if (open == s_open.end())
        return real_GetFileInformationByHandle(handle, information);
    ZeroMemory(information, sizeof(*information));
    information->dwFileAttributes = FILE_ATTRIBUTE_ARCHIVE;
    information->ftCreationTime = open->second.file->created;
    information->ftLastAccessTime = open->second.file->accessed;
    information->ftLastWriteTime = open->second.file->written;
    information->nFileSizeLow = static_cast<DWORD>(open->second.file->bytes.size());
    information->nNumberOfLinks = 1;
    return TRUE;
}

static DWORD WINAPI stand_in_GetFileAttributesW(const wchar_t *path)
{
    std::wstring key;

    if (!memory_file_key(path, &key))
        return real_GetFileAttributesW(path);
    if (file_ptr file = memory_file_find(key))
        return memory_attributes(*file);
    return stand_in_fail<DWORD>(memory_missing(key), INVALID_FILE_ATTRIBUTES);
}

static BOOL WINAPI stand_in_GetFileAttributesExW(const wchar_t *path, GET_FILEEX_INFO_LEVELS level,
                                                 void *information)
{
    std::wstring key;
    auto *data = static_cast<WIN32_FILE_ATTRIBUTE_DATA *>(information);

    if (!memory_file_key(path, &key))
        return real_GetFileAttributesExW(path, level, information);
    file_ptr file = memory_file_find(key);
    if (file == nullptr)
        return stand_in_fail(memory_missing(key), FALSE);
    if (!file->real_path.empty())
        return real_GetFileAttributesExW(file->real_path.c_str(), level, information);
    *data = {memory_attributes(*file),
             file->created,
             file->accessed,
             file->written,
             0,
             static_cast<DWORD>(file->bytes.size())};
    return TRUE;
}

static BOOL WINAPI stand_in_CreateDirectoryW(const wchar_t *path, SECURITY_ATTRIBUTES *security)
{
    std::wstring key;

    /* Each start of an agent makes all folders down to its own. */
    if (memory_disk_is_below(path))
        return stand_in_fail(ERROR_ALREADY_EXISTS, FALSE);
    if (!memory_file_key(path, &key))
        return real_CreateDirectoryW(path, security);
    if (memory_file_find(key) != nullptr)
        return stand_in_fail(ERROR_ALREADY_EXISTS, FALSE);
    if (!memory_is_folder(memory_parent(key)))
        return stand_in_fail(ERROR_PATH_NOT_FOUND, FALSE);
    memory_file_make(key, path, true);
    return TRUE;
}

static BOOL WINAPI stand_in_RemoveDirectoryW(const wchar_t *path)
{
    std::wstring key;

    if (!memory_file_key(path, &key))
        return real_RemoveDirectoryW(path);
    if (!memory_is_folder(key))
        return stand_in_fail<BOOL>(
            memory_file_find(key) != nullptr ? ERROR_DIRECTORY : memory_missing(key), FALSE);
    auto inside = memory_files.lower_bound(key + L"\\");
    if (inside != memory_files.end() && inside->first.rfind(key + L"\\", 0) == 0)
        return stand_in_fail(ERROR_DIR_NOT_EMPTY, FALSE);
    memory_files.erase(key);
    return TRUE;
}

static BOOL WINAPI stand_in_DeleteFileW(const wchar_t *path)
{
    std::wstring key;

    if (!memory_file_key(path, &key))
        return real_DeleteFileW(path);
    file_ptr file = memory_file_find(key);
    if (file == nullptr)
        return stand_in_fail(memory_missing(key), FALSE);
    if (file->is_folder)
        return stand_in_fail(ERROR_ACCESS_DENIED, FALSE);
    if (is_held(file, DELETE, FILE_SHARE_READ | FILE_SHARE_WRITE | FILE_SHARE_DELETE))
        return stand_in_fail(ERROR_SHARING_VIOLATION, FALSE);
    if (!file->real_path.empty() && !real_DeleteFileW(file->real_path.c_str()))
        return FALSE;
    memory_files.erase(key);
    return TRUE;
}

/* Whether a file, or one in a folder, is open. */
static bool is_open(const std::wstring &key)
{
    for (const auto &open : s_open)
        for (auto at = memory_files.lower_bound(key);
             at != memory_files.end() && at->first.rfind(key, 0) == 0; at++)
            if (open.second.file == at->second &&
                (at->first.size() == key.size() || at->first[key.size()] == L'\\'))
                return true;
    return false;
}

/* The error with which Windows refuses a move; ERROR_SUCCESS when it does not. */
static DWORD move_error(const std::wstring &old_key, const std::wstring &new_key, DWORD flags)
{
    const DWORD all = FILE_SHARE_READ | FILE_SHARE_WRITE | FILE_SHARE_DELETE;
    const file_ptr file = memory_file_find(old_key), replaced = memory_file_find(new_key);

    if (file == nullptr)
        return memory_missing(old_key);
    if (is_held(file, DELETE, all))
        return ERROR_SHARING_VIOLATION;
    if (!memory_is_folder(memory_parent(new_key)))
        return memory_missing(new_key);
    if (file->is_folder && is_open(old_key))
        return ERROR_ACCESS_DENIED;
    if (replaced == nullptr || replaced == file) /* nor a folder into itself */
        return new_key.rfind(old_key + L"\\", 0) == 0 ? ERROR_INVALID_PARAMETER : ERROR_SUCCESS;
    if ((flags & MOVEFILE_REPLACE_EXISTING) == 0)
        return ERROR_ALREADY_EXISTS;
    if (file->is_folder || replaced->is_folder || is_open(new_key))
        return ERROR_ACCESS_DENIED;
    return ERROR_SUCCESS;
}

/* Files in a folder move with it. */
static void move_content(const std::wstring &old_key, const std::wstring &new_key)
{
    const std::wstring folder = old_key + L"\\";
    file_map moved;

    for (auto at = memory_files.lower_bound(folder);
         at != memory_files.end() && at->first.rfind(folder, 0) == 0; at = memory_files.erase(at))
        moved[new_key + at->first.substr(old_key.size())] = at->second;
    memory_files.insert(moved.begin(), moved.end());
}

static BOOL WINAPI stand_in_MoveFileExW(const wchar_t *from, const wchar_t *to, DWORD flags)
{
    std::wstring old_key, new_key;

    if (!memory_file_key(from, &old_key) || !memory_file_key(to, &new_key))
        return real_MoveFileExW(from, to, flags);
    const DWORD error = move_error(old_key, new_key, flags);
    if (error != ERROR_SUCCESS)
        return stand_in_fail(error, FALSE);
    const file_ptr file = memory_file_find(old_key), replaced = memory_file_find(new_key);
    if (replaced != nullptr && replaced != file && !replaced->real_path.empty())
        real_DeleteFileW(replaced->real_path.c_str());
    memory_files.erase(old_key);
    memory_files[new_key] = file;
    file->name = memory_file_name(to);
    if (file->is_folder)
        move_content(old_key, new_key);
    return TRUE;
}

static const stand_in_row s_stand_ins[] = {
    STAND_IN(CreateFileA),
    STAND_IN(CreateFileW),
    STAND_IN(ReadFile),
    STAND_IN(WriteFile),
    STAND_IN(FlushFileBuffers),
    STAND_IN(CloseHandle),
    STAND_IN(GetFileSizeEx),
    STAND_IN(GetFileTime),
    STAND_IN(SetFileTime),
    STAND_IN(DeleteFileW),
    STAND_IN(GetFileAttributesW),
    STAND_IN(CreateDirectoryW),
    STAND_IN(RemoveDirectoryW),
    STAND_IN(MoveFileExW),
    STAND_IN(GetFileInformationByHandle),
    STAND_IN(GetFileAttributesExW),
};

static void redirect(HMODULE module, bool maps)
{
    memory_streams_redirect(module, false);
    imports_each(module, [maps](const std::string &, const char *name, void **entry) {
        void *function = maps && strcmp(name, "CreateFileW") == 0
                             ? reinterpret_cast<void *>(create_real_file)
                             : stand_in_find(s_stand_ins, name);

        if (function == nullptr)
            function = memory_search_stand_in(name);

        if (function != nullptr)
            imports_redirect(entry, function);
    });
}

void memory_disk_open(const std::wstring &folder)
{
    if (!memory_files_are_open()) {
        for (const wchar_t *module :
             {static_cast<const wchar_t *>(nullptr), L"liboxnibase.dll", L"libwdu_ejs.dll"})
            redirect(GetModuleHandleW(module), false);
        /* It opens streams for the plug-in only, which uses no other call on them. */
        memory_streams_redirect(GetModuleHandleW(L"liboxnibase.dll"), true);
    }
    memory_files_open(folder);
}

void memory_disk_redirect(HMODULE module, bool maps)
{
    if (memory_files_are_open())
        redirect(module, maps);
}

void memory_disk_empty(void)
{
    for (const auto &file : memory_files)
        if (!file.second->real_path.empty())
            (void)real_DeleteFileW(file.second->real_path.c_str());
    memory_files.clear();
}

std::string &memory_disk_file(const std::string &path)
{
    std::wstring key;

    if (!memory_file_key(text_wide(path).c_str(), &key))
        throw devhost_error(EXIT_BAD_CALL, path + ": is not on the disk in memory");
    file_ptr file = memory_file_find(key);
    return (file != nullptr ? file : memory_file_make(key, text_wide(path).c_str(), false))->bytes;
}

void memory_disk_delete(const std::string &path)
{
    (void)stand_in_DeleteFileW(text_wide(path).c_str());
}
