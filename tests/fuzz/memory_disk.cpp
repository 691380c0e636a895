/* Stand-ins for the calls of Windows that libwdu_ejs.dll makes. */
#include "memory_disk.h"

#include <string.h>
#include <windows.h>

#include <algorithm>
#include <map>

#include "machine/imports.h"
#include "text.h"

static std::map<std::wstring, std::string> s_files; /* by path in lower case, with backslashes */

/* The one file that is open: the library has never two. */
static struct {
    std::string *bytes; /* NULL: none is */
    size_t at;
} s_open;

static std::wstring key_of(const std::wstring &path)
{
    std::wstring key = text_lower(path);

    std::replace(key.begin(), key.end(), L'/', L'\\');
    return key;
}

static HANDLE WINAPI create_file(const wchar_t *path, DWORD access, DWORD, SECURITY_ATTRIBUTES *,
                                 DWORD, DWORD, HANDLE)
{
    auto file = s_files.find(key_of(path));

    if ((access & GENERIC_WRITE) != 0) {
        s_open = {&(s_files[key_of(path)] = ""), 0};
        return &s_open;
    }
    if (file == s_files.end()) {
        SetLastError(ERROR_FILE_NOT_FOUND);
        return INVALID_HANDLE_VALUE;
    }
    s_open = {&file->second, 0};
    return &s_open;
}

static BOOL WINAPI read_file(HANDLE, void *buffer, DWORD bytes, DWORD *got, OVERLAPPED *)
{
    *got = static_cast<DWORD>(std::min<size_t>(bytes, s_open.bytes->size() - s_open.at));
    memcpy(buffer, s_open.bytes->data() + s_open.at, *got);
    s_open.at += *got;
    return TRUE;
}

static BOOL WINAPI write_file(HANDLE, const void *bytes, DWORD count, DWORD *written, OVERLAPPED *)
{
    s_open.bytes->append(static_cast<const char *>(bytes), count);
    *written = count;
    return TRUE;
}

static BOOL WINAPI close_or_flush(HANDLE)
{
    return TRUE;
}

static BOOL WINAPI move_file(const wchar_t *from, const wchar_t *to, DWORD)
{
    s_files[key_of(to)] = s_files[key_of(from)];
    s_files.erase(key_of(from));
    return TRUE;
}

static BOOL WINAPI delete_file(const wchar_t *path)
{
    return s_files.erase(key_of(path)) != 0;
}

void memory_disk_open(void)
{
    static const struct {
        const char *name;
        void *function;
    } calls[] = {
        {"CreateFileW",      reinterpret_cast<void *>(create_file)   },
        {"ReadFile",         reinterpret_cast<void *>(read_file)     },
        {"WriteFile",        reinterpret_cast<void *>(write_file)    },
        {"FlushFileBuffers", reinterpret_cast<void *>(close_or_flush)},
        {"CloseHandle",      reinterpret_cast<void *>(close_or_flush)},
        {"MoveFileExW",      reinterpret_cast<void *>(move_file)     },
        {"DeleteFileW",      reinterpret_cast<void *>(delete_file)   },
    };

    imports_each(GetModuleHandleW(L"libwdu_ejs.dll"),
                 [](const std::string &, const char *name, void **entry) {
                     for (const auto &call : calls)
                         if (strcmp(name, call.name) == 0)
                             imports_lead(entry, call.function);
                 });
}

std::string &memory_disk_file(const std::string &path)
{
    return s_files[key_of(text_wide(path))];
}

void memory_disk_delete(const std::string &path)
{
    s_files.erase(key_of(text_wide(path)));
}
