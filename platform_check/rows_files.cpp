/* Promises about paths and files, time, identifiers and coding. */
#include "check.h"

#include <cstring>

#include <filesystem>

#include <oxni/base/agentid.h>
#include <oxni/base/algo.h>
#include <oxni/base/mutex.h>
#include <oxni/base/path.h>
#include <oxni/base/registry.h>
#include <oxni/base/time.h>
#include <oxni/base/uuid.h>

static constexpr int64_t EPOCH_SECONDS = 11644473600; /* from 1601 to 1970 */

static std::string transformed(const char *path)
{
    char buffer[260] = "#";
    const int result = oxni_dirutils_path_transform(path, buffer, sizeof(buffer));

    SAME(buffer[0] == '\0' ? -1 : 0, result);
    return buffer;
}

PROMISE(paths, "oxni_dirutils_path_transform",
        "\"@/../var/bypass_mgr/\" and the files in it; an absolute path. \"@\" is the installation "
        "directory; forward slashes, no \".\" and \"..\" components, a trailing slash is kept")
{
    static const struct {
        const char *path;
        const char *resolved; /* after the installation directory; empty: rejected */
    } rows[] = {
        {"@",                       ""                      },
        {"@\\x\\y",                 "/x/y"                  },
        {"@/./a/../b/",             "/b/"                   },
        {"@//a///b//",              "/a/b/"                 },
        {"@/\xe6\x97\xa5/\xc3\xa4", "/\xe6\x97\xa5/\xc3\xa4"},
    };
    const std::string root = transformed("@");
    char small[4] = "#";

    for (const auto &row : rows) {
        check_case(row.path);
        SAME(root + row.resolved, transformed(row.path));
    }
    check_case("other paths");
    SAME(root.substr(0, root.rfind('/')) + "/var/x", transformed("@/../var/x"));
    SAME("C:/x", transformed("C:\\a\\..\\..\\.\\x"));          /* not above the drive */
    SAME("@x", oxni_path_basename(transformed("@x").c_str())); /* a file's name */
    for (const char *path : {"@/\xff", "", static_cast<const char *>(nullptr)})
        SAME("", transformed(path));
    SAME(-1, oxni_dirutils_path_transform("@", small, sizeof(small)));
    SAME("", small);
}

PROMISE(paths, "oxni_path_directory", "a file's path; its directory without the slash")
{
    static const struct {
        const char *path, *directory;
    } rows[] = {
        {"C:\\a\\b/c", "C:\\a\\b"},
        {"C:/a/",      "C:/a"    },
        {"b",          ""        },
    };
    char buffer[260];

    for (const auto &row : rows) {
        SAME(0, oxni_path_directory(row.path, buffer, sizeof(buffer)));
        SAME(row.directory, buffer);
    }
    SAME(-1, oxni_path_directory("C:/a/b", buffer, 4));
    SAME("", buffer);
}

static HANDLE open_without_sharing(const std::string &path)
{
    return CreateFileW(wide_of(path).c_str(), GENERIC_WRITE, 0, nullptr, OPEN_EXISTING, 0, nullptr);
}

PROMISE(paths, "oxni_dirutils_mkdir", "a missing directory, mode 509, and its parents")
{
    const std::string deep = path_of("\xe6\x97\xa5/b/c/"), file = path_of("\xe6\x97\xa5/f.txt");

    SAME(0, oxni_dirutils_mkdir(deep.c_str(), 509));
    HOLDS(std::filesystem::is_directory(std::filesystem::u8path(deep)));
    SAME(0, oxni_dirutils_mkdir(deep.c_str(), 509));
    file_write(file, "text");
    check_case("a file of that name");
    SAME(-1, oxni_dirutils_mkdir(file.c_str(), 509));
    SAME(-1, oxni_dirutils_mkdir((file + "/x").c_str(), 509));
}

/* Windows' path of this program, with forward slashes; UTF-8. */
static std::string own_path()
{
    wchar_t path[MAX_PATH] = {};
    GetModuleFileNameW(nullptr, path, MAX_PATH);
    return std::filesystem::path(path).generic_u8string();
}

PROMISE(paths, "oxni_path_basename", "a source file's name, for the log; both kinds of slashes")
{
    SAME("c", oxni_path_basename("C:\\a/b\\c"));
    SAME("c", oxni_path_basename("C:\\a/c"));
    SAME("", oxni_path_basename("a/"));
    SAME("b", oxni_path_basename("b"));
    SAME(static_cast<const char *>(nullptr), oxni_path_basename(nullptr));
}

PROMISE(paths, "oxni_path_is_exist_u", "a file or directory; nonzero when it exists")
{
    const std::string file = path_of("\xc3\xa4.txt");
    SAME(0, oxni_path_is_exist_u(file.c_str()));
    file_write(file, "");
    HOLDS(oxni_path_is_exist_u(file.c_str()) != 0);
    HOLDS(oxni_path_is_exist_u(path_of("").c_str()) != 0);
}

PROMISE(paths, "oxni_path_del_file_u",
        "the recovery tag, which exists; 0 when deleted, otherwise the Windows error code")
{
    const std::string file = path_of("\xc3\xa4.txt");
    file_write(file, "");
    HANDLE held = open_without_sharing(file);
    SAME(ERROR_SHARING_VIOLATION, oxni_path_del_file_u(file.c_str()));
    CloseHandle(held);
    SAME(0, oxni_path_del_file_u(file.c_str()));
    SAME("(none)", file_bytes(file));
    SAME(ERROR_FILE_NOT_FOUND, oxni_path_del_file_u(file.c_str()));
}

PROMISE(paths, "oxni_file_flush", "fails with 32 while the file is open without sharing")
{
    const std::string file = path_of("\xc3\xa4.txt");
    file_write(file, "text");
    SAME(0, oxni_file_flush(file.c_str()));
    HANDLE held = open_without_sharing(file);
    SAME(ERROR_SHARING_VIOLATION, oxni_file_flush(file.c_str()));
    CloseHandle(held);
    SAME("text", file_bytes(file));
}

PROMISE(paths, "oxni_file_open_w",
        "a crash record's path, \"rb\" or \"wb+\"; a `FILE` of the C runtime that both share "
        "(msvcrt)")
{
    const std::string file = path_of("\xe6\x97\xa5.bin");
    HOLDS(oxni_file_open_w(wide_of(file).c_str(), L"rb") == nullptr);
    FILE *opened = oxni_file_open_w(wide_of(file).c_str(), L"wb+");
    HOLDS(opened != nullptr && fputs("a\n", opened) >= 0 && fclose(opened) == 0);
    SAME("a\n", file_bytes(file));
}

PROMISE(paths, "oxni_process_path", "path of the agent's executable")
{
    char path[260] = "#", small[4] = "#";
    SAME(0, oxni_process_path(path, sizeof(path)));
    SAME(own_path(), std::filesystem::u8path(path).generic_u8string());
    SAME(-1, oxni_process_path(small, sizeof(small)));
    SAME("", small);
}

PROMISE(paths, "oxni_process_name",
        "its file name, part of the log directory's name, with its extension")
{
    char name[260] = "#";
    SAME(0, oxni_process_name(name, sizeof(name)));
    SAME(own_path().substr(own_path().rfind('/') + 1), name);
}

static uint64_t number_of(const FILETIME &time)
{
    return static_cast<uint64_t>(time.dwHighDateTime) << 32 | time.dwLowDateTime;
}

static FILETIME time_of(uint64_t number)
{
    return {static_cast<DWORD>(number), static_cast<DWORD>(number >> 32)};
}

static std::string text_of_tm(const struct tm &tm)
{
    char text[64];
    snprintf(text, sizeof(text), "%04d-%02d-%02d %02d:%02d:%02d %d", tm.tm_year + 1900,
             tm.tm_mon + 1, tm.tm_mday, tm.tm_hour, tm.tm_min, tm.tm_sec, tm.tm_wday);
    return text;
}

/* By the machine's zone, as Windows converts the same date. */
PROMISE(time, "oxni_time_stamp_to_local",
        "seconds since 1970; local time, by the zone's rules for that date")
{
    for (int64_t seconds : {INT64_C(-1), -EPOCH_SECONDS + 86400, INT64_C(951782400),
                            INT64_C(1768478400), INT64_C(1784116800)}) {
        FILETIME utc = time_of(static_cast<uint64_t>(seconds + EPOCH_SECONDS) * 10000000);
        SYSTEMTIME broken = {}, local = {};
        struct tm tm = {}, expected = {};
        FileTimeToSystemTime(&utc, &broken);
        SystemTimeToTzSpecificLocalTime(nullptr, &broken, &local);
        expected.tm_year = local.wYear - 1900;
        expected.tm_mon = local.wMonth - 1;
        expected.tm_mday = local.wDay;
        expected.tm_hour = local.wHour;
        expected.tm_min = local.wMinute;
        expected.tm_sec = local.wSecond;
        expected.tm_wday = local.wDayOfWeek;
        SAME(0, oxni_time_stamp_to_local(seconds, &tm));
        SAME(text_of_tm(expected), text_of_tm(tm));
    }
    struct tm tm;
    for (int64_t seconds : {INT64_MIN, INT64_MAX})
        SAME(-1, oxni_time_stamp_to_local(seconds, &tm));
}

PROMISE(time, "oxni_timet_to_filetime", "a *local* file time, as from FileTimeToLocalFileTime")
{
    for (int64_t seconds : {INT64_C(0), INT64_C(1768478400), INT64_C(1784116800)}) {
        FILETIME utc = time_of(static_cast<uint64_t>(seconds + EPOCH_SECONDS) * 10000000);
        FILETIME expected, local;
        FileTimeToLocalFileTime(&utc, &expected);
        oxni_timet_to_filetime(seconds, &local);
        SAME(number_of(expected), number_of(local));
    }
    FILETIME none;
    oxni_timet_to_filetime(INT64_MAX, &none);
    SAME(0, number_of(none));
}

PROMISE(time, "oxni_filetime_to_timet", "a *UTC* file time; seconds, rounded toward the past")
{
    for (int64_t second : {INT64_C(0), INT64_C(-1), -EPOCH_SECONDS, INT64_C(1768478400)})
        for (unsigned part : {0U, 1U, 9999999U}) {
            FILETIME time =
                time_of(static_cast<uint64_t>(second + EPOCH_SECONDS) * 10000000 + part);
            SAME(second, oxni_filetime_to_timet(&time));
        }
    SAME(0, oxni_filetime_to_timet(nullptr));
}

/* Checks that a sleep takes its time and delivers nothing, although a push is pending. */
static void sleeps(void (*sleep)(unsigned), unsigned argument, uint64_t ms)
{
    const uint64_t before = oxni_time_get_tick_cout();

    sleep(argument);
    const uint64_t took = oxni_time_get_tick_cout() - before;
    check_case(std::to_string(took) + " ms");
    HOLDS(took + 16 >= ms && took < ms + 2000);
}

PROMISE(time, "oxni_time", "seconds since 1970, UTC; agrees with GetSystemTime")
{
    FILETIME now;
    GetSystemTimeAsFileTime(&now);
    const int64_t seconds = oxni_filetime_to_timet(&now), seen = oxni_time();
    HOLDS(seen >= seconds && seen <= seconds + 1);
}

PROMISE(time, "oxni_time_get_tick_cout",
        "milliseconds since Windows started, 64 bits; counts time in sleep as Windows does; agrees "
        "with GetTickCount")
{
    const uint64_t before = GetTickCount64(), seen = oxni_time_get_tick_cout();
    HOLDS(seen + 16 >= before && seen <= GetTickCount64() + 16);
}

PROMISE(time, "oxni_filetime_to_timet",
        "Together with the previous operation, a tag that was just written is valid in every zone")
{
    FILETIME local, utc;
    const int64_t now = oxni_time();
    oxni_timet_to_filetime(now, &local);
    LocalFileTimeToFileTime(&local, &utc);
    SAME(now, oxni_filetime_to_timet(&utc));
}

PROMISE(time, "oxni_msleep", "10 ms between retries")
{
    sleeps(oxni_msleep, 30, 30);
}

PROMISE(time, "oxni_sleep", "1 s while a driver's service is in a pending state")
{
    sleeps(oxni_sleep, 1, 1000);
}

PROMISE(coding, "oxni_req_query_qword_w",
        "HKEY_LOCAL_MACHINE, a driver's service key, \"errortime\"; nonzero on success, only a "
        "REG_QWORD of 8 bytes")
{
    const wchar_t *const path = L"Software\\platform_check", *const name = L"v";
    static const struct {
        DWORD type, bytes;
    } rows[] = {
        {REG_QWORD,  4},
        {REG_QWORD,  9},
        {REG_BINARY, 8},
        {REG_NONE,   8}
    };
    uint64_t value = 5, stored = 0x123456789abcdef0;

    for (const auto &row : rows) {
        check_case("type " + std::to_string(row.type) + ", bytes " + std::to_string(row.bytes));
        RegSetKeyValueW(HKEY_CURRENT_USER, path, name, row.type, L"123456", row.bytes);
        SAME(0, oxni_req_query_qword_w(HKEY_CURRENT_USER, path, name, &value));
        SAME(5, value);
    }
    RegSetKeyValueW(HKEY_CURRENT_USER, path, name, REG_QWORD, &stored, sizeof(stored));
    HOLDS(oxni_req_query_qword_w(HKEY_CURRENT_USER, path, name, &value) != 0);
    SAME(stored, value);
    RegDeleteKeyW(HKEY_CURRENT_USER, path);
    SAME(0, oxni_req_query_qword_w(HKEY_CURRENT_USER, path, name, &value));
}

static std::string encoded(void (*code)(void *, size_t, const char *), std::string text,
                           size_t length, const char *key)
{
    code(text.data(), length, key);
    return text;
}

/* Calls from one thread; a platform whose mutex isn't recursive hangs. */
PROMISE(coding, "oxni_mutex_init", "one at initialisation, which fails if this fails; recursive")
{
    oxni_mutex *mutex = nullptr;

    SAME(0, oxni_mutex_init(&mutex));
    HOLDS(mutex != nullptr);
    oxni_mutex_lock(mutex);
    oxni_mutex_lock(mutex);
    oxni_mutex_unlock(mutex);
    oxni_mutex_unlock(mutex);
    oxni_mutex_destroy(mutex);
    oxni_mutex_destroy(nullptr);
}

PROMISE(coding, "oxni_uuid_create", "a new identifier for each alarm")
{
    oxni_uuid one = {}, other = {};
    SAME(0, oxni_uuid_create(&one));
    SAME(0, oxni_uuid_create(&other));
    HOLDS(memcmp(&one, &other, sizeof(one)) != 0);
}

PROMISE(coding, "oxni_uuid_make_cstr", "its text of 36 characters, lower case")
{
    const oxni_uuid uuid = {
        0x12345678, 0x9abc, 0xdef0, {1, 2, 3, 4, 5, 6, 0xfe, 0xff}
    };
    char text[37] = "#";
    SAME(-1, oxni_uuid_make_cstr(&uuid, text, 36));
    SAME("", text);
    SAME(0, oxni_uuid_make_cstr(&uuid, text, 37));
    SAME("12345678-9abc-def0-0102-03040506feff", text);
}

PROMISE(coding, "oxni_crc32_calc",
        "the recovery tag's text; CRC-32 as in zlib, which other writers of the tag use too")
{
    std::string text; /* long: some platforms sum many bytes at once */

    while (text.size() < 179)
        text += "The quick brown fox jumps over the lazy dog. ";
    SAME(0xcbf43926U, oxni_crc32_calc("123456789", 9));
    SAME(0xf4ca186aU, oxni_crc32_calc(text.data(), 179));
    SAME(0, oxni_crc32_calc("", 0));
}

PROMISE(coding, "xor_encry",
        "50 bytes of a driver's crash record and the key; each reverses the other, and the driver "
        "uses the same encoding: XOR with the repeated key")
{
    const std::string plain = "the quick brown fox", coded = "\x15\x0a\x04\x42\x10uick brown fox";
    SAME(coded, encoded(xor_encry, plain, 5, "ab"));
    SAME(plain, encoded(xor_decry, coded, 5, "ab"));
    SAME(plain, encoded(xor_encry, plain, plain.size(), ""));
}

PROMISE(coding, "oxni_dev_get_id_md5",
        "buffer of at least 33 characters; the device id as 32 lower-case hexadecimal digits")
{
    char id[33] = "#", again[64], small[32] = "#";
    SAME(0, oxni_dev_get_id_md5(id, sizeof(id)));
    SAME(0, oxni_dev_get_id_md5(again, sizeof(again)));
    SAME(32, strspn(id, "0123456789abcdef"));
    SAME(id, again);
    SAME(-1, oxni_dev_get_id_md5(small, sizeof(small)));
    SAME("", small);
}

PROMISE(coding, "oxni_dev_get_id_crc32", "a number for the same device")
{
    SAME(oxni_dev_get_id_crc32(), oxni_dev_get_id_crc32());
}
