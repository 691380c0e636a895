/* Processes of this program, and threads that wait for them. */
#include "jobs.h"

#include <inttypes.h>
#include <cstdio>
#include <windows.h>

#include <algorithm>
#include <chrono>
#include <condition_variable>
#include <mutex>
#include <sstream>
#include <thread>

#include "agent/agent.h"
#include "base/terminal.h"
#include "scenario/scenario.h"
#include "play/load.h"
#include "base/text.h"
#include "watch.h"

static constexpr int START_TRIES = 3;
/* Jobs of one file: so many that the processors finish at about the same time. */
static constexpr size_t PARTS = static_cast<size_t>(4);
static constexpr std::chrono::milliseconds PROGRESS_EVERY(500);

bool jobs_is_mine(const struct job_options &options, uint64_t index)
{
    return index >= options.from && index % options.every == 0 &&
           (options.parts == 0 || index / options.every % options.parts == options.part);
}

/* Quoted for the C runtime of the process; none of our arguments ends in a backslash. */
static std::wstring command_line(const std::vector<std::string> &arguments)
{
    wchar_t path[1024];
    std::wstring line;

    GetModuleFileNameW(nullptr, path, ARRAYSIZE(path));
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

    while (ReadFile(pipe, part, sizeof(part), &got, nullptr) && got > 0)
        all.append(part, got);
    return all;
}

/* Reports the last call's error; the caller returns STILL_ACTIVE as the status. */
static void complain(const char *call)
{
    fprintf(stderr, "harness: %s failed, error %lu\n", call, GetLastError());
}

/* Result: the process, its handle owned by the caller; NULL when it cannot be started. Where Wine's
 * loader has a random address (cmake/wine-run), one start in some ten thousand fails with
 * ERROR_INTERNAL_ERROR before the program runs, and the next one succeeds. */
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
        const std::lock_guard<std::mutex> lock(terminal_interrupt_mutex());

        started = CreateProcessW(nullptr, line.data(), nullptr, nullptr, TRUE, 0, nullptr, nullptr,
                                 &startup, &process);
        if (!started && GetLastError() != ERROR_INTERNAL_ERROR)
            break;
    }
    if (!started) {
        complain("CreateProcessW");
        return nullptr;
    }
    CloseHandle(process.hThread);
    return process.hProcess;
}

unsigned jobs_run_process(const std::vector<std::string> &arguments, std::string *output)
{
    static std::mutex starting; /* a process must not inherit another one's pipe */
    SECURITY_ATTRIBUTES inherited = {sizeof(inherited), nullptr, TRUE};
    HANDLE read = nullptr, write = nullptr;
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
    if (process != nullptr) {
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

/* The lines of one job. A process that crashed or hung is followed by one from the next trial on. */
static std::string run_job(std::vector<std::string> job)
{
    std::string lines;
    int64_t last = -1;

    for (size_t size = job.size();;) {
        std::string output;
        unsigned status = jobs_run_process(job, &output);
        int64_t trial = watch_ended_in(output);

        lines += output;
        if (status <= 1 && output.find("counts ") != std::string::npos)
            return lines;
        if ((status != WATCH_CRASHED && status != WATCH_HUNG) || trial <= last)
            return lines + text_format("violation: a process ended with status %u: %s\n", status,
                                       text_narrow(command_line(job)).c_str());
        lines += "violation: the process crashed or hung\n";
        last = trial;
        job.resize(size);
        job.push_back("--from");
        job.push_back(std::to_string(trial + 1));
    }
}

/* What all jobs have printed so far. */
struct totals {
    std::vector<uint64_t> counts;
    uint64_t violations;
};

static void print_lines(const std::string &text, totals &totals)
{
    std::istringstream stream(text);
    std::string line, first;

    while (std::getline(stream, line)) {
        if (!line.empty() && line.back() == '\r')
            line.pop_back();
        std::istringstream fields(line);
        if (watch_ended_in(line) >= 0)
            continue;
        totals.violations += line.rfind("violation:", 0) == 0;
        if (line.rfind("counts ", 0) != 0) {
            printf("%s\n", line.c_str());
            continue;
        }
        fields >> first;
        for (uint64_t &count : totals.counts) {
            uint64_t more = 0;

            fields >> more;
            count += more;
        }
    }
    fflush(stdout);
}

/* However this process ends, Windows ends the processes that it and they have started: a process that
 * has just started does not notice Ctrl-C, and would go on. */
static void end_with_me(void)
{
    JOBOBJECT_EXTENDED_LIMIT_INFORMATION limits = {};
    const HANDLE job = CreateJobObjectW(nullptr, nullptr); /* stays open to the end */

    limits.BasicLimitInformation.LimitFlags = JOB_OBJECT_LIMIT_KILL_ON_JOB_CLOSE;
    if (!SetInformationJobObject(job, JobObjectExtendedLimitInformation, &limits, sizeof(limits)))
        complain("SetInformationJobObject");
    else if (!AssignProcessToJobObject(job, GetCurrentProcess()))
        complain("AssignProcessToJobObject");
}

static void run_all(const std::vector<std::vector<std::string>> &jobs, totals &totals)
{
    std::vector<std::thread> workers;
    std::mutex mutex;
    std::condition_variable ended;
    size_t next = 0, done = 0;
    auto work = [&] {
        std::unique_lock<std::mutex> lock(mutex);

        while (next < jobs.size()) {
            const std::vector<std::string> &job = jobs[next++];

            lock.unlock();
            std::string lines = run_job(job);
            lock.lock();
            terminal_progress_end();
            print_lines(lines, totals);
            done++;
            ended.notify_one();
        }
    };

    for (unsigned i = 0; i < std::max(1u, std::thread::hardware_concurrency()); i++)
        workers.emplace_back(work);
    for (std::unique_lock<std::mutex> lock(mutex); done < jobs.size();) {
        terminal_progress(jobs.front().front() +
                          text_format(": %u of %s", static_cast<unsigned>(done),
                                      text_count(jobs.size(), "part").c_str()));
        (void)ended.wait_for(lock, PROGRESS_EVERY);
    }
    terminal_progress_end();
    for (std::thread &worker : workers)
        worker.join();
}

static std::vector<std::vector<std::string>> jobs_of(const struct job_options &options,
                                                     const std::vector<std::string> &command)
{
    std::vector<std::vector<std::string>> jobs;

    for (const std::string &file : options.files)
        for (size_t part = 0; part < PARTS; part++) {
            jobs.push_back(command);
            for (const std::string &argument :
                 {file, std::string("--plugin"), options.plugin_path, std::string("--place"),
                  options.place, std::string("--every"), std::to_string(options.every),
                  std::string("--from"), std::to_string(options.from), std::string("--part"),
                  std::to_string(part), std::string("--parts"), std::to_string(PARTS)})
                jobs.back().push_back(argument);
        }
    return jobs;
}

int jobs_run(const struct job_options &options, const std::vector<std::string> &command,
             const std::vector<std::string> &columns)
{
    totals totals = {std::vector<uint64_t>(columns.size()), 0};
    ULONGLONG began = GetTickCount64();

    for (const std::string &file : options.files) {
        struct scenario scenario;

        scenario_load(scenario, file, {});
    }
    agent_check_plugin(options.plugin_path);
    end_with_me();
    run_all(jobs_of(options, command), totals);
    printf("%-12s", "");
    for (const std::string &column : columns)
        printf(" %12s", column.c_str());
    printf(" %12s %9s\n%-12s", "violations", "seconds", command.back().c_str());
    for (uint64_t count : totals.counts)
        printf(" %12" PRIu64, count);
    printf(" %12" PRIu64 " %9.1f\n", totals.violations,
           static_cast<double>(GetTickCount64() - began) / 1000.0);
    return totals.violations == 0 ? EXIT_ALL_HOLD : EXIT_EXPECTATION_FAILED;
}

int jobs_end(const std::vector<uint64_t> &counts, uint64_t violations)
{
    printf("counts");
    for (uint64_t count : counts)
        printf(" %" PRIu64, count);
    printf("\n");
    fflush(stdout);
    return violations == 0 ? EXIT_ALL_HOLD : EXIT_EXPECTATION_FAILED;
}
