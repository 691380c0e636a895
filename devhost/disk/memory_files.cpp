/* The files themselves: a map from paths to bytes. */
#include "memory_disk_internal.h"

#include <algorithm>

#include "../../platform/liboxnibase/host.h"
#include "../base/text.h"

REAL(L"kernel32.dll", CreateFileW);
REAL(L"kernel32.dll", WriteFile);
REAL(L"kernel32.dll", SetFileTime);
REAL(L"kernel32.dll", CloseHandle);

file_map memory_files;
static std::wstring s_folder; /* in lower case, with a backslash; empty: there is no such disk */
/* The folder as callers spell it, which use backslashes or slashes: of the last path of each. */
static std::wstring s_spelled[2];

bool memory_files_are_open(void)
{
    return !s_folder.empty();
}

void memory_files_open(const std::wstring &folder)
{
    s_folder = text_lower(folder) + L"\\";
    s_spelled[0] = s_spelled[1] = L"";
}

/* In lower case, with backslashes, in one pass: this is done for each file operation of a boot.
 * Result: false for a path that needs Windows for that. */
static bool normalize_ascii(const wchar_t *path, std::wstring *normal)
{
    wchar_t previous = L'\0';

    normal->resize(wcslen(path));
    for (wchar_t &to : *normal) {
        const wchar_t c = *path == L'/' ? L'\\' : *path;

        if (c >= 0x80 || (previous == L'\\' && (c == L'\\' || c == L'.')))
            return false;
        to = c >= L'A' && c <= L'Z' ? static_cast<wchar_t>(c - L'A' + L'a') : c;
        previous = c;
        path++;
    }
    return true;
}

static void remove_last_backslashes(std::wstring *key)
{
    while (!key->empty() && key->back() == L'\\')
        key->pop_back();
}

bool memory_file_key(const wchar_t *path, std::wstring *key)
{
    const size_t length = wcslen(path), folder = s_folder.size();
    std::wstring &spelled = s_spelled[length > 2 && path[2] == L'/' ? 1 : 0];
    wchar_t full[1024];

    if (s_folder.empty())
        return false;
    if (length > folder && spelled.size() == folder &&
        memcmp(path, spelled.data(), folder * sizeof(wchar_t)) == 0 &&
        normalize_ascii(path + folder - 1, key)) {
        remove_last_backslashes(key);
        return !key->empty();
    }
    const bool is_plain = normalize_ascii(path, key); /* then it keeps its length */
    if (!is_plain) {
        DWORD chars = GetFullPathNameW(path, ARRAYSIZE(full), full, nullptr);

        *key = text_lower(std::wstring(chars < ARRAYSIZE(full) ? full : L""));
    }
    remove_last_backslashes(key);
    if (key->size() <= folder || key->compare(0, folder, s_folder) != 0)
        return false;
    key->erase(0, folder - 1);
    if (is_plain)
        spelled.assign(path, folder);
    return true;
}

bool memory_disk_is_below(const wchar_t *path)
{
    std::wstring normal;

    return normalize_ascii(path, &normal) && normal.size() < s_folder.size() &&
           s_folder[normal.size()] == L'\\' && s_folder.compare(0, normal.size(), normal) == 0;
}

file_ptr memory_file_find(const std::wstring &key)
{
    auto file = memory_files.find(key);

    return file == memory_files.end() ? nullptr : file->second;
}

std::wstring memory_parent(const std::wstring &key)
{
    return key.substr(0, key.rfind(L'\\'));
}

bool memory_is_folder(const std::wstring &key)
{
    file_ptr file = memory_file_find(key);

    return key.empty() || (file != nullptr && file->is_folder);
}

DWORD memory_missing(const std::wstring &key)
{
    return memory_is_folder(memory_parent(key)) ? ERROR_FILE_NOT_FOUND : ERROR_PATH_NOT_FOUND;
}

FILETIME memory_now(void)
{
    uint64_t time = oxnih_clock_now_100ns();

    return {static_cast<DWORD>(time), static_cast<DWORD>(time >> 32)};
}

DWORD memory_attributes(const memory_file &file)
{
    return file.is_folder ? FILE_ATTRIBUTE_DIRECTORY : FILE_ATTRIBUTE_ARCHIVE;
}

std::wstring memory_file_name(const wchar_t *path)
{
    const wchar_t *name = std::max(wcsrchr(path, L'\\'), wcsrchr(path, L'/'));

    return name != nullptr ? name + 1 : path;
}

file_ptr memory_file_make(const std::wstring &key, const wchar_t *path, bool folder)
{
    file_ptr file = std::make_shared<memory_file>();

    file->name = memory_file_name(path);
    file->is_folder = folder;
    file->created = file->accessed = file->written = memory_now();
    memory_files[key] = file;
    return file;
}

static bool write_real(const memory_file &file)
{
    HANDLE real = real_CreateFileW(file.real_path.c_str(), GENERIC_WRITE, 0, nullptr, CREATE_ALWAYS,
                                   0, nullptr);
    DWORD written = 0;
    bool done;

    if (real == INVALID_HANDLE_VALUE)
        return false;
    done =
        real_WriteFile(real, file.bytes.data(), static_cast<DWORD>(file.bytes.size()), &written,
                       nullptr) &&
        real_SetFileTime(real, nullptr, nullptr, &file.written); /* its times stay the machine's */
    real_CloseHandle(real);
    return done;
}

bool memory_file_make_real(const file_ptr &file)
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
