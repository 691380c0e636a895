/* Processes of this program, and the threads that wait for them. */
#include "jobs.h"

#include <stdio.h>
#include <windows.h>

#include <algorithm>
#include <mutex>
#include <thread>

#include "agent/agent.h"
#include "scenario/scenario.h"
#include "base/text.h"
#include "watch.h"

#define START_TRIES 3

void jobs_check(const std::vector<std::string> &files, const std::string &plugin_path)
{
    for (const std::string &file : files) {
        struct scenario scenario;

        scenario_load(scenario, file, {});
    }
    agent_check_plugin(plugin_path);
}

/* As the C runtime of the process takes it apart again; our arguments end in no backslash. */
static std::wstring command_line(const std::vector<std::string> &arguments)
{
    wchar_t path[1024];
    std::wstring line;

    GetModuleFileNameW(NULL, path, ARRAYSIZE(path));
    line = L"\"" + std::wstring(path) + L"\"";
    for (const std::string &argument : arguments)
        line += L" \"" + text_wide(argument) + L"\"";
    return line;
}

static std::string read_all(HANDLE pipe)
{
    std::string all;
    char part[4096];
    DWORD got = 0;

    while (ReadFile(pipe, part, sizeof(part), &got, NULL) && got > 0)
        all.append(part, got);
    return all;
}

/* Of the last call; what comes of it shows in the status, which says that there is none. */
static void complain(const char *call)
{
    fprintf(stderr, "harness: %s failed, error %lu\n", call, GetLastError());
}

/* Result: the process, its handle the caller's; NULL when it cannot be started. Where Wine's loader
 * lies at random (cmake/wine-run), one start in some ten thousand fails with ERROR_INTERNAL_ERROR,
 * before the program runs, and the next one succeeds. */
static HANDLE start(std::wstring line, HANDLE output)
{
    STARTUPINFOW startup = {};
    PROCESS_INFORMATION process = {};
    BOOL started = FALSE;

    startup.cb = sizeof(startup);
    startup.dwFlags = STARTF_USESTDHANDLES;
    startup.hStdInput = INVALID_HANDLE_VALUE;
    startup.hStdOutput = output;
    startup.hStdError = GetStdHandle(STD_ERROR_HANDLE);
    for (int i = 0; i < START_TRIES && !started; i++) {
        started =
            CreateProcessW(NULL, line.data(), NULL, NULL, TRUE, 0, NULL, NULL, &startup, &process);
        if (!started && GetLastError() != ERROR_INTERNAL_ERROR)
            break;
    }
    if (!started) {
        complain("CreateProcessW");
        return NULL;
    }
    CloseHandle(process.hThread);
    return process.hProcess;
}

unsigned jobs_run_process(const std::vector<std::string> &arguments, std::string *output)
{
    static std::mutex starting; /* else a process would inherit another one's pipe */
    SECURITY_ATTRIBUTES inherited = {sizeof(inherited), NULL, TRUE};
    HANDLE read = NULL, write = NULL;
    DWORD status = STILL_ACTIVE;
    std::unique_lock<std::mutex> lock(starting);

    if (!CreatePipe(&read, &write, &inherited, 0)) {
        complain("CreatePipe");
        return status;
    }
    SetHandleInformation(read, HANDLE_FLAG_INHERIT, 0);
    HANDLE process = start(command_line(arguments), write);
    CloseHandle(write);
    lock.unlock();
    if (process != NULL) {
        *output = read_all(read);
        if (WaitForSingleObject(process, INFINITE) != WAIT_OBJECT_0)
            complain("WaitForSingleObject");
        else if (!GetExitCodeProcess(process, &status))
            complain("GetExitCodeProcess");
        CloseHandle(process);
    }
    CloseHandle(read);
    return status;
}

/* The lines of one job, however many processes it takes. */
static void run_job(std::vector<std::string> job, std::string *lines)
{
    for (size_t size = job.size();;) {
        std::string output;
        unsigned status = jobs_run_process(job, &output);
        int64_t trial = watch_ended_in(output);

        *lines += output;
        if (status <= 1 && output.find("figures ") != std::string::npos)
            return;
        if ((status != WATCH_CRASHED && status != WATCH_HUNG) || trial < 0) {
            *lines += text_format("violation: a process ended with status %u: %s\n", status,
                                  text_narrow(command_line(job)).c_str());
            return;
        }
        *lines += "violation: it crashed or hung\n";
        job.resize(size);
        job.push_back("--from");
        job.push_back(std::to_string(trial + 1));
    }
}

static std::vector<std::string> split(const std::string &text)
{
    std::vector<std::string> lines;

    for (size_t at = 0, end; at < text.size(); at = end + 1) {
        end = std::min(text.find('\n', at), text.size());
        lines.push_back(text.substr(at, end - at));
        if (!lines.back().empty() && lines.back().back() == '\r')
            lines.back().pop_back();
        if (watch_ended_in(lines.back()) >= 0)
            lines.pop_back();
    }
    return lines;
}

std::vector<std::string> jobs_run(const std::vector<std::vector<std::string>> &jobs)
{
    std::vector<std::thread> workers;
    std::string all;
    std::mutex mutex;
    size_t next = 0;
    auto work = [&] {
        for (;;) {
            std::unique_lock<std::mutex> lock(mutex);
            if (next == jobs.size())
                return;
            const std::vector<std::string> &job = jobs[next++];
            lock.unlock();
            std::string lines;
            run_job(job, &lines);
            lock.lock();
            all += lines;
        }
    };

    for (unsigned i = 0; i < std::max(1u, std::thread::hardware_concurrency()); i++)
        workers.emplace_back(work);
    for (std::thread &worker : workers)
        worker.join();
    return split(all);
}
