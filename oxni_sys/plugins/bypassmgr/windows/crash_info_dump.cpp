/* Where Windows writes its crash dumps, which of them is new, and the record of the last one's
 * time. Nothing is cached between calls; the host's timer thread, and the core. */
#include "crash_info.h"

#include "boot_time.h"
#include "bypass_log.h"
#include "platform_path.h"

#include <stdexcept>

#include <oxni/base/ejs.h>
#include <oxni/base/json.h>
#include <oxni/base/memory.h>
#include <oxni/base/str.h>

/* Text of a registry value at first; a terminator more is allocated, as Windows may store none. */
#define VALUE_BYTES      520
#define TERMINATOR_BYTES sizeof(wchar_t)
#define EXPANDED_CHARS   260
#define DIRECTORY_CHARS  520

#define DUMPRECORD_FILE  PLATFORM_DATA_FOLDER "bypass_mgr_dumprecord.ejs"
#define DUMPRECORD_TIME  "dump_time"

/* Queries a value into a new buffer with room for a terminator behind it. value is NULL when memory
 * runs out. */
static LSTATUS query_value(HKEY key, const wchar_t *name, BYTE **value, DWORD *size, DWORD *type)
{
    *value = static_cast<BYTE *>(oxni_zero_malloc_(*size + TERMINATOR_BYTES));
    if (*value == NULL) {
        LOG_ERROR("malloc failed %x.", (unsigned)ERROR_NOT_ENOUGH_MEMORY);
        return ERROR_NOT_ENOUGH_MEMORY;
    }
    return RegQueryValueExW(key, name, NULL, type, *value, size);
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

/* The time that a dump has to be newer than: the boot moment, or with the record on the recorded
 * time when that is earlier. */
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
 * converter brings all locales with it, half a megabyte in the DLL. */
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
    BYTE *value = NULL;
    DWORD size = VALUE_BYTES;
    DWORD type = REG_NONE;
    LSTATUS error;

    if (key == NULL || name == NULL)
        return ERROR_INVALID_PARAMETER;
    error = query_value(key, name, &value, &size, &type);
    if (error == ERROR_MORE_DATA) {
        oxni_free_(value);
        error = query_value(key, name, &value, &size, &type);
    }
    if (value == NULL)
        return ERROR_NOT_ENOUGH_MEMORY;
    if (error != ERROR_SUCCESS) {
        LOG_ERROR("query failed %x.", (unsigned)error);
    } else if (type == REG_SZ || type == REG_EXPAND_SZ) {
        const wchar_t *chars = reinterpret_cast<const wchar_t *>(value);
        text->assign(chars, oxni_wcsnlen(chars, (size + TERMINATOR_BYTES) / sizeof(wchar_t)));
    } else {
        error = ERROR_NOT_FOUND;
        LOG_ERROR("type not match %d %x.", (int)type, (unsigned)error);
    }
    oxni_free_(value);
    return (uint32_t)error;
}

std::wstring expand_env_path(const std::wstring &text)
{
    wchar_t buffer[EXPANDED_CHARS] = {};
    std::wstring expanded;
    wchar_t *longer;
    DWORD chars = ExpandEnvironmentStringsW(text.c_str(), buffer, EXPANDED_CHARS);

    if (chars == 0)
        return expanded;
    if (chars <= EXPANDED_CHARS)
        return buffer;
    chars++;
    longer = static_cast<wchar_t *>(oxni_zero_malloc_(chars * sizeof(wchar_t)));
    if (longer == NULL)
        return expanded;
    const DWORD needed = ExpandEnvironmentStringsW(text.c_str(), longer, chars);
    /* The environment may have grown meanwhile. */
    if (needed != 0 && needed <= chars)
        expanded = longer;
    oxni_free_(longer);
    return expanded;
}

uint32_t get_file_write_time(const wchar_t *path, uint64_t *write_time)
{
    BY_HANDLE_FILE_INFORMATION information;
    DWORD error = ERROR_SUCCESS;
    HANDLE file;

    if (path == NULL)
        return ERROR_INVALID_PARAMETER;
    file = open_shared(path);
    if (file == INVALID_HANDLE_VALUE) {
        error = GetLastError();
        LOG_WARN("open file %S failed %x.", path, (unsigned)error);
        return error;
    }
    if (GetFileInformationByHandle(file, &information)) {
        *write_time = filetime_value(information.ftLastWriteTime);
    } else {
        error = GetLastError();
        LOG_WARN("get file %S information failed %x.", path, (unsigned)error);
    }
    CloseHandle(file);
    return error;
}

uint32_t find_newest_file(const wchar_t *folder, std::wstring *path, uint64_t *write_time)
{
    WIN32_FIND_DATAW entry;
    std::wstring name;
    uint64_t newest = 0;
    HANDLE find;

    if (folder == NULL)
        return ERROR_INVALID_PARAMETER;
    find = FindFirstFileW((std::wstring(folder) + L"\\*").c_str(), &entry);
    if (find == INVALID_HANDLE_VALUE) {
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
    } while (FindNextFileW(find, &entry));
    FindClose(find);
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
    /* Without the key each query is to fail by itself, and say so. A null key would not even be
     * asked, and whatever a failed open leaves behind is not to be closed. */
    const bool opened =
        RegOpenKeyExW(HKEY_LOCAL_MACHINE, L"SYSTEM\\CurrentControlSet\\Control\\CrashControl", 0,
                      KEY_READ, &key) == ERROR_SUCCESS;
    if (!opened)
        key = static_cast<HKEY>(INVALID_HANDLE_VALUE);

    path = crash_path_setting(key, L"DumpFile", windows, L"\\MEMORY.DMP");
    if (get_file_write_time(path.c_str(), &write_time) == ERROR_SUCCESS)
        *complete = {path, write_time};
    path = crash_path_setting(key, L"MinidumpDir", windows, L"\\Minidump");
    if (find_newest_file(path.c_str(), &newest, &write_time) == ERROR_SUCCESS)
        *minidump = {newest, write_time};
    if (opened)
        RegCloseKey(key);
}

uint8_t find_new_crash_dump(uint32_t timeout_ms, uint32_t use_record, crash_module_set *modules,
                            uint64_t *dump_time, std::string *dump_path)
{
    crash_dump_info complete = {}, minidump = {};
    int64_t threshold;

    get_crash_dump_files(&complete, &minidump);
    threshold = dump_threshold(use_record);
    if (is_dump_newer(minidump, threshold)) {
        if (analyze_dmp_file(minidump.path.c_str(), timeout_ms, modules) != 1)
            return 0;
        *dump_time = minidump.write_time;
        *dump_path = utf8_path(minidump.path);
        return 1;
    }
    if (is_dump_newer(complete, threshold)) {
        if (analyze_dmp_file(complete.path.c_str(), timeout_ms, modules) != 1)
            return 0;
        /* The minidump's path here too: empty, or an older one's. */
        *dump_path = utf8_path(minidump.path);
        *dump_time = complete.write_time;
        return 1;
    }
    LOG_WARN("dump not found.");
    return 0;
}

int get_dumprecord_path(char *buffer, size_t size)
{
    platform_path_create_data_folder(DUMPRECORD_FILE, buffer, size);
    return 0;
}

bool get_dumprecord_time(int64_t *dump_time)
{
    char path[PLATFORM_PATH_CHARS];
    json_t *record, *value;
    bool found;

    (void)get_dumprecord_path(path, sizeof(path));
    record = wdu_json_load_file_ejs(path);
    if (record == NULL)
        return false;
    value = wdu_json_object_get_ejs(record, DUMPRECORD_TIME);
    found = json_is_integer(value);
    if (found)
        *dump_time = json_integer_value(value);
    wdu_json_delete_ejs(record);
    return found;
}

int set_dumprecord_time(int64_t dump_time)
{
    char path[PLATFORM_PATH_CHARS];
    json_t *record = json_object();
    int written = 0;

    if (record == NULL)
        return 0;
    (void)get_dumprecord_path(path, sizeof(path));
    if (json_object_set_new(record, DUMPRECORD_TIME, json_integer(dump_time)) == 0)
        written = wdu_json_dump_file_ejs(record, path) == 0 ? 1 : 0;
    wdu_json_delete_ejs(record);
    return written;
}

bool is_file_updated_since_boot(const wchar_t *path)
{
    BY_HANDLE_FILE_INFORMATION information;
    bool updated = false;
    int64_t boot;
    DWORD error;
    HANDLE file;

    if (path == NULL)
        return false;
    file = open_shared(path);
    if (file == INVALID_HANDLE_VALUE) {
        error = GetLastError();
        LOG_ERROR("open file %S failed %x.", path, (unsigned)error);
        return false;
    }
    boot = get_systempro_time();
    if (GetFileInformationByHandle(file, &information)) {
        updated = boot <= (int64_t)filetime_value(information.ftLastWriteTime);
    } else {
        error = GetLastError();
        LOG_ERROR("get file %S information failed %x.", path, (unsigned)error);
    }
    CloseHandle(file);
    return updated;
}
