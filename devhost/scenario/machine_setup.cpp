/* What a scenario does to the machine. */
#include "machine_setup.h"

#include <oxni/base/algo.h>
#include "../../platform/liboxni_core/host.h"
#include "../../platform/liboxnibase/host.h"
#include "../agent/agent.h"
#include "../evidence/log.h"
#include "../machine/machine.h"
#include "../base/text.h"
#include "journal.h"
#include "timeline.h"

/* Layout of a driver's crash_config.cfg, coded with the drivers' key. */
#define CRASH_RECORD_BYTES    50
#define CRASH_RECORD_COUNT_AT 30
#define CRASH_RECORD_KEY      "Tz!*#4,k"

/* Content of the file of a scripted dump, which nothing reads. */
#define SCRIPTED_DUMP_BYTES "(the stack of this dump is in the scenario)"

static std::wstring wide_of(const json_value *object, const char *name)
{
    return text_wide(node_text_of(object, name, ""));
}

static void set_zone(const struct scenario &scenario, const std::string &where,
                     const std::string &name)
{
    TIME_ZONE_INFORMATION zone;

    if (!machine_time_zone(text_wide(name), &zone))
        scenario_bad(scenario, where + "/time_zone",
                     "unknown time zone \"" + name +
                         "\", expected a name such as \"Tokyo Standard "
                         "Time\"");
    oxnih_clock_set_zone(&zone);
}

static void set_processes(const struct scenario &scenario, const std::string &where,
                          const json_value &machine_json)
{
    struct machine &machine = machine_get();

    if (node_member(&machine_json, "processes") == NULL)
        return;
    machine.processes.clear();
    for (const json_value *process : node_elements(&machine_json, "processes"))
        machine.processes.push_back(
            {static_cast<uint32_t>(node_integer_of(process, "pid", 0)),
             static_cast<uint32_t>(node_integer_of(process, "parent", 0)), wide_of(process, "name"),
             timeline_time(scenario, where + "/processes/created", node_member(process, "created"),
                           machine.boot_100ns)});
}

static void set_services(const json_value &machine_json)
{
    static const char *const states[] = {
        "",        "stopped",          "start_pending", "stop_pending",
        "running", "continue_pending", "pause_pending", "paused"};
    const json_value *services = node_member(&machine_json, "services");

    if (services == NULL)
        return;
    for (const auto &service : services->GetObject()) {
        std::wstring name = text_lower(text_wide(service.name.GetString()));

        if (service.value.IsNull()) {
            machine_get().services.erase(name);
            continue;
        }
        std::vector<DWORD> &list = machine_get().services[name];
        list.clear();
        for (const json_value &state : service.value.GetArray())
            for (DWORD number = 1; number < ARRAYSIZE(states); number++)
                if (state == states[number])
                    list.push_back(number);
    }
}

static void set_engine(const json_value &machine_json)
{
    const json_value *engine = node_member(&machine_json, "engine");
    const json_value *fails = node_member(engine, "fails");

    machine_get().has_engine = node_flag_of(engine, "present", machine_get().has_engine);
    if (fails == NULL)
        return;
    machine_get().engine_faults.clear();
    for (const auto &fault : fails->GetObject())
        machine_get().engine_faults[fault.name.GetString()] =
            static_cast<HRESULT>(fault.value.GetUint());
    machine_update_engine();
}

static void load_events(const std::string &file)
{
    evidence_log log;

    evidence_log_read(file, EVIDENCE_STANDARD, &log);
    for (event_record &event : log.events)
        machine_log(std::move(event));
}

void machine_setup_apply(const struct scenario &scenario, const std::string &where,
                         const json_value &said)
{
    struct machine &machine = machine_get();
    std::string zone = node_text_of(&said, "time_zone", "");

    if (!zone.empty())
        set_zone(scenario, where, zone);
    if (node_member(&said, "privileges") != NULL) {
        machine.privileges.clear();
        for (const json_value *privilege : node_elements(&said, "privileges"))
            machine.privileges.insert(privilege->GetString());
    }
    machine.has_tick_count_64 = node_flag_of(&said, "tick_count_64", machine.has_tick_count_64);
    set_processes(scenario, where, said);
    set_services(said);
    set_engine(said);
    for (const json_value *value : node_elements(&said, "registry"))
        machine_setup_value(scenario, where + "/registry", *value);
    for (const json_value *file : node_elements(&said, "files"))
        machine_setup_file(scenario, where + "/files", *file);
    if (node_member(&said, "events_from") != NULL)
        load_events(scenario_path(scenario, node_text_of(&said, "events_from", "")));
    for (const json_value *event : node_elements(&said, "events"))
        machine_setup_event(scenario, where + "/events", *event);
    if (node_member(&said, "base_folder") != NULL)
        oxnih_set_log_dir(node_flag_of(&said, "base_folder", true) ? agent_base_folder().c_str()
                                                                   : NULL);
    if (node_member(&said, "lenient") != NULL)
        oxnih_core_set_lenient(node_flag_of(&said, "lenient", false));
}

void machine_setup_event(const struct scenario &scenario, const std::string &where,
                         const json_value &event)
{
    event_record record = {};
    uint64_t time = timeline_time(scenario, where + "/time", node_member(&event, "time"),
                                  oxnih_clock_now_100ns());

    record.number = static_cast<uint32_t>(node_integer_of(&event, "record", 0));
    record.time = static_cast<uint32_t>(time_unix(time));
    record.id = static_cast<uint32_t>(node_integer_of(&event, "id", 0));
    record.type = static_cast<uint16_t>(node_integer_of(&event, "type", EVENTLOG_INFORMATION_TYPE));
    record.source = wide_of(&event, "source");
    for (const json_value *text : node_elements(&event, "strings"))
        record.strings.add(text_wide(text->IsString() ? text->GetString() : ""));
    if (node_member(&event, "padding") != NULL)
        record.strings.add(
            std::wstring(static_cast<size_t>(node_integer_of(&event, "padding", 0)), L'x'));
    machine_log(std::move(record));
}

std::string machine_setup_stack(const json_value *said)
{
    std::string text = node_text_of(said, "stack", "");

    if (node_member(said, "frames") == NULL)
        return text;
    text += "Call Site\n";
    for (const json_value *frame : node_elements(said, "frames"))
        text += std::string(frame->GetString()) + "\n";
    return text;
}

static std::string crash_record(uint32_t count)
{
    std::string bytes(CRASH_RECORD_BYTES, '\0');

    for (size_t i = 0; i < sizeof(count); i++)
        bytes[CRASH_RECORD_COUNT_AT + i] = static_cast<char>(count >> (8 * i));
    xor_encry(bytes.data(), bytes.size(), CRASH_RECORD_KEY);
    return bytes;
}

int64_t machine_setup_record_count(const std::string &bytes)
{
    std::string decoded = bytes;
    uint32_t count = 0;

    if (bytes.size() != CRASH_RECORD_BYTES)
        return -1;
    xor_decry(decoded.data(), decoded.size(), CRASH_RECORD_KEY);
    for (size_t i = 0; i < sizeof(count); i++)
        count |= static_cast<uint32_t>(static_cast<uint8_t>(decoded[CRASH_RECORD_COUNT_AT + i]))
                 << (8 * i);
    return count;
}

std::wstring machine_setup_path(const std::string &path)
{
    return text_wide(text_replace(text_replace(path, "{base}", agent_base_folder()), "{bin}",
                                  agent_bin_folder()));
}

void machine_setup_file(const struct scenario &scenario, const std::string &where,
                        const json_value &file)
{
    std::wstring path = machine_setup_path(node_text_of(&file, "path", ""));
    uint64_t written = timeline_time(scenario, where + "/written", node_member(&file, "written"),
                                     oxnih_clock_now_100ns());
    uint64_t created =
        timeline_time(scenario, where + "/created", node_member(&file, "created"), written);
    std::string bytes = node_text_of(&file, "text", "");

    if (node_member(&file, "from") != NULL)
        bytes = machine_read_real_file(
            text_wide(scenario_path(scenario, node_text_of(&file, "from", ""))), EXIT_BAD_EVIDENCE);
    if (node_member(&file, "record_count") != NULL)
        bytes = crash_record(static_cast<uint32_t>(node_integer_of(&file, "record_count", 0)));
    if (node_member(&file, "stack") != NULL || node_member(&file, "frames") != NULL) {
        bytes = SCRIPTED_DUMP_BYTES;
        machine_get().stacks[path] = machine_setup_stack(&file);
        machine_update_engine();
    }
    bytes.resize(
        static_cast<size_t>(node_integer_of(&file, "size", static_cast<int64_t>(bytes.size()))));
    machine_write_file(path, bytes, written, created);
    journal_add(HAPPENED_STEP, "windows", "file " + text_narrow(path) + " is written");
}

/* Bytes of a value as the registry holds them. */
static std::string value_bytes(const json_value &value, DWORD type)
{
    const json_value *data = node_member(&value, "data");
    std::wstring wide = wide_of(&value, "data");
    uint64_t number = data != NULL && data->IsUint64() ? data->GetUint64() : 0;

    if (type == REG_DWORD)
        return std::string(reinterpret_cast<const char *>(&number), sizeof(uint32_t));
    if (type == REG_QWORD)
        return std::string(reinterpret_cast<const char *>(&number), sizeof(number));
    if (type == REG_BINARY)
        return node_text_of(&value, "data", "");
    return std::string(reinterpret_cast<const char *>(wide.c_str()),
                       (wide.size() + 1) * sizeof(wchar_t));
}

void machine_setup_value(const struct scenario &scenario, const std::string &where,
                         const json_value &value)
{
    static const struct {
        const char *name;
        DWORD type;
    } types[] = {
        {"REG_SZ",        REG_SZ       },
        {"REG_EXPAND_SZ", REG_EXPAND_SZ},
        {"REG_DWORD",     REG_DWORD    },
        {"REG_QWORD",     REG_QWORD    },
        {"REG_BINARY",    REG_BINARY   },
        {"REG_MULTI_SZ",  REG_MULTI_SZ },
    };
    std::string name = node_text_of(&value, "type", "REG_SZ");
    DWORD type = REG_SZ;

    for (const auto &row : types)
        if (name == row.name)
            type = row.type;
    const json_value *data = node_member(&value, "data");
    bool number = type == REG_DWORD || type == REG_QWORD;

    if (data == NULL)
        scenario_bad(scenario, where, "member \"data\" is missing");
    if (number ? !data->IsUint64() : !data->IsString())
        scenario_bad(scenario, where + "/data",
                     "expected " + std::string(number ? "a number of 0 or more" : "a text") +
                         " for " + name);
    machine_set_value(wide_of(&value, "key"), wide_of(&value, "name"), type,
                      value_bytes(value, type));
}
