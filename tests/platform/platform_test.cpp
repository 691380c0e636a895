#include "platform_test.h"

#include <oxni/base/log.h>
#include <oxni/base/memory.h>
#include <oxni/base/path.h>
#include <oxni/base/str.h>

static std::string s_notes, s_complaints;
static std::vector<std::string> s_log;
static std::vector<json_t *> s_values;

static std::wstring wide(const std::string &text)
{
    wchar_t *made = oxni_str_utf8_to_unicode(text.c_str());
    std::wstring copy = made == NULL ? L"" : made;

    oxni_str_free(made);
    return copy;
}

static void remove_tree(const std::wstring &folder)
{
    WIN32_FIND_DATAW found;
    HANDLE find = FindFirstFileW((folder + L"/*").c_str(), &found);

    if (find == INVALID_HANDLE_VALUE)
        return;
    do {
        std::wstring name = found.cFileName, path = folder + L"/" + name;
        if (name == L"." || name == L"..")
            continue;
        if ((found.dwFileAttributes & FILE_ATTRIBUTE_DIRECTORY) != 0)
            remove_tree(path);
        else
            DeleteFileW(path.c_str());
    } while (FindNextFileW(find, &found));
    FindClose(find);
    RemoveDirectoryW(folder.c_str());
}

static std::string base_folder()
{
    wchar_t temp[MAX_PATH];
    char narrow[3 * MAX_PATH], resolved[3 * MAX_PATH];

    GetTempPathW(MAX_PATH, temp);
    WideCharToMultiByte(CP_UTF8, 0, temp, -1, narrow, sizeof(narrow), NULL, NULL);
    oxni_dirutils_path_transform(narrow, resolved, sizeof(resolved));
    return resolved + std::string("platform_tests_") + std::to_string(GetCurrentProcessId());
}

void platform_test::SetUp()
{
    s_notes.clear();
    s_complaints.clear();
    s_log.clear();
    remove_tree(wide(base_folder()));
    oxni_dirutils_mkdir(base_folder().c_str(), 0775);
    oxnih_clock_set_zone(NULL);
    oxnih_clock_simulate(utc_100ns(2026, 3, 1, 12, 0, 0), 1000);
    oxnih_set_complaint(
        [](const char *text, void *) {
            s_complaints += (s_complaints.empty() ? "" : "\n") + std::string(text);
        },
        NULL);
    oxnih_log_set_sink([](int, const char *line, void *) { s_log.push_back(line); }, NULL);
    oxnih_set_exit([](void *) { throw run_ended(); }, NULL);
}

void platform_test::TearDown()
{
    oxnih_memory_fail(0, 0);
    EXPECT_EQ("", complaints()) << "nobody expected this";
    for (json_t *value : s_values)
        json_decref(value);
    s_values.clear();
    oxnih_core_reset();
    oxnih_core_set_observer(NULL, NULL);
    oxnih_core_set_lenient(0);
    oxnih_log_close();
    oxnih_log_set_sink(NULL, NULL);
    oxnih_memory_set_mode(OXNIH_MEMORY_PLAIN);
    remove_tree(wide(base_folder()));
}

void platform_test::note(const std::string &text)
{
    s_notes += (s_notes.empty() ? "" : " ") + text;
}

std::string platform_test::notes()
{
    return std::exchange(s_notes, "");
}

std::string platform_test::complaints()
{
    return std::exchange(s_complaints, "");
}

std::string platform_test::logged(const std::string &text)
{
    for (const std::string &line : s_log)
        if (line.find(text) != std::string::npos)
            return line;
    return "";
}

std::string platform_test::path(const std::string &name)
{
    return base_folder() + "/" + name;
}

uint64_t utc_100ns(int year, int month, int day, int hour, int minute, int second)
{
    SYSTEMTIME date = {};
    FILETIME time = {};

    date.wYear = static_cast<WORD>(year);
    date.wMonth = static_cast<WORD>(month);
    date.wDay = static_cast<WORD>(day);
    date.wHour = static_cast<WORD>(hour);
    date.wMinute = static_cast<WORD>(minute);
    date.wSecond = static_cast<WORD>(second);
    SystemTimeToFileTime(&date, &time);
    return static_cast<uint64_t>(time.dwHighDateTime) << 32 | time.dwLowDateTime;
}

json_t *json_of(const char *text)
{
    json_t *value = json_loads(text, JSON_DECODE_ANY, NULL);

    EXPECT_NE(nullptr, value) << text;
    s_values.push_back(value);
    return value;
}

std::string file_bytes(const std::string &path)
{
    FILE *file = oxni_file_open_w(wide(path).c_str(), L"rb");
    std::string bytes;
    int next;

    if (file == NULL)
        return "(none)";
    while ((next = fgetc(file)) != EOF)
        bytes += static_cast<char>(next);
    fclose(file);
    return bytes;
}

void file_write(const std::string &path, const std::string &bytes)
{
    FILE *file = oxni_file_open_w(wide(path).c_str(), L"wb");

    ASSERT_NE(nullptr, file) << path;
    fwrite(bytes.data(), 1, bytes.size(), file);
    fclose(file);
}
