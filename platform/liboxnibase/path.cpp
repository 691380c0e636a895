/* Paths, directories and files. Calls only the UTF-16 functions of Windows, since the narrow ones
 * use the machine's code page. The directories of the run, and what paths were resolved to, belong
 * to the host's thread. */
#include "base.h"

#include <algorithm>
#include <cstring>
#include <unordered_map>

#include <oxni/base/log.h>
#include <oxni/base/path.h>

static std::string s_install_dir; /* empty: use the executable's directory */
static std::string s_log_dir;     /* empty: none */
static std::string s_process_path;

/* Absolute paths and what they are resolved to: a plug-in asks for the same few ones, and Windows takes
 * long. */
static constexpr size_t MOST_RESOLVED = 64;
static std::unordered_map<std::string, std::string> s_resolved;

static std::string without_end_slash(const char *path)
{
    std::string text = path == nullptr ? "" : path;

    while (!text.empty() && (text.back() == '/' || text.back() == '\\'))
        text.pop_back();
    return text;
}

void oxnih_set_install_dir(const char *path)
{
    s_install_dir = without_end_slash(path);
}

void oxnih_set_log_dir(const char *path)
{
    s_log_dir = without_end_slash(path);
}

void oxnih_set_process_path(const char *path)
{
    s_process_path = path == nullptr ? "" : path;
}

int oxni_log_dir(char *buffer, size_t size)
{
    if (!str_fit(s_log_dir, buffer, size))
        return 0;
    return !s_log_dir.empty();
}

static std::string process_path()
{
    std::wstring path(MAX_PATH, L'\0');
    DWORD chars;

    if (!s_process_path.empty())
        return s_process_path;
    for (;;) {
        chars = GetModuleFileNameW(nullptr, path.data(), static_cast<DWORD>(path.size()));
        if (chars < path.size())
            break;
        path.resize(path.size() * 2);
    }
    path.resize(chars);
    return str_to_utf8(path.c_str());
}

static std::string directory_of(const std::string &path)
{
    size_t slash = path.find_last_of("/\\");

    return slash == std::string::npos ? "" : path.substr(0, slash);
}

static bool resolve(const std::string &text, std::string *resolved)
{
    std::wstring wide, full;
    DWORD chars;

    if (!str_to_wide(text.c_str(), &wide))
        return false;
    /* Windows resolves "..", so that the result is the file that Windows would open. */
    full.resize(wide.size() + MAX_PATH);
    chars = GetFullPathNameW(wide.c_str(), static_cast<DWORD>(full.size()), full.data(), nullptr);
    if (chars > full.size()) {
        full.resize(chars);
        chars = GetFullPathNameW(wide.c_str(), chars, full.data(), nullptr);
    }
    if (chars == 0 || chars >= full.size())
        return false;
    full.resize(chars);
    *resolved = str_to_utf8(full.c_str());
    std::replace(resolved->begin(), resolved->end(), '\\', '/');
    return true;
}

/* Whether the present directory has no part in it. */
static bool is_absolute(const std::string &path)
{
    return path.size() > 2 && path[1] == ':' && (path[2] == '/' || path[2] == '\\');
}

bool path_resolve(const char *path, std::string *resolved)
{
    std::string text = path == nullptr ? "" : path;

    resolved->clear();
    if (text[0] == '@' && (text[1] == '\0' || text[1] == '/' || text[1] == '\\'))
        text.replace(0, 1, s_install_dir.empty() ? directory_of(process_path()) : s_install_dir);
    auto known = s_resolved.find(text);
    if (known != s_resolved.end()) {
        *resolved = known->second;
        return true;
    }
    if (!resolve(text, resolved))
        return false;
    if (s_resolved.size() == MOST_RESOLVED)
        s_resolved.clear();
    if (is_absolute(text))
        s_resolved[text] = *resolved;
    return true;
}

int oxni_dirutils_path_transform(const char *path, char *buffer, size_t size)
{
    std::string resolved;

    if (!path_resolve(path, &resolved)) {
        (void)str_fit("", buffer, size);
        return -1;
    }
    return str_fit(resolved, buffer, size) ? 0 : -1;
}

static bool is_folder(const std::wstring &path)
{
    DWORD attributes = GetFileAttributesW(path.c_str());

    return attributes != INVALID_FILE_ATTRIBUTES && (attributes & FILE_ATTRIBUTE_DIRECTORY) != 0;
}

int oxni_dirutils_mkdir(const char *path, int mode)
{
    std::wstring wide;

    (void)mode; /* Windows has access control lists instead, inherited from the parent. */
    if (!str_to_wide(path, &wide) || wide.empty())
        return -1;
    for (size_t at = wide.find_first_of(L"/\\", 1); at != std::wstring::npos;
         at = wide.find_first_of(L"/\\", at + 1))
        /* Fails for a drive or share and for existing directories; only the last result counts. */
        (void)CreateDirectoryW(wide.substr(0, at).c_str(), nullptr);
    (void)CreateDirectoryW(wide.c_str(), nullptr);
    return is_folder(wide) ? 0 : -1;
}

int oxni_path_directory(const char *path, char *buffer, size_t size)
{
    if (path == nullptr) {
        (void)str_fit("", buffer, size);
        return -1;
    }
    return str_fit(directory_of(path), buffer, size) ? 0 : -1;
}

const char *oxni_path_basename(const char *path)
{
    const char *name = path;

    for (const char *at = path; at != nullptr && *at != '\0'; at++)
        if (*at == '/' || *at == '\\')
            name = at + 1;
    return name;
}

int oxni_path_is_exist_u(const char *path)
{
    std::wstring wide;

    return str_to_wide(path, &wide) && GetFileAttributesW(wide.c_str()) != INVALID_FILE_ATTRIBUTES;
}

int oxni_path_del_file_u(const char *path)
{
    std::wstring wide;

    if (!str_to_wide(path, &wide))
        return path == nullptr ? ERROR_INVALID_PARAMETER : ERROR_INVALID_NAME;
    return DeleteFileW(wide.c_str()) ? 0 : static_cast<int>(GetLastError());
}

int oxni_file_flush(const char *path)
{
    std::wstring wide;
    HANDLE file;
    DWORD error = ERROR_SUCCESS;

    if (!str_to_wide(path, &wide))
        return path == nullptr ? ERROR_INVALID_PARAMETER : ERROR_INVALID_NAME;
    file = CreateFileW(wide.c_str(), GENERIC_WRITE,
                       FILE_SHARE_READ | FILE_SHARE_WRITE | FILE_SHARE_DELETE, nullptr,
                       OPEN_EXISTING, FILE_ATTRIBUTE_NORMAL, nullptr);
    if (file == INVALID_HANDLE_VALUE)
        return static_cast<int>(GetLastError());
    if (!FlushFileBuffers(file))
        error = GetLastError();
    CloseHandle(file);
    return static_cast<int>(error);
}

FILE *oxni_file_open_w(const wchar_t *path, const wchar_t *mode)
{
    return path == nullptr || mode == nullptr ? nullptr : _wfopen(path, mode);
}

int oxni_process_path(char *buffer, size_t size)
{
    return str_fit(process_path(), buffer, size) ? 0 : -1;
}

int oxni_process_name(char *buffer, size_t size)
{
    return str_fit(oxni_path_basename(process_path().c_str()), buffer, size) ? 0 : -1;
}
