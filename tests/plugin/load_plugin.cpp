/*
 * Loads, initialises and frees the plug-in repeatedly, as a restarting agent does, and measures
 * leaks: the platform's blocks, handles, and private memory of the process. With "exit", it ends
 * the process with the plug-in loaded.
 */
#include <windows.h>
#include <cstdio>

#include <array>
#include <string>

#include "liboxni_core/host.h"
#include "liboxnibase/host.h"

typedef uint64_t (*plugin_init_fn)(void);

/* Allowed growth from the tenth to the last load: noise of the heaps. */
static constexpr uint64_t NOISE_BYTES = 512;

/* What must not grow: the lowest free handle, which rises when handles leak; committed private memory;
 * live blocks of the heaps; the platform's live blocks at the end of the agent's process. */
static const char *const s_names[] = {"next handle", "private bytes", "heap bytes", "live blocks"};
typedef std::array<uint64_t, 4> usage;

static uint64_t bytes_of_heap(HANDLE heap)
{
    PROCESS_HEAP_ENTRY entry = {};
    uint64_t bytes = 0;

    while (HeapWalk(heap, &entry))
        bytes += (entry.wFlags & PROCESS_HEAP_ENTRY_BUSY) != 0 ? entry.cbData : 0;
    return bytes;
}

/* Measures handles and private bytes itself, because Wine reports 0 for both. */
static usage measure(uint64_t live_blocks)
{
    HANDLE event = CreateEventW(nullptr, TRUE, FALSE, nullptr), heaps[64];
    usage measured = {reinterpret_cast<uintptr_t>(event), 0, 0, live_blocks};
    MEMORY_BASIC_INFORMATION region;

    CloseHandle(event);
    for (char *at = nullptr; VirtualQuery(at, &region, sizeof(region)) != 0;
         at = static_cast<char *>(region.BaseAddress) + region.RegionSize)
        if (region.State == MEM_COMMIT && region.Type == MEM_PRIVATE)
            measured[1] += region.RegionSize;
    for (DWORD left = GetProcessHeaps(ARRAYSIZE(heaps), heaps); left-- > 0;)
        measured[2] += bytes_of_heap(heaps[left]);
    return measured;
}

/* Prints both. Result: whether the plug-in leaks. */
static bool grows(const usage &early, const usage &late)
{
    bool grown = false;

    for (size_t i = 0; i < late.size(); i++) {
        printf("%s: %llu -> %llu\n", s_names[i], static_cast<unsigned long long>(early[i]),
               static_cast<unsigned long long>(late[i]));
        grown |= early[i] == 0 || late[i] > early[i] + (i == 1 || i == 2 ? NOISE_BYTES : 0);
    }
    return grown;
}

/* Returns an error text, or NULL on success. live_blocks receives the platform's live blocks at the
 * end of the agent's process. The plug-in keeps its table, store and timers until then, so the
 * number is the same for each load. */
static const char *load_once(uint64_t *live_blocks)
{
    HMODULE plugin = LoadLibraryW(L"libbypass_mgr.dll");
    oxnih_memory_stats stats;
    plugin_init_fn init;

    if (plugin == nullptr)
        return "cannot be loaded";
    init = reinterpret_cast<plugin_init_fn>(
        reinterpret_cast<void *>(GetProcAddress(plugin, "oxni_plugin_init")));
    if (init == nullptr || init() != 0)
        return "has no entry point, or its entry point did not return 0";
    if (oxnih_core_run_until(60000) != 0)
        return "failed in its first minute";
    oxnih_memory_get_stats(&stats);
    *live_blocks = stats.live_blocks;
    oxnih_core_reset();
    if (!FreeLibrary(plugin) || GetModuleHandleW(L"libbypass_mgr.dll") != nullptr)
        return "did not unload";
    oxnih_log_close();
    oxnih_memory_drop_all();
    return nullptr;
}

/* The C++ runtime's emergency pool for exceptions has about 70 KB; other blocks that a module frees
 * are smaller. */
static constexpr int POOL_BYTES = 60000;

/* Replaces free in the plug-in while the process ends. Freeing the pool then would be an error: a
 * terminated thread may still hold the heap's lock. */
static void free_at_exit(void *block)
{
    if (block != nullptr && _msize(block) > POOL_BYTES)
        TerminateProcess(GetCurrentProcess(), 3);
}

/* Replaces an imported function of a module. Returns whether the module imports it. */
static bool replace_import(HMODULE module, const char *name, void *function)
{
    uint8_t *base = reinterpret_cast<uint8_t *>(module);
    const IMAGE_NT_HEADERS *headers = reinterpret_cast<IMAGE_NT_HEADERS *>(
        base + reinterpret_cast<IMAGE_DOS_HEADER *>(base)->e_lfanew);
    const IMAGE_DATA_DIRECTORY &table =
        headers->OptionalHeader.DataDirectory[IMAGE_DIRECTORY_ENTRY_IAT];
    void **entry = reinterpret_cast<void **>(base + table.VirtualAddress);
    void *real = reinterpret_cast<void *>(GetProcAddress(GetModuleHandleW(L"msvcrt.dll"), name));
    DWORD protection;

    for (DWORD index = 0; index < table.Size / sizeof(*entry); index++, entry++) {
        if (*entry != real)
            continue;
        VirtualProtect(entry, sizeof(*entry), PAGE_READWRITE, &protection);
        *entry = function;
        return true;
    }
    return false;
}

/* Leaves the plug-in loaded. The process exits with status 3 if the plug-in frees its pool at the
 * end. */
static int leave_loaded(void)
{
    HMODULE plugin = LoadLibraryW(L"libbypass_mgr.dll");

    if (plugin == nullptr ||
        !replace_import(plugin, "free", reinterpret_cast<void *>(free_at_exit))) {
        fprintf(stderr, "the plug-in cannot be loaded, or does not import free\n");
        return 2;
    }
    return 0;
}

/* Loads the platform as an agent does, so that unloading the plug-in does not unload it. */
static void load_platform(void)
{
    for (const wchar_t *library : {PLATFORM_DLLS})
        LoadLibraryW(library);
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
    int times = argc > 1 ? static_cast<int>(wcstol(argv[1], nullptr, 10)) : 0;
    usage early = {};
    uint64_t blocks = 0;

    if (argc > 1 && wcscmp(argv[1], L"exit") == 0)
        return leave_loaded();
    if (times < 20) {
        fprintf(stderr, "usage: load_plugin TIMES, at least 20; or load_plugin exit\n");
        return 2;
    }
    load_platform();
    use_temporary_folder();
    oxnih_log_set_level(-1); /* the log file must not be part of the measurement */
    for (int i = 0; i < times; i++) {
        oxnih_clock_simulate(133542540000000000ull, 10000);
        if (const char *wrong = load_once(&blocks)) {
            fprintf(stderr, "load %d: the plug-in %s\n", i + 1, wrong);
            return 1;
        }
        if (i == 9)
            early = measure(blocks);
    }
    if (grows(early, measure(blocks))) {
        fprintf(stderr, "the plug-in leaks: these values must not grow\n");
        return 1;
    }
    return 0;
}
