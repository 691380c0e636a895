/* The platform's set-up for benchmarks, and their main program. */
#include "bench_support.h"

#include <filesystem>

#include <cstdio>
#include <cstdlib>
#include <windows.h>

#include "../devhost/base/text.h"
#include "../platform/liboxnibase/host.h"

/* 2024-03-07T09:00:10Z, ten seconds after the start of Windows. */
static constexpr uint64_t START_100NS = 133542756100000000ULL;
static constexpr int START_TICK_MS = 10000;

static std::string s_folder;

void bench_require(bool condition, const char *what)
{
    if (condition)
        return;
    fprintf(stderr, "bench: %s\n", what);
    exit(1);
}

const std::string &bench_folder(void)
{
    return s_folder;
}

static void remove_files(void)
{
    std::error_code ignored; /* remaining files are in the temporary directory */

    std::filesystem::remove_all(s_folder, ignored);
}

/* Loads the libraries of an agent, creates its directories and starts simulated time. Disables the
 * log and the search for allocation sites, which must not be measured. */
static void open_platform(void)
{
    const char *parent = getenv("BENCH_FOLDER");
    wchar_t temp[MAX_PATH];

    for (const wchar_t *library : {PLATFORM_DLLS})
        bench_require(LoadLibraryW(library) != nullptr, "a library of the platform is missing");
    GetTempPathW(MAX_PATH, temp);
    s_folder = (parent != nullptr ? parent : text_narrow(temp)) +
               text_format("oxni_bench-%lu-%lu", GetCurrentProcessId(), GetTickCount());
    std::replace(s_folder.begin(), s_folder.end(), '\\', '/');
    bench_require(CreateDirectoryW(text_wide(s_folder).c_str(), nullptr),
                  "the directory of this run cannot be created");
    atexit(remove_files);
    oxnih_set_install_dir((s_folder + "/bin").c_str());
    oxnih_set_process_path((s_folder + "/bin/oxni_agent.exe").c_str());
    oxnih_set_log_dir((s_folder + "/base").c_str());
    oxnih_log_set_level(-1);
    oxnih_memory_find_sites(0); /* as the development host does */
    oxnih_clock_simulate(START_100NS, START_TICK_MS);
}

int main(int argc, char **argv)
{
    benchmark::Initialize(&argc, argv);
    if (benchmark::ReportUnrecognizedArguments(argc, argv))
        return 2;
    open_platform();
    benchmark::RunSpecifiedBenchmarks();
    return 0;
}
