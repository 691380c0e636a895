/* The platform as a bench needs it, and the one main program of the benches. */
#include "bench_support.h"

#include <filesystem>

#include <stdio.h>
#include <stdlib.h>
#include <windows.h>

#include "../devhost/base/text.h"
#include "../platform/liboxnibase/host.h"

/* 2024-03-07T09:00:10Z, ten seconds after the start of Windows. */
#define START_100NS   133542756100000000ULL
#define START_TICK_MS 10000

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
    std::error_code ignored; /* what is left lies in the temporary folder */

    std::filesystem::remove_all(s_folder, ignored);
}

/* Loads what an agent has loaded, gives it folders in a new one of its own, starts simulated time
 * and switches log and search for leaks off: they are not what is measured. */
static void open_platform(void)
{
    static const wchar_t *const libraries[] = {L"liboxnialgo.dll", L"liboxni_agentid.dll",
                                               L"libwdu_ejs.dll", L"libwdu_jansson.dll"};
    const char *parent = getenv("BENCH_FOLDER");
    wchar_t temp[MAX_PATH];

    for (const wchar_t *library : libraries)
        bench_require(LoadLibraryW(library) != NULL, "a library of the platform is missing");
    GetTempPathW(MAX_PATH, temp);
    s_folder = (parent != NULL ? parent : text_narrow(temp)) +
               text_format("oxni_bench-%lu-%lu", GetCurrentProcessId(), GetTickCount());
    std::replace(s_folder.begin(), s_folder.end(), '\\', '/');
    bench_require(CreateDirectoryW(text_wide(s_folder).c_str(), NULL), "no folder can be made");
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
