/* Benchmarks of the shipped DLL: loading it, its memory use, and whole boots. */
#include "bench_support.h"

#include <cstdio>
#include <windows.h>

#include <oxni/base/subscriber.h>

#include "../devhost/base/text.h"
#include "../devhost/calls/calls.h"
#include "../devhost/machine/machine_open.h"
#include "../devhost/play/load.h"
#include "../devhost/play/play.h"
#include "../platform/liboxni_core/host.h"
#include "../platform/liboxnibase/host.h"

static constexpr int PRODUCTS = 10;
static constexpr int BOOTS_A_SERIES =
    50; /* boots of one scenario, which keeps the events of all its boots */

typedef uint64_t (*plugin_init_fn)(void);

static HMODULE load(const wchar_t *name)
{
    HMODULE library = LoadLibraryW(name);

    bench_require(library != nullptr, "a DLL cannot be loaded");
    return library;
}

static void call_entry(HMODULE plugin)
{
    plugin_init_fn entry = reinterpret_cast<plugin_init_fn>(
        reinterpret_cast<void *>(GetProcAddress(plugin, "oxni_plugin_init")));

    bench_require(entry != nullptr && entry() == 0, "the entry is missing or failed");
}

/* Ends the agent's process: drops the plug-in's state in the platform. */
static void forget_agent(void)
{
    oxnih_core_reset();
    oxnih_log_close();
    oxnih_memory_drop_all();
}

static void load_init_free(benchmark::State &state)
{
    bench_pair pair(state);

    /* The machine replaces Wine's process list and service manager, which would dominate the
     * time. */
    machine_open(text_wide(text_replace(bench_folder(), "/", "\\")));
    machine_boot(oxnih_clock_now_100ns());
    for (auto _ : state) {
        const bench_moment begin = bench_now();
        FreeLibrary(load(L"empty_plugin.dll"));
        const bench_moment loading = bench_now();
        HMODULE plugin = load(L"libbypass_mgr.dll");
        const bench_moment loaded = bench_now();
        calls_patch(plugin, machine_stand_in);
        const bench_moment patched = bench_now();
        call_entry(plugin);
        const bench_moment initialised = bench_now();
        oxnih_core_reset(); /* its timers must not outlive its code */
        const bench_moment freeing = bench_now();
        FreeLibrary(plugin);
        const bench_moment freed = bench_now();
        pair.add(1, loading - begin,
                 (loaded - loading) + (initialised - patched) + (freed - freeing));
        forget_agent();
    }
}
BENCHMARK(load_init_free)->UseManualTime();

/* Counts the private bytes by region, because Wine reports 0 for a process's private bytes. */
static uint64_t private_bytes(void)
{
    MEMORY_BASIC_INFORMATION region;
    uint64_t bytes = 0;

    for (char *at = nullptr; VirtualQuery(at, &region, sizeof(region)) != 0;
         at = static_cast<char *>(region.BaseAddress) + region.RegionSize)
        if (region.State == MEM_COMMIT && region.Type == MEM_PRIVATE)
            bytes += region.RegionSize;
    return bytes;
}

static void take_message(oxni_subscriber *, uint32_t, void *, json_t *)
{
}

static void register_product(int number)
{
    const std::string name = "product_" + std::to_string(number);
    const oxni_subscriber_attr attr = {"bench", name.c_str(), nullptr};
    const std::string text =
        text_format("{\"product_name\":\"%s\",\"type\":\"reg\",\"status\":\"working\",\"count\":1,"
                    "\"data\":{\"driver_module\":[\"%s_a\",\"%s_b\"]}}",
                    name.c_str(), name.c_str(), name.c_str());
    json_t *message = json_loads(text.c_str(), 0, nullptr);

    bench_require(oxni_subscriber_subscribe(oxni_subscriber_new(&attr), "bypass_mgr", message,
                                            take_message) == 0,
                  "a product cannot subscribe");
    json_decref(message);
}

/* Must be the only benchmark of its process: memory that another one freed would be reused. */
static void memory_of_ten_products(benchmark::State &state)
{
    for (auto _ : state) {
        HMODULE empty = load(L"empty_plugin.dll");
        const uint64_t without = private_bytes();
        FreeLibrary(empty);
        call_entry(load(L"libbypass_mgr.dll"));
        for (int number = 0; number < PRODUCTS; number++)
            register_product(number);
        bench_require(oxnih_core_run_until(oxnih_clock_tick_ms()) == 0, "a callback failed");
        state.counters["bytes"] = static_cast<double>(private_bytes() - without);
    }
}
BENCHMARK(memory_of_ten_products)->Iterations(1);

/* Writes a scenario of boots with two products and clean shutdowns. Returns its path. */
static std::string scenario_file(void)
{
    std::string path = bench_folder() + "/boots.json";
    std::string boots;

    for (int boot = 0; boot < BOOTS_A_SERIES; boot++)
        boots += boot == 0 ? "{\"until\": 100}" : ", {\"until\": 100}";
    FILE *file = fopen(path.c_str(), "wb");
    bench_require(file != nullptr, "the scenario cannot be written");
    fprintf(file,
            "{\"products\": {\"guard\": {\"modules\": [\"guard_flt\", \"guard_net\"]}, "
            "\"vault\": {\"modules\": [\"vault_fs\"]}}, \"boots\": [%s]}",
            boots.c_str());
    fclose(file);
    return path;
}

static std::string plugin_path(void)
{
    wchar_t path[MAX_PATH] = L"";

    HMODULE plugin = load(L"libbypass_mgr.dll");
    GetModuleFileNameW(plugin, path, MAX_PATH);
    FreeLibrary(plugin);
    return text_narrow(path);
}

static void boot(benchmark::State &state)
{
    struct scenario scenario;
    const struct play_options options = {text_replace(bench_folder(), "/", "\\"), plugin_path(),
                                         false, false};
    bench_pair pair(state);

    scenario_load(scenario, scenario_file(), {});
    for (auto _ : state) {
        play_open(scenario, options);
        for (int number = 0; number < BOOTS_A_SERIES; number++) {
            const bench_moment begin = bench_now();
            FreeLibrary(load(L"libbypass_mgr.dll"));
            const bench_moment middle = bench_now();
            bench_require(play_begin_boot(), "a boot is missing");
            play_run_until(play_boot_end_ms());
            play_end_boot();
            pair.add(1, middle - begin, bench_now() - middle);
        }
        bench_require(play_close().empty(), "a boot failed");
    }
}
BENCHMARK(boot)->Iterations(4)->UseManualTime();
