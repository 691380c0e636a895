#include "machine_open.h"

#include "../disk/files.h"
#include "event_log.h"
#include "machine.h"
#include "machine_internal.h"
#include "modules.h"
#include "registry.h"

static constexpr wchar_t CRASH_CONTROL_KEY[] = L"SYSTEM\\CurrentControlSet\\Control\\CrashControl";
#define SERVICES_KEY L"SYSTEM\\CurrentControlSet\\Services\\"

/* What a machine with the agent has before anything happens to it. */
static void set_usual_registry(void)
{
    static const struct {
        const wchar_t *key, *name, *text;
    } values[] = {
        {CRASH_CONTROL_KEY,             L"DumpFile",    L"%SystemRoot%\\MEMORY.DMP"            },
        {CRASH_CONTROL_KEY,             L"MinidumpDir", L"%SystemRoot%\\Minidump"              },
        {SERVICES_KEY L"load_driver",   L"ImagePath",   L"system32\\drivers\\load_driver.sys"  },
        {SERVICES_KEY L"oxnisp_driver", L"ImagePath",   L"system32\\drivers\\oxnisp_driver.sys"},
    };

    for (const auto &value : values) {
        std::wstring text = value.text;

        machine_set_value(value.key, value.name, REG_EXPAND_SZ,
                          std::string(reinterpret_cast<const char *>(text.c_str()),
                                      (text.size() + 1) * sizeof(wchar_t)));
    }
}

void machine_open(const std::wstring &run_folder)
{
    struct machine &machine = machine_get();

    machine_open_disk(run_folder + L"\\disk");
    machine_start_token();
    machine_start_modules();
    machine_open_event_log();
    machine = {};
    machine.environment[L"systemroot"] = machine.windows_folder;
    machine.environment[L"windir"] = machine.windows_folder;
    machine.environment[L"systemdrive"] = machine.windows_folder.substr(0, 2);
    machine.privileges.insert("SeSecurityPrivilege");
    machine.processes = {
        {0, 0, L"[System Process]", 0, false},
        {4, 0, L"System",           0, true }
    };
    machine.services[L"load_driver"] = {SERVICE_RUNNING};
    machine.services[L"oxnisp_driver"] = {SERVICE_RUNNING};
    machine_open_registry();
    set_usual_registry();
    machine_reset_engine();
}

void machine_boot(uint64_t now_100ns)
{
    struct machine &machine = machine_get();

    machine.boot_100ns = now_100ns;
    for (machine_process &process : machine.processes)
        if (process.pid != 0)
            process.created_100ns = now_100ns;
    machine_remove_volatile_keys();
}

void *machine_stand_in(const char *name)
{
    static void *(*const finders[])(const char *) = {
        machine_clock_stand_in,    machine_event_log_stand_in, machine_process_stand_in,
        machine_token_stand_in,    machine_service_stand_in,   machine_file_stand_in,
        machine_registry_stand_in, machine_module_stand_in,
    };

    for (void *(*find)(const char *) : finders)
        if (void *function = find(name))
            return function;
    return nullptr;
}
