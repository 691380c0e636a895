/* The calls of Windows for files, over a map from paths to bytes. */
#include "memory_disk.h"

#include <errno.h>
#include <stdio.h>
#include <string.h>

#include <algorithm>
#include <map>
#include <memory>
#include <vector>

#include "../../platform/liboxnibase/host.h"
#include "../text.h"
#include "imports.h"
#include "machine.h"
#include "stand_in.h"

/* The real calls, by their names: this program's own imports are led here, too. */
#define REAL(library, name)                                                                        \
    static const auto real_##name = reinterpret_cast<decltype(&(name))>(                           \
        reinterpret_cast<void *>(GetProcAddress(GetModuleHandleW(library), #name)))

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
REAL(L"kernel32.dll", FindFirstFileW);
REAL(L"kernel32.dll", FindNextFileW);
REAL(L"kernel32.dll", FindClose);
REAL(L"kernel32.dll", GetFileInformationByHandle);
REAL(L"msvcrt.dll", _wfopen);

struct memory_file {
    std::wstring name; /* as it was made */
    bool is_folder;
    std::string bytes;
    FILETIME written;
    /* Streams of the C runtime and mappings need a real file: it lies there since the first of
     * them. Empty: it lies here. */
    std::wstring real_path;
};
typedef std::shared_ptr<memory_file> file_ptr;

struct disk_handle {
    file_ptr file;
    DWORD access;
    DWORD share;
    size_t at;
};

struct open_search {
    std::vector<WIN32_FIND_DATAW> found;
    size_t next;
};

static std::wstring s_folder; /* in lower case, with a backslash; empty: there is no such disk */
static std::map<std::wstring, file_ptr> s_files; /* by path in lower case */
static std::map<HANDLE, disk_handle> s_open;
static std::map<HANDLE, open_search> s_searches;

/* How a path is filed. Result: whether it is one of ours. */
static bool file_key(const wchar_t *path, std::wstring *key)
{
    wchar_t full[1024];

    if (s_folder.empty())
        return false;
    *key = path;
    std::replace(key->begin(), key->end(), L'/', L'\\');
    if (key->find(L"\\.") != std::wstring::npos || key->find(L"\\\\") != std::wstring::npos) {
        DWORD chars = GetFullPathNameW(path, ARRAYSIZE(full), full, NULL);

        *key = chars < ARRAYSIZE(full) ? full : L"";
    }
    *key = text_lower(*key);
    while (!key->empty() && key->back() == L'\\')
        key->pop_back();
    return key->size() > s_folder.size() && key->rfind(s_folder, 0) == 0;
}

static file_ptr find_file(const std::wstring &key)
{
    auto file = s_files.find(key);

    return file == s_files.end() ? NULL : file->second;
}

static std::wstring parent_of(const std::wstring &key)
{
    return key.substr(0, key.rfind(L'\\'));
}

static bool is_folder(const std::wstring &key)
{
    file_ptr file = find_file(key);

    return key + L"\\" == s_folder || (file != NULL && file->is_folder);
}

/* What a missing file means to Windows. */
static DWORD missing(const std::wstring &key)
{
    return is_folder(parent_of(key)) ? ERROR_FILE_NOT_FOUND : ERROR_PATH_NOT_FOUND;
}

static FILETIME now(void)
{
    uint64_t time = oxnih_clock_now_100ns();

    return {static_cast<DWORD>(time), static_cast<DWORD>(time >> 32)};
}

static file_ptr make_file(const std::wstring &key, const wchar_t *path, bool folder)
{
    const wchar_t *name = std::max(wcsrchr(path, L'\\'), wcsrchr(path, L'/'));
    file_ptr file = std::make_shared<memory_file>();

    file->name = name != NULL ? name + 1 : path;
    file->is_folder = folder;
    file->written = now();
    s_files[key] = file;
    return file;
}

static bool grants(DWORD share, DWORD access)
{
    return ((access & GENERIC_READ) == 0 || (share & FILE_SHARE_READ) != 0) &&
           ((access & (GENERIC_WRITE | FILE_APPEND_DATA)) == 0 ||
            (share & FILE_SHARE_WRITE) != 0) &&
           ((access & DELETE) == 0 || (share & FILE_SHARE_DELETE) != 0);
}

/* Whether somebody holds it in a way that forbids this. */
static bool is_held(const file_ptr &file, DWORD access, DWORD share)
{
    for (const auto &open : s_open)
        if (open.second.file == file &&
            (!grants(open.second.share, access) || !grants(share, open.second.access)))
            return true;
    return false;
}

template <typename Result> static Result failed(DWORD error, Result result)
{
    SetLastError(error);
    return result;
}

static bool write_real(const memory_file &file)
{
    HANDLE real =
        real_CreateFileW(file.real_path.c_str(), GENERIC_WRITE, 0, NULL, CREATE_ALWAYS, 0, NULL);
    DWORD written = 0;
    bool done;

    if (real == INVALID_HANDLE_VALUE)
        return false;
    done = real_WriteFile(real, file.bytes.data(), static_cast<DWORD>(file.bytes.size()), &written,
                          NULL) &&
           real_SetFileTime(real, NULL, NULL, &file.written); /* its times stay the machine's */
    real_CloseHandle(real);
    return done;
}

/* Gives the file a real one; result: whether it has one. */
static bool make_real(const file_ptr &file)
{
    static unsigned s_count;

    if (!file->real_path.empty())
        return true;
    file->real_path = s_folder + std::to_wstring(++s_count);
    if (!write_real(*file))
        file->real_path.clear();
    else
        file->bytes.clear();
    return !file->real_path.empty();
}

static HANDLE WINAPI stand_in_CreateFileW(const wchar_t *path, DWORD access, DWORD share,
                                          SECURITY_ATTRIBUTES *security, DWORD disposition,
                                          DWORD flags, HANDLE template_file)
{
    std::wstring key;

    if (!file_key(path, &key))
        return real_CreateFileW(path, access, share, security, disposition, flags, template_file);
    file_ptr file = find_file(key);
    bool there = file != NULL, empties = disposition == CREATE_ALWAYS ||
                                         disposition == CREATE_NEW ||
                                         disposition == TRUNCATE_EXISTING;
    if (!there && (disposition == OPEN_EXISTING || disposition == TRUNCATE_EXISTING ||
                   !is_folder(parent_of(key))))
        return failed(missing(key), INVALID_HANDLE_VALUE);
    if (there && disposition == CREATE_NEW)
        return failed(ERROR_FILE_EXISTS, INVALID_HANDLE_VALUE);
    if (there && file->is_folder)
        return failed(ERROR_ACCESS_DENIED, INVALID_HANDLE_VALUE);
    if (there && is_held(file, access, share))
        return failed(ERROR_SHARING_VIOLATION, INVALID_HANDLE_VALUE);
    if (there && !file->real_path.empty())
        return real_CreateFileW(file->real_path.c_str(), access, share, security, disposition,
                                flags, template_file);
    if (!there)
        file = make_file(key, path, false);
    if (empties)
        file->bytes.clear();
    HANDLE handle = machine_new_handle();
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

    if (file_key(path, &key))
        if (file_ptr file = find_file(key))
            (void)make_real(file);
    return stand_in_CreateFileW(path, access, share, security, disposition, flags, template_file);
}

static HANDLE WINAPI stand_in_CreateFileA(const char *path, DWORD access, DWORD share,
                                          SECURITY_ATTRIBUTES *security, DWORD disposition,
                                          DWORD flags, HANDLE template_file)
{
    wchar_t wide[1024];

    if (MultiByteToWideChar(CP_ACP, 0, path, -1, wide, ARRAYSIZE(wide)) == 0)
        return failed(ERROR_FILENAME_EXCED_RANGE, INVALID_HANDLE_VALUE);
    return stand_in_CreateFileW(wide, access, share, security, disposition, flags, template_file);
}

static BOOL WINAPI stand_in_ReadFile(HANDLE handle, void *buffer, DWORD bytes, DWORD *got,
                                     OVERLAPPED *overlapped)
{
    auto open = s_open.find(handle);

    if (open == s_open.end())
        return real_ReadFile(handle, buffer, bytes, got, overlapped);
    const std::string &content = open->second.file->bytes;
    size_t at = std::min(open->second.at, content.size());
    *got = static_cast<DWORD>(std::min<size_t>(bytes, content.size() - at));
    memcpy(buffer, content.data() + at, *got);
    open->second.at = at + *got;
    return TRUE;
}

static BOOL WINAPI stand_in_WriteFile(HANDLE handle, const void *buffer, DWORD bytes,
                                      DWORD *written, OVERLAPPED *overlapped)
{
    auto open = s_open.find(handle);

    if (open == s_open.end())
        return real_WriteFile(handle, buffer, bytes, written, overlapped);
    std::string &content = open->second.file->bytes;
    size_t at = (open->second.access & GENERIC_WRITE) != 0 ? open->second.at : content.size();
    content.resize(std::max<size_t>(content.size(), at + bytes));
    memcpy(&content[at], buffer, bytes);
    open->second.at = at + bytes;
    open->second.file->written = now();
    *written = bytes;
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
    for (FILETIME *time : {created, accessed, written})
        if (time != NULL)
            *time = open->second.file->written;
    return TRUE;
}

/* Creation times are kept by the machine. */
static BOOL WINAPI stand_in_SetFileTime(HANDLE handle, const FILETIME *created,
                                        const FILETIME *accessed, const FILETIME *written)
{
    auto open = s_open.find(handle);

    if (open == s_open.end())
        return real_SetFileTime(handle, created, accessed, written);
    if (written != NULL)
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
    information->ftCreationTime = information->ftLastAccessTime = information->ftLastWriteTime =
        open->second.file->written;
    information->nFileSizeLow = static_cast<DWORD>(open->second.file->bytes.size());
    information->nNumberOfLinks = 1;
    return TRUE;
}

static DWORD attributes_of(const memory_file &file)
{
    return file.is_folder ? FILE_ATTRIBUTE_DIRECTORY : FILE_ATTRIBUTE_ARCHIVE;
}

static DWORD WINAPI stand_in_GetFileAttributesW(const wchar_t *path)
{
    std::wstring key;

    if (!file_key(path, &key))
        return real_GetFileAttributesW(path);
    if (file_ptr file = find_file(key))
        return attributes_of(*file);
    return failed(missing(key), INVALID_FILE_ATTRIBUTES);
}

static BOOL WINAPI stand_in_GetFileAttributesExW(const wchar_t *path, GET_FILEEX_INFO_LEVELS level,
                                                 void *information)
{
    std::wstring key;
    auto *data = static_cast<WIN32_FILE_ATTRIBUTE_DATA *>(information);

    if (!file_key(path, &key))
        return real_GetFileAttributesExW(path, level, information);
    file_ptr file = find_file(key);
    if (file == NULL)
        return failed(missing(key), FALSE);
    if (!file->real_path.empty())
        return real_GetFileAttributesExW(file->real_path.c_str(), level, information);
    *data = {attributes_of(*file),
             file->written,
             file->written,
             file->written,
             0,
             static_cast<DWORD>(file->bytes.size())};
    return TRUE;
}

static BOOL WINAPI stand_in_CreateDirectoryW(const wchar_t *path, SECURITY_ATTRIBUTES *security)
{
    std::wstring key;

    if (!file_key(path, &key))
        return real_CreateDirectoryW(path, security);
    if (find_file(key) != NULL)
        return failed(ERROR_ALREADY_EXISTS, FALSE);
    if (!is_folder(parent_of(key)))
        return failed(ERROR_PATH_NOT_FOUND, FALSE);
    make_file(key, path, true);
    return TRUE;
}

static BOOL WINAPI stand_in_RemoveDirectoryW(const wchar_t *path)
{
    std::wstring key;

    if (!file_key(path, &key))
        return real_RemoveDirectoryW(path);
    if (!is_folder(key))
        return failed(missing(key), FALSE);
    auto inside = s_files.lower_bound(key + L"\\");
    if (inside != s_files.end() && inside->first.rfind(key + L"\\", 0) == 0)
        return failed(ERROR_DIR_NOT_EMPTY, FALSE);
    s_files.erase(key);
    return TRUE;
}

static BOOL WINAPI stand_in_DeleteFileW(const wchar_t *path)
{
    std::wstring key;

    if (!file_key(path, &key))
        return real_DeleteFileW(path);
    file_ptr file = find_file(key);
    if (file == NULL)
        return failed(missing(key), FALSE);
    if (file->is_folder)
        return failed(ERROR_ACCESS_DENIED, FALSE);
    if (is_held(file, DELETE, FILE_SHARE_READ | FILE_SHARE_WRITE | FILE_SHARE_DELETE))
        return failed(ERROR_SHARING_VIOLATION, FALSE);
    if (!file->real_path.empty() && !real_DeleteFileW(file->real_path.c_str()))
        return FALSE;
    s_files.erase(key);
    return TRUE;
}

static BOOL WINAPI stand_in_MoveFileExW(const wchar_t *from, const wchar_t *to, DWORD flags)
{
    std::wstring old_key, new_key;

    if (!file_key(from, &old_key) || !file_key(to, &new_key))
        return real_MoveFileExW(from, to, flags);
    file_ptr file = find_file(old_key), replaced = find_file(new_key);
    if (file == NULL || !is_folder(parent_of(new_key)))
        return failed(file == NULL ? missing(old_key) : missing(new_key), FALSE);
    if (replaced != NULL && (flags & MOVEFILE_REPLACE_EXISTING) == 0)
        return failed(ERROR_ALREADY_EXISTS, FALSE);
    if (replaced != NULL && is_held(replaced, DELETE, FILE_SHARE_READ | FILE_SHARE_WRITE))
        return failed(ERROR_ACCESS_DENIED, FALSE);
    if (is_held(file, DELETE, FILE_SHARE_READ | FILE_SHARE_WRITE | FILE_SHARE_DELETE))
        return failed(ERROR_SHARING_VIOLATION, FALSE);
    if (replaced != NULL && !replaced->real_path.empty())
        real_DeleteFileW(replaced->real_path.c_str());
    s_files.erase(old_key);
    make_file(new_key, to, false)->bytes = file->bytes;
    s_files[new_key]->real_path = file->real_path;
    s_files[new_key]->written = file->written;
    return TRUE;
}

static void add_found(open_search &search, const std::wstring &name, bool folder, size_t bytes,
                      const FILETIME &written)
{
    WIN32_FIND_DATAW data = {};

    data.dwFileAttributes = folder ? FILE_ATTRIBUTE_DIRECTORY : FILE_ATTRIBUTE_ARCHIVE;
    data.ftCreationTime = data.ftLastAccessTime = data.ftLastWriteTime = written;
    data.nFileSizeLow = static_cast<DWORD>(bytes);
    lstrcpynW(data.cFileName, name.c_str(), ARRAYSIZE(data.cFileName));
    search.found.push_back(data);
}

/* key: of the pattern. */
static open_search search_for(const std::wstring &key)
{
    std::wstring folder = parent_of(key) + L"\\";
    std::string pattern = text_narrow(key.substr(folder.size()));
    open_search search = {{}, 0};

    for (const wchar_t *name : {L".", L".."})
        if (pattern == "*")
            add_found(search, name, true, 0, now());
    for (auto at = s_files.upper_bound(folder);
         at != s_files.end() && at->first.rfind(folder, 0) == 0; at++) {
        std::wstring name = at->first.substr(folder.size());

        if (name.find(L'\\') == std::wstring::npos && text_fits(text_narrow(name), pattern))
            add_found(search, at->second->name, at->second->is_folder, at->second->bytes.size(),
                      at->second->written);
    }
    return search;
}

static HANDLE WINAPI stand_in_FindFirstFileW(const wchar_t *pattern, WIN32_FIND_DATAW *data)
{
    std::wstring key;

    if (!file_key(pattern, &key))
        return real_FindFirstFileW(pattern, data);
    open_search search = search_for(key);
    if (search.found.empty() || !is_folder(parent_of(key)))
        return failed(missing(key), INVALID_HANDLE_VALUE);
    HANDLE handle = machine_new_handle();
    *data = search.found[search.next++];
    s_searches[handle] = search;
    return handle;
}

static BOOL WINAPI stand_in_FindNextFileW(HANDLE handle, WIN32_FIND_DATAW *data)
{
    auto search = s_searches.find(handle);

    if (search == s_searches.end())
        return real_FindNextFileW(handle, data);
    if (search->second.next == search->second.found.size())
        return failed(ERROR_NO_MORE_FILES, FALSE);
    *data = search->second.found[search->second.next++];
    return TRUE;
}

static BOOL WINAPI stand_in_FindClose(HANDLE handle)
{
    return s_searches.erase(handle) != 0 || real_FindClose(handle);
}

static FILE *stand_in__wfopen(const wchar_t *path, const wchar_t *mode)
{
    std::wstring key;

    if (!file_key(path, &key))
        return real__wfopen(path, mode);
    file_ptr file = find_file(key);
    if (file == NULL && (mode[0] == L'r' || !is_folder(parent_of(key)))) {
        errno = ENOENT;
        return NULL;
    }
    if (file == NULL)
        file = make_file(key, path, false);
    return make_real(file) ? real__wfopen(file->real_path.c_str(), mode) : NULL;
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
    STAND_IN(FindFirstFileW),
    STAND_IN(FindNextFileW),
    STAND_IN(FindClose),
    STAND_IN(GetFileInformationByHandle),
    STAND_IN(_wfopen),
    STAND_IN(GetFileAttributesExW),
};

static void lead(HMODULE module, bool maps)
{
    imports_each(module, [maps](const std::string &, const char *name, void **entry) {
        void *function = maps && strcmp(name, "CreateFileW") == 0
                             ? reinterpret_cast<void *>(create_real_file)
                             : stand_in_find(s_stand_ins, name);

        if (function != NULL)
            imports_lead(entry, function);
    });
}

void memory_disk_open(const std::wstring &folder)
{
    if (s_folder.empty()) {
        lead(GetModuleHandleW(NULL), false);
        lead(GetModuleHandleW(L"liboxnibase.dll"), false);
        lead(GetModuleHandleW(L"libwdu_ejs.dll"), false);
    }
    s_folder = text_lower(folder) + L"\\";
}

void memory_disk_lead(HMODULE module, bool maps)
{
    if (!s_folder.empty())
        lead(module, maps);
}

std::string &memory_disk_file(const std::string &path)
{
    std::wstring key;

    if (!file_key(text_wide(path).c_str(), &key))
        throw devhost_error(EXIT_BAD_CALL, path + ": is not on the disk in memory");
    file_ptr file = find_file(key);
    return (file != NULL ? file : make_file(key, text_wide(path).c_str(), false))->bytes;
}

void memory_disk_delete(const std::string &path)
{
    (void)stand_in_DeleteFileW(text_wide(path).c_str());
}
