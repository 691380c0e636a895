/*
 * A minimal host: loads the plug-in on the reference platform, registers a product, queries the
 * state of all products on the debug console and prints the output. It needs only the package and
 * runs in its bin directory; docs/package.md contains the commands.
 */
#include <windows.h>
#include <cstdio>

#include <liboxni_core/host.h>
#include <liboxnibase/host.h>
#include <oxni/base/json.h>
#include <oxni/base/subscriber.h>

typedef uint64_t (*plugin_init_fn)(void);

static constexpr uint64_t NOON_2024_03_07_100NS = 133543008000000000u;

static void print_event(const oxnih_event *event, void *user)
{
    (void)user;
    if (event->kind == OXNIH_EVENT_ECHO)
        printf("the console says: %s\n", event->text);
    if (event->kind == OXNIH_EVENT_REFUSED)
        printf("refused: %s\n", event->text);
}

static void product_callback(oxni_subscriber *subscriber, uint32_t event, void *arg,
                             json_t *message)
{
    const char *command = json_string_value(json_object_get(message, "type"));

    (void)arg;
    printf("%s %s\n", oxni_subscriber_get_attr(subscriber)->name,
           event == 0           ? "is registered"
           : command == nullptr ? "got a message"
                                : command);
}

/* Creates the directories of the run below the current one; the plug-in writes only there. */
static void make_folders(void)
{
    char folder[MAX_PATH];

    (void)CreateDirectoryW(L"run", nullptr);
    (void)CreateDirectoryW(L"run\\agent", nullptr);
    (void)GetFullPathNameA("run\\agent", sizeof(folder), folder, nullptr);
    oxnih_set_install_dir(folder);
    (void)GetFullPathNameA("run", sizeof(folder), folder, nullptr);
    oxnih_set_log_dir(folder);
}

static int start_plugin(void)
{
    HMODULE plugin = LoadLibraryW(L"libbypass_mgr.dll");
    plugin_init_fn init;

    if (plugin == nullptr)
        return -1;
    init = reinterpret_cast<plugin_init_fn>(
        reinterpret_cast<void *>(GetProcAddress(plugin, "oxni_plugin_init")));
    return init == nullptr || init() != 0 ? -1 : 0;
}

int main(void)
{
    static const oxni_subscriber_attr guard = {"example", "guard", nullptr};
    json_t *registration =
        json_loads("{\"product_name\": \"guard\", \"type\": \"reg\", \"status\": \"working\", "
                   "\"count\": 3, \"data\": {\"driver_module\": [\"guard_flt\"]}}",
                   0, nullptr);
    oxni_subscriber *product = oxni_subscriber_new(&guard);

    make_folders();
    oxnih_clock_simulate(NOON_2024_03_07_100NS, 10000);
    oxnih_core_set_observer(print_event, nullptr);
    if (start_plugin() != 0) {
        fprintf(stderr, "registration: libbypass_mgr.dll cannot be started\n");
        return 1;
    }
    if (oxni_subscriber_subscribe(product, "bypass_mgr", registration, product_callback) != 0)
        return 1;
    (void)oxnih_core_run_until(oxnih_clock_tick_ms() + 1000);
    oxnih_dbg_run("oxni", "bypass -p");
    (void)oxnih_core_run_until(oxnih_clock_tick_ms() + 1000);
    oxnih_dbg_run("oxni", "bypass -r");
    (void)oxnih_core_run_until(oxnih_clock_tick_ms() + 1000);
    json_decref(registration);
    oxni_subscriber_delete(product);
    return 0;
}
