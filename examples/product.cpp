/*
 * What a platform team writes around the plug-in: a product that registers, answers orders and keeps
 * its status in a file, and the management side that takes the reports. Built against the package
 * alone; docs/host.md walks through it.
 *
 * Run it twice. The first run starts as if an earlier boot had ordered the product into bypass: the
 * report goes out, and "bypass -r" on the console lets the product recover. The second run finds
 * the recovered status in the file.
 */
#include <windows.h>

#include <cstdio>
#include <cstring>

#include <liboxni_core/host.h>
#include <liboxnibase/host.h>
#include <oxni/base/json.h>
#include <oxni/base/subscriber.h>

typedef uint64_t (*plugin_init_fn)(void);

static constexpr uint64_t NOON_2024_03_07_100NS = 133543008000000000u;
static constexpr char STATUS_FILE[] = "run\\guard.txt";
static constexpr char LINK_PATH[] = "/:broadcast/dbg/oxni/quality_opr";
static constexpr char UPLOAD_PATH[] = "/oxni/quality_opr";

/* What the product must remember over restarts: a driver in bypass stays out of the kernel, also
 * after the next boot, until an order lets it recover. */
static struct product {
    oxni_subscriber *handle;
    char status[16]; /* "working" or "bypass" */
    int count;       /* crashes that it tolerates; orders "set_count" change it */
} s_guard = {nullptr, "bypass", 2};

/* 1. The status survives a crash: written to a new file that replaces the old one. */
static bool save_status(void)
{
    FILE *file = fopen("run\\guard.new", "w");

    if (file == nullptr)
        return false;
    const bool written = fprintf(file, "%s %d\n", s_guard.status, s_guard.count) > 0;
    if (fclose(file) != 0 || !written)
        return false;
    return MoveFileExA("run\\guard.new", STATUS_FILE,
                       MOVEFILE_REPLACE_EXISTING | MOVEFILE_WRITE_THROUGH) != 0;
}

static void load_status(void)
{
    FILE *file = fopen(STATUS_FILE, "r");

    if (file == nullptr)
        return; /* the first run */
    if (fscanf(file, "%15s %d", s_guard.status, &s_guard.count) != 2)
        printf("guard: %s is damaged, the status is %s\n", STATUS_FILE, s_guard.status);
    fclose(file);
}

/* 2. A registration and each later report of the status have one form; type is "reg" or "modify".
 * The result is new. */
static json_t *status_message(const char *type)
{
    json_t *message = json_object(), *data = json_object(), *modules = json_array();

    json_array_append_new(modules, json_string("guard_flt"));
    json_object_set_new(data, "driver_module", modules);
    json_object_set_new(message, "product_name", json_string("guard"));
    json_object_set_new(message, "type", json_string(type));
    json_object_set_new(message, "status", json_string(s_guard.status));
    json_object_set_new(message, "count", json_integer(s_guard.count));
    json_object_set_new(message, "data", data);
    return message;
}

static void report_replied(int32_t error, void *cookie, oxni_subscriber *subscriber, void *reserved)
{
    (void)cookie;
    (void)subscriber;
    (void)reserved;
    if (error != 0)
        printf("guard: the plug-in did not get the status, error %d\n", static_cast<int>(error));
}

/* 3. Orders. The driver is taken out of the kernel, or comes back, before the status is saved and
 * reported: the plug-in must never believe in a bypass that did not happen. */
static void obey(const char *order, json_t *message)
{
    if (strcmp(order, "bypass") == 0)
        strcpy(s_guard.status, "bypass");
    else if (strcmp(order, "recover") == 0)
        strcpy(s_guard.status, "working");
    else if (strcmp(order, "set_count") == 0)
        s_guard.count = static_cast<int>(json_integer_value(json_object_get(message, "count")));
    else
        return;
    printf("guard obeys \"%s\": %s, count %d\n", order, s_guard.status, s_guard.count);
    if (!save_status())
        printf("guard: the status cannot be saved, error %lu\n", GetLastError());
    json_t *report = status_message("modify");
    if (oxni_subscriber_pushforward(s_guard.handle, report, nullptr, report_replied) != 0)
        printf("guard: the status cannot be reported\n");
    json_decref(report);
}

static void product_callback(oxni_subscriber *subscriber, uint32_t event, void *arg,
                             json_t *message)
{
    const char *order = json_string_value(json_object_get(message, "type"));

    (void)subscriber;
    (void)arg;
    if (event == 0)
        printf("guard is registered: %s, count %d\n", s_guard.status, s_guard.count);
    else if (order != nullptr)
        obey(order, message);
}

/* 4. The management side: names the devices of the products when the plug-in asks, and takes the
 * reports. After an errcode other than 0 the plug-in neither repeats the report nor records it. */
static void answer_devices(oxnih_request *call, const char *command_line, void *user)
{
    (void)user;
    printf("management is asked: %s\n", command_line);
    oxnih_dbg_answer(call, 0,
                     R"({"total": 1, "info": [{"product": "guard", "device_id": "device-1",
                        "agent_version": "7.0"}]})",
                     100);
}

static void take_report(oxnih_request *request, json_t *message, void *user)
{
    json_t *content = json_object_get(json_object_get(message, "data"), "content");
    json_t *alarm = json_object_get(content, "data");

    (void)user;
    printf("management gets a report: %s of %s\n",
           json_string_value(json_object_get(alarm, "alarmName")),
           json_string_value(json_object_get(alarm, "productType")));
    json_t *answer = json_pack("{s:i}", "errcode", 0);
    oxnih_res_answer(request, 0, answer, 100);
    json_decref(answer);
}

static void print_console(const oxnih_event *event, void *user)
{
    (void)user;
    if (event->kind == OXNIH_EVENT_ECHO)
        printf("the console says: %s\n", event->text);
}

/* 5. The platform: directories, a clock, and the management side. On a real platform all of this
 * exists already. */
static void start_platform(void)
{
    char folder[MAX_PATH];

    (void)CreateDirectoryA("run", nullptr);
    (void)CreateDirectoryA("run\\agent", nullptr);
    (void)GetFullPathNameA("run\\agent", sizeof(folder), folder, nullptr);
    oxnih_set_install_dir(folder);
    (void)GetFullPathNameA("run", sizeof(folder), folder, nullptr);
    oxnih_set_log_dir(folder);
    oxnih_clock_simulate(NOON_2024_03_07_100NS, 10000);
    oxnih_core_set_observer(print_console, nullptr);
    oxnih_dbg_set_handler("oxni", answer_devices, nullptr);
    oxnih_res_set_handler(UPLOAD_PATH, take_report, nullptr);
    oxnih_res_set_state(LINK_PATH, 1);
}

static bool start_plugin(void)
{
    HMODULE plugin = LoadLibraryW(L"libbypass_mgr.dll");

    if (plugin == nullptr)
        return false;
    const plugin_init_fn init = reinterpret_cast<plugin_init_fn>(
        reinterpret_cast<void *>(GetProcAddress(plugin, "oxni_plugin_init")));
    return init != nullptr && init() == 0;
}

static void pass_seconds(uint64_t seconds)
{
    (void)oxnih_core_run_until(oxnih_clock_tick_ms() + seconds * 1000);
}

int main(void)
{
    static const oxni_subscriber_attr guard = {"example", "guard", nullptr};

    start_platform();
    load_status();
    if (!start_plugin()) {
        fprintf(stderr, "product: libbypass_mgr.dll cannot be started, error %lu\n",
                GetLastError());
        return 1;
    }
    s_guard.handle = oxni_subscriber_new(&guard);
    json_t *registration = status_message("reg");
    if (oxni_subscriber_subscribe(s_guard.handle, "bypass_mgr", registration, product_callback) !=
        0) {
        fprintf(stderr, "product: guard is not registered\n");
        return 1;
    }
    pass_seconds(600); /* the plug-in looks for the end of the previous run of Windows */
    oxnih_dbg_run("oxni", "bypass -r");
    pass_seconds(60);
    oxnih_dbg_run("oxni", "bypass -p");
    pass_seconds(1);
    json_decref(registration);
    oxni_subscriber_delete(s_guard.handle);
    return 0;
}
