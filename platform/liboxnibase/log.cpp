/* The process's log, complaints, and the end of the process. The host's thread. */
#include "base.h"

#include <algorithm>
#include <cstdarg>
#include <cstdio>
#include <cstring>
#include <utility>
#include <vector>

#include <oxni/base/log.h>
#include <oxni/base/path.h>
#include <oxni/base/time.h>

struct log_state {
    bool open = false; /* oxni_autolog_init was called, even if the file could not be opened */
    HANDLE file = INVALID_HANDLE_VALUE;
    int level = OXNI_LOG_INFO;
    oxnih_log_sink_fn sink = nullptr;
    void *sink_user = nullptr;
    oxnih_complaint_fn complaint = nullptr;
    void *complaint_user = nullptr;
    oxnih_exit_fn exit = nullptr;
    void *exit_user = nullptr;
    bool exit_taken = false;
};

static log_state s_log;

void oxnih_log_set_sink(oxnih_log_sink_fn sink, void *user)
{
    s_log.sink = sink;
    s_log.sink_user = user;
}

void oxnih_log_set_level(int level)
{
    s_log.level = level;
}

int oxni_log_level_get(void)
{
    return s_log.level;
}

int oxni_log_is_regestered(void)
{
    return s_log.open;
}

void oxni_log_output(int level, const char *format, ...)
{
    va_list arguments;
    DWORD written;

    va_start(arguments, format);
    std::string line = log_format(format, arguments);
    va_end(arguments);
    if (line.empty() || line.back() != '\n')
        line += '\n';
    if (s_log.file != INVALID_HANDLE_VALUE)
        /* A full disk must not stop the agent, and there is no other place to report it. */
        (void)WriteFile(s_log.file, line.data(), static_cast<DWORD>(line.size()), &written,
                        nullptr);
    if (s_log.sink != nullptr)
        s_log.sink(level, line.c_str(), s_log.sink_user);
}

/* Returns whether the log created a file of that name, YYYYMMDD-HHMMSS.log. The directory may
 * contain other files. */
static bool is_log_name(const std::wstring &name)
{
    static const std::wstring form = L"00000000-000000.log";

    if (name.size() != form.size())
        return false;
    for (size_t i = 0; i < form.size(); i++)
        if (form[i] == L'0' ? (name[i] < L'0' || name[i] > L'9') : name[i] != form[i])
            return false;
    return true;
}

/* Deletes the oldest log files of a directory so that at most keep remain. File names are creation
 * times, so sorting by name sorts by age. */
static void remove_oldest(const std::wstring &folder, size_t keep)
{
    std::vector<std::wstring> names;
    WIN32_FIND_DATAW found;
    HANDLE find = FindFirstFileW((folder + L"*-*.log").c_str(), &found);

    if (find == INVALID_HANDLE_VALUE)
        return;
    do {
        if (is_log_name(found.cFileName))
            names.push_back(found.cFileName);
    } while (FindNextFileW(find, &found));
    FindClose(find);
    std::sort(names.begin(), names.end());
    for (size_t i = 0; i + keep < names.size(); i++)
        (void)DeleteFileW((folder + names[i]).c_str()); /* if in use, the next start retries */
}

static HANDLE open_log_file(const char *directory, int files)
{
    std::string folder;
    std::wstring wide;
    struct tm now;
    char name[64];

    if (!path_resolve(directory, &folder))
        return INVALID_HANDLE_VALUE;
    if (folder.back() != '/')
        folder += '/';
    if (oxni_dirutils_mkdir(folder.c_str(), 0775) != 0)
        return INVALID_HANDLE_VALUE;
    (void)oxni_time_stamp_to_local(oxni_time(), &now); /* on failure, zeros are a usable name */
    snprintf(name, sizeof(name), "%04d%02d%02d-%02d%02d%02d.log", now.tm_year + 1900,
             now.tm_mon + 1, now.tm_mday, now.tm_hour, now.tm_min, now.tm_sec);
    if (!str_to_wide(folder.c_str(), &wide))
        return INVALID_HANDLE_VALUE;
    remove_oldest(wide, static_cast<size_t>(std::max(files, 1)) - 1);
    return CreateFileW((wide + std::wstring(name, name + strlen(name))).c_str(), FILE_APPEND_DATA,
                       FILE_SHARE_READ | FILE_SHARE_WRITE | FILE_SHARE_DELETE, nullptr, OPEN_ALWAYS,
                       FILE_ATTRIBUTE_NORMAL, nullptr);
}

int oxni_autolog_init(const char *directory, int files)
{
    if (s_log.open)
        return 0;
    s_log.open = true;
    if (directory != nullptr)
        s_log.file = open_log_file(directory, files);
    return s_log.file == INVALID_HANDLE_VALUE ? -1 : 0;
}

void oxnih_log_close(void)
{
    if (s_log.file != INVALID_HANDLE_VALUE)
        CloseHandle(s_log.file);
    s_log.file = INVALID_HANDLE_VALUE;
    s_log.open = false;
}

void oxnih_set_complaint(oxnih_complaint_fn fn, void *user)
{
    s_log.complaint = fn;
    s_log.complaint_user = user;
}

void oxnih_complain(const char *format, ...)
{
    va_list arguments;

    va_start(arguments, format);
    const std::string text = log_format(format, arguments);
    va_end(arguments);
    if (s_log.complaint != nullptr)
        s_log.complaint(text.c_str(), s_log.complaint_user);
    else
        fprintf(stderr, "platform: %s\n", text.c_str());
}

void oxnih_set_exit(oxnih_exit_fn fn, void *user)
{
    s_log.exit = fn;
    s_log.exit_user = user;
}

int oxnih_exit_taken(void)
{
    return std::exchange(s_log.exit_taken, false);
}

void log_end_process(unsigned exit_code)
{
    oxnih_log_close();
    s_log.exit_taken = true;
    if (s_log.exit != nullptr)
        s_log.exit(s_log.exit_user);
    ExitProcess(exit_code);
}
