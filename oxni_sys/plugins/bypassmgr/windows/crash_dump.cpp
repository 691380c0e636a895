/* Where Windows writes its crash dumps, and which of them is new. Nothing is cached between calls;
 * the host's timer thread, and the core. */
#include "crash_dump.h"

#include <stdexcept>

#include <oxni/base/memory.h>
#include <oxni/base/str.h>

#include "analyze_dmp.h"
#include "boot_time.h"
#include "bypass_log.h"
#include "dump_record.h"
#include "filetime.h"
#include "windows_owner.h"

/* Text of a registry value at first; a terminator more is allocated, as Windows may store none. */
#define VALUE_BYTES      520
#define TERMINATOR_BYTES sizeof(wchar_t)
#define EXPANDED_CHARS   260
#define DIRECTORY_CHARS  520

/* Queries a value into a new buffer with room for a terminator after it. value is not valid when
 * memory runs out. */
static LSTATUS query_value(HKEY key, const wchar_t *name, owned_block *value, DWORD *size,
                           DWORD *type)
{
    value->reset();
    value->reset(oxni_zero_malloc_(*size + TERMINATOR_BYTES));
    if (!value->is_valid()) {
        LOG_ERROR("malloc failed %x.", (unsigned)ERROR_NOT_ENOUGH_MEMORY);
        return ERROR_NOT_ENOUGH_MEMORY;
    }
    return RegQueryValueExW(key, name, NULL, type, (BYTE *)value->get(), size);
}

/* Opens a file that others may read, write and delete meanwhile. */
static HANDLE open_shared(const wchar_t *path)
{
    return CreateFileW(path, GENERIC_READ, FILE_SHARE_READ | FILE_SHARE_WRITE | FILE_SHARE_DELETE,
                       NULL, OPEN_EXISTING, FILE_ATTRIBUTE_NORMAL, NULL);
}

/* A path that Windows is set to use, or its own default below the Windows folder. */
static std::wstring crash_path_setting(HKEY key, const wchar_t *name, const wchar_t *windows,
                                       const wchar_t *default_name)
{
    std::wstring text;

    if (read_reg_string_value(key, name, &text) == ERROR_SUCCESS && !text.empty())
        text = expand_env_path(text);
    if (text.empty())
        text = std::wstring(windows) + default_name;
    return text;
}

/* The time that a dump has to be newer than: the boot moment, or the recorded time when that is
 * used and earlier. */
static int64_t dump_threshold(uint32_t use_record)
{
    int64_t threshold = get_systempro_time();
    int64_t recorded = 0;

    if (use_record != 1)
        return threshold;
    if (!get_dumprecord_time(&recorded)) {
        LOG_WARN("get_dumprecord_time failed");
    } else if (threshold > recorded) {
        LOG_INFO("starttime %I64d > recordtime %I64d", threshold, recorded);
        threshold = recorded;
    }
    return threshold;
}

static bool is_dump_newer(const crash_dump_info &dump, int64_t threshold)
{
    return !dump.path.empty() && threshold < (int64_t)dump.write_time;
}

/* Throws std::range_error for what is not UTF-16. Windows converts it: the standard library's own
 * converter would add all locales, half a megabyte, to the DLL. */
static std::string utf8_path(const std::wstring &path)
{
    const int chars = (int)path.size();
    std::string utf8;
    int bytes;

    if (chars == 0) /* an error to Windows */
        return utf8;
    bytes = WideCharToMultiByte(CP_UTF8, WC_ERR_INVALID_CHARS, path.c_str(), chars, NULL, 0, NULL,
                                NULL);
    if (bytes <= 0)
        throw std::range_error("bad conversion");
    utf8.resize((size_t)bytes);
    (void)WideCharToMultiByte(CP_UTF8, 0, path.c_str(), chars, &utf8[0], bytes, NULL, NULL);
    return utf8;
}

uint32_t read_reg_string_value(HKEY key, const wchar_t *name, std::wstring *text)
{
    owned_block value;
    DWORD size = VALUE_BYTES;
    DWORD type = REG_NONE;
    LSTATUS error;

    if (key == NULL || name == NULL)
        return ERROR_INVALID_PARAMETER;
    error = query_value(key, name, &value, &size, &type);
    if (error == ERROR_MORE_DATA)
        error = query_value(key, name, &value, &size, &type);
    if (!value.is_valid())
        return ERROR_NOT_ENOUGH_MEMORY;
    if (error != ERROR_SUCCESS) {
        LOG_ERROR("query failed %x.", (unsigned)error);
    } else if (type == REG_SZ || type == REG_EXPAND_SZ) {
        const wchar_t *chars = (const wchar_t *)value.get();
        text->assign(chars, oxni_wcsnlen(chars, (size + TERMINATOR_BYTES) / sizeof(wchar_t)));
    } else {
        error = ERROR_NOT_FOUND;
        LOG_ERROR("type not match %d %x.", (int)type, (unsigned)error);
    }
    return (uint32_t)error;
}

std::wstring expand_env_path(const std::wstring &text)
{
    wchar_t buffer[EXPANDED_CHARS] = {};
    std::wstring expanded;
    DWORD chars = ExpandEnvironmentStringsW(text.c_str(), buffer, EXPANDED_CHARS);

    if (chars == 0)
        return expanded;
    if (chars <= EXPANDED_CHARS)
        return buffer;
    chars++;
    const owned_block longer(oxni_zero_malloc_(chars * sizeof(wchar_t)));
    if (!longer.is_valid())
        return expanded;
    const DWORD needed = ExpandEnvironmentStringsW(text.c_str(), (wchar_t *)longer.get(), chars);
    /* The environment may have grown meanwhile. */
    if (needed != 0 && needed <= chars)
        expanded = (const wchar_t *)longer.get();
    return expanded;
}

uint32_t get_file_write_time(const wchar_t *path, uint64_t *write_time)
{
    BY_HANDLE_FILE_INFORMATION information;
    DWORD error;

    if (path == NULL)
        return ERROR_INVALID_PARAMETER;
    const owned_file file(open_shared(path));
    if (!file.is_valid()) {
        error = GetLastError();
        LOG_WARN("open file %S failed %x.", path, (unsigned)error);
        return error;
    }
    if (!GetFileInformationByHandle(file.get(), &information)) {
        error = GetLastError();
        LOG_WARN("get file %S information failed %x.", path, (unsigned)error);
        return error;
    }
    *write_time = filetime_value(information.ftLastWriteTime);
    return ERROR_SUCCESS;
}

uint32_t find_newest_file(const wchar_t *folder, std::wstring *path, uint64_t *write_time)
{
    WIN32_FIND_DATAW entry;
    std::wstring name;
    uint64_t newest = 0;

    if (folder == NULL)
        return ERROR_INVALID_PARAMETER;
    const std::wstring pattern = std::wstring(folder) + L"\\*";
    const owned_find find(FindFirstFileW(pattern.c_str(), &entry));
    if (!find.is_valid()) {
        const DWORD error = GetLastError();
        LOG_WARN("find failed %x.", (unsigned)error);
        return error;
    }
    do {
        const uint64_t written = filetime_value(entry.ftLastWriteTime);
        if ((entry.dwFileAttributes & FILE_ATTRIBUTE_DIRECTORY) != 0 || written <= newest)
            continue;
        newest = written;
        name = entry.cFileName;
    } while (FindNextFileW(find.get(), &entry));
    if (newest == 0)
        return ERROR_NOT_FOUND;
    *path = std::wstring(folder) + L"\\" + name;
    *write_time = newest;
    return ERROR_SUCCESS;
}

void get_crash_dump_files(crash_dump_info *complete, crash_dump_info *minidump)
{
    wchar_t windows[DIRECTORY_CHARS] = {};
    std::wstring path, newest;
    uint64_t write_time = 0;
    HKEY key = NULL;

    (void)GetWindowsDirectoryW(windows, DIRECTORY_CHARS); /* cannot be that long */
    /* Without the key each query is to fail by itself, and to log that. A null key would not even
     * be queried, and whatever a failed open leaves behind is not to be closed. */
    const bool opened =
        RegOpenKeyExW(HKEY_LOCAL_MACHINE, L"SYSTEM\\CurrentControlSet\\Control\\CrashControl", 0,
                      KEY_READ, &key) == ERROR_SUCCESS;
    const owned_key owner(opened ? key : NULL);
    if (!opened)
        key = (HKEY)INVALID_HANDLE_VALUE;

    path = crash_path_setting(key, L"DumpFile", windows, L"\\MEMORY.DMP");
    if (get_file_write_time(path.c_str(), &write_time) == ERROR_SUCCESS)
        *complete = {path, write_time};
    path = crash_path_setting(key, L"MinidumpDir", windows, L"\\Minidump");
    if (find_newest_file(path.c_str(), &newest, &write_time) == ERROR_SUCCESS)
        *minidump = {newest, write_time};
}

bool find_new_crash_dump(uint32_t timeout_ms, uint32_t use_record, crash_module_set *modules,
                         uint64_t *dump_time, std::string *dump_path)
{
    crash_dump_info complete = {}, minidump = {};
    int64_t threshold;

    get_crash_dump_files(&complete, &minidump);
    threshold = dump_threshold(use_record);
    if (is_dump_newer(minidump, threshold)) {
        if (!analyze_dmp_file(minidump.path.c_str(), timeout_ms, modules))
            return false;
        *dump_time = minidump.write_time;
        *dump_path = utf8_path(minidump.path);
        return true;
    }
    if (is_dump_newer(complete, threshold)) {
        if (!analyze_dmp_file(complete.path.c_str(), timeout_ms, modules))
            return false;
        /* The minidump's path here too: empty, or an older one's. */
        *dump_path = utf8_path(minidump.path);
        *dump_time = complete.write_time;
        return true;
    }
    LOG_WARN("dump not found.");
    return false;
}

bool is_file_updated_since_boot(const wchar_t *path)
{
    BY_HANDLE_FILE_INFORMATION information;
    int64_t boot;
    DWORD error;

    if (path == NULL)
        return false;
    const owned_file file(open_shared(path));
    if (!file.is_valid()) {
        error = GetLastError();
        LOG_ERROR("open file %S failed %x.", path, (unsigned)error);
        return false;
    }
    boot = get_systempro_time();
    if (!GetFileInformationByHandle(file.get(), &information)) {
        error = GetLastError();
        LOG_ERROR("get file %S information failed %x.", path, (unsigned)error);
        return false;
    }
    return boot <= (int64_t)filetime_value(information.ftLastWriteTime);
}
