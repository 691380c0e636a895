/*
 * Loads, initialises and frees the plug-in again and again, as an agent that restarts does, and
 * looks at what is left: blocks of the platform, handles, and memory of the process.
 */
#include <windows.h>
#include <psapi.h>
#include <stdio.h>

#include <string>

#include "liboxni_core/host.h"
#include "liboxnibase/host.h"

typedef uint64_t (*plugin_init_fn)(void);

/* Growth of private bytes from the tenth load to the last that is noise of the heap. */
#define NOISE_BYTES (256u * 1024u)

struct usage {
    DWORD handles;
    SIZE_T private_bytes;
};

static usage measure(void)
{
    PROCESS_MEMORY_COUNTERS_EX memory = {};
    usage usage = {};

    memory.cb = sizeof(memory);
    GetProcessMemoryInfo(GetCurrentProcess(), reinterpret_cast<PROCESS_MEMORY_COUNTERS *>(&memory),
                         sizeof(memory));
    usage.private_bytes = memory.PrivateUsage;
    GetProcessHandleCount(GetCurrentProcess(), &usage.handles);
    return usage;
}

/* Result: what went wrong; NULL when nothing did. */
static const char *load_once(void)
{
    HMODULE plugin = LoadLibraryW(L"libbypass_mgr.dll");
    oxnih_memory_stats stats;
    plugin_init_fn init;

    if (plugin == NULL)
        return "cannot be loaded";
    init = reinterpret_cast<plugin_init_fn>(
        reinterpret_cast<void *>(GetProcAddress(plugin, "oxni_plugin_init")));
    if (init == NULL || init() != 0)
        return "has no entry, or that did not answer 0";
    if (oxnih_core_run_until(60000) != 0)
        return "did not survive its first minute";
    oxnih_core_reset();
    if (!FreeLibrary(plugin) || GetModuleHandleW(L"libbypass_mgr.dll") != NULL)
        return "did not unload";
    oxnih_log_close();
    oxnih_memory_drop_all();
    oxnih_memory_get_stats(&stats);
    return stats.live_blocks == 0 ? NULL : "left blocks behind";
}

static void use_temporary_folder(void)
{
    wchar_t temp[MAX_PATH];
    char folder[3 * MAX_PATH];

    GetTempPathW(MAX_PATH, temp);
    snprintf(folder, sizeof(folder), "%ls/oxni_load_plugin-%lu", temp, GetCurrentProcessId());
    oxnih_set_install_dir((std::string(folder) + "/bin").c_str());
    oxnih_set_process_path((std::string(folder) + "/bin/oxni_agent.exe").c_str());
    oxnih_set_log_dir((std::string(folder) + "/base").c_str());
}

int wmain(int argc, wchar_t **argv);

int wmain(int argc, wchar_t **argv)
{
    int times = argc > 1 ? static_cast<int>(wcstol(argv[1], NULL, 10)) : 0;
    usage early = {}, late;

    if (times < 20) {
        fprintf(stderr, "usage: load_plugin TIMES, at least 20\n");
        return 2;
    }
    use_temporary_folder();
    oxnih_log_set_level(-1); /* the log's file is not what is measured */
    for (int i = 0; i < times; i++) {
        oxnih_clock_simulate(133542540000000000ull, 10000);
        if (const char *wrong = load_once()) {
            fprintf(stderr, "load %d: the plug-in %s\n", i + 1, wrong);
            return 1;
        }
        if (i == 9)
            early = measure();
    }
    late = measure();
    printf("%d loads: handles %lu -> %lu, private bytes %llu -> %llu\n", times, early.handles,
           late.handles, static_cast<unsigned long long>(early.private_bytes),
           static_cast<unsigned long long>(late.private_bytes));
    if (late.handles > early.handles || late.private_bytes > early.private_bytes + NOISE_BYTES) {
        fprintf(stderr, "it grew\n");
        return 1;
    }
    return 0;
}
