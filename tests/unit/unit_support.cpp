/* The machine as the unit tests arrange it. */
#include "unit_support.h"

#include <stdio.h>
#include <stdlib.h>

#include <oxni/base/log.h>

#include "liboxnibase/host.h"

static void require(bool condition, const char *what)
{
    if (condition)
        return;
    fprintf(stderr, "unit_support: %s, error %lu\n", what, GetLastError());
    abort();
}

static int every_level(void)
{
    SetLastError(0xBAD);
    return OXNI_LOG_DEBUG;
}

log_capture::log_capture() : level_patch_("oxni_log_level_get", every_level)
{
    oxnih_log_set_sink(receive, this);
}

log_capture::~log_capture()
{
    oxnih_log_set_sink(NULL, NULL);
}

std::vector<std::string> log_capture::take()
{
    std::vector<std::string> taken;

    taken.swap(lines_);
    return taken;
}

/* line: "[time] [word] [pid:n] [tid:n] [vkl] [file:n] message\n" */
void log_capture::receive(int, const char *line, void *user)
{
    const std::string text = line;
    const size_t word = text.find("] [") + 3;
    const size_t message = text.find("] ", text.find("[vkl] [") + 7) + 2;

    static_cast<log_capture *>(user)->lines_.push_back(
        text.substr(word, text.find(']', word) - word) + " " +
        text.substr(message, text.size() - message - 1));
}

private_registry::private_registry()
{
    wchar_t path[64];

    _snwprintf(path, 64, L"Software\\bypass_unit_%lu", GetCurrentProcessId());
    require(RegCreateKeyExW(HKEY_CURRENT_USER, path, 0, NULL, REG_OPTION_NON_VOLATILE,
                            KEY_ALL_ACCESS, NULL, &root_, NULL) == 0,
            "private key not created");
    RegDeleteTreeW(root_, NULL);
    require(RegOverridePredefKey(HKEY_LOCAL_MACHINE, root_) == 0, "machine key not redirected");
}

private_registry::~private_registry()
{
    RegOverridePredefKey(HKEY_LOCAL_MACHINE, NULL);
    RegDeleteTreeW(root_, NULL);
    RegDeleteKeyW(root_, L"");
    RegCloseKey(root_);
}

void private_registry::set_value(const wchar_t *path, const wchar_t *name, DWORD type,
                                 const void *data, size_t size)
{
    HKEY key;

    require(RegCreateKeyExW(root_, path, 0, NULL, 0, KEY_ALL_ACCESS, NULL, &key, NULL) == 0,
            "key not created");
    require(RegSetValueExW(key, name, 0, type, static_cast<const BYTE *>(data), (DWORD)size) == 0,
            "value not set");
    RegCloseKey(key);
}

void private_registry::set_text(const wchar_t *path, const wchar_t *name, DWORD type,
                                const std::wstring &text)
{
    set_value(path, name, type, text.c_str(), (text.size() + 1) * sizeof(wchar_t));
}

bool private_registry::has_key(const wchar_t *path) const
{
    HKEY key;

    if (RegOpenKeyExW(root_, path, 0, KEY_READ, &key) != 0)
        return false;
    RegCloseKey(key);
    return true;
}

bool private_registry::is_volatile(const wchar_t *path) const
{
    HKEY key, child;

    require(RegOpenKeyExW(root_, path, 0, KEY_ALL_ACCESS, &key) == 0, "key not opened");
    LSTATUS error = RegCreateKeyExW(key, L"probe", 0, NULL, 0, KEY_ALL_ACCESS, NULL, &child, NULL);
    if (error == 0) {
        RegCloseKey(child);
        RegDeleteKeyW(key, L"probe");
    }
    RegCloseKey(key);
    return error == ERROR_CHILD_MUST_BE_VOLATILE;
}

static void remove_folder(const std::wstring &folder)
{
    WIN32_FIND_DATAW entry;
    HANDLE find = FindFirstFileW((folder + L"\\*").c_str(), &entry);

    if (find == INVALID_HANDLE_VALUE)
        return;
    do {
        const std::wstring name = entry.cFileName;
        if (name == L"." || name == L"..")
            continue;
        if ((entry.dwFileAttributes & FILE_ATTRIBUTE_DIRECTORY) != 0) {
            remove_folder(folder + L"\\" + name);
        } else {
            SetFileAttributesW((folder + L"\\" + name).c_str(), FILE_ATTRIBUTE_NORMAL);
            DeleteFileW((folder + L"\\" + name).c_str());
        }
    } while (FindNextFileW(find, &entry));
    FindClose(find);
    RemoveDirectoryW(folder.c_str());
}

temporary_folder::temporary_folder()
{
    static unsigned s_count;
    wchar_t base[MAX_PATH], path[2 * MAX_PATH];

    GetTempPathW(MAX_PATH, base);
    _snwprintf(path, 2 * MAX_PATH, L"%lsbypass_unit_%lu_%u", base, GetCurrentProcessId(),
               s_count++);
    path_ = path;
    remove_folder(path_);
    require(CreateDirectoryW(path, NULL) != 0, "temporary folder not made");
}

temporary_folder::~temporary_folder()
{
    remove_folder(path_);
}

std::string temporary_folder::utf8() const
{
    return to_utf8(path_);
}

std::wstring temporary_folder::file(const wchar_t *name) const
{
    return path_ + L"\\" + name;
}

std::wstring temporary_folder::write(const wchar_t *name, const std::string &bytes,
                                     uint64_t write_time) const
{
    const FILETIME filetime = {(DWORD)write_time, (DWORD)(write_time >> 32)};
    DWORD written = 0;
    HANDLE handle = CreateFileW(file(name).c_str(), GENERIC_WRITE, 0, NULL, CREATE_ALWAYS,
                                FILE_ATTRIBUTE_NORMAL, NULL);

    require(handle != INVALID_HANDLE_VALUE, "file not created");
    require(WriteFile(handle, bytes.data(), (DWORD)bytes.size(), &written, NULL) != 0,
            "file not written");
    if (write_time != 0)
        require(SetFileTime(handle, NULL, NULL, &filetime) != 0, "write time not set");
    CloseHandle(handle);
    return file(name);
}

std::string read_whole_file(const std::wstring &path)
{
    std::string bytes;
    char block[256];
    size_t got;
    FILE *file = _wfopen(path.c_str(), L"rb");

    require(file != NULL, "file not opened");
    while ((got = fread(block, 1, sizeof(block), file)) != 0)
        bytes.append(block, got);
    fclose(file);
    return bytes;
}

std::string to_utf8(const std::wstring &text)
{
    std::string utf8(text.size() * 3, '\0');
    const int length = WideCharToMultiByte(CP_UTF8, 0, text.data(), (int)text.size(), &utf8[0],
                                           (int)utf8.size(), NULL, NULL);

    utf8.resize((size_t)length);
    return utf8;
}
