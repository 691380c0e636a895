/* What a scenario does to the machine. */
#include "machine_setup.h"

#include <algorithm>

#include <oxni/base/algo.h>
#include <oxni/base/ejs.h>
#include <oxni/base/log.h>

#include "../../platform/liboxni_agentid/host.h"
#include "../../platform/liboxni_core/host.h"
#include "../../platform/liboxnibase/host.h"
#include "../agent/agent.h"
#include "../base/text.h"
#include "../disk/files.h"
#include "../evidence/log.h"
#include "../machine/event_log.h"
#include "../machine/machine.h"
#include "../machine/modules.h"
#include "../machine/registry.h"
#include "../scenario/journal.h"
#include "../scenario/timeline.h"

/* Layout of a driver's crash_config.cfg, coded with the drivers' key. */
static constexpr int CRASH_RECORD_BYTES = 50;
static constexpr int CRASH_RECORD_COUNT_AT = 30;
static constexpr char CRASH_RECORD_KEY[] = "Tz!*#4,k";

/* Content of the file of a scripted dump, which nothing reads. */
static constexpr char SCRIPTED_DUMP_BYTES[] = "(the stack of this dump is in the scenario)";

static std::wstring wide_of(const node &object, const char *name)
{
    return text_wide(object.text(name));
}

/* Length of the path of the base folder; 0: the agent's own. */
static size_t s_base_length;

/* A long path is the agent's own base folder and folders below it. */
static std::string base_folder(void)
{
    std::string path = agent_base_folder();

    while (path.size() + 1 < s_base_length)
        path += "\\" + std::string(std::min(s_base_length - path.size() - 1, size_t(100)), 'b');
    return path;
}

static void set_base_folder(const node &said)
{
    s_base_length = said->IsInt64() ? static_cast<size_t>(said->GetInt64()) : 0;
    if (s_base_length != 0 && base_folder().size() != s_base_length)
        said.bad(text_format("the base folder of this run has at least %u characters",
                             static_cast<unsigned>(agent_base_folder().size() + 2)));
    oxnih_set_log_dir(said->IsFalse() ? nullptr : base_folder().c_str());
}

void machine_setup_open(void)
{
    s_base_length = 0;
}

void machine_setup_log_level(const std::string &name)
{
    static const char *const levels[] = {"error", "warn", "info", "debug"};

    for (int level = OXNI_LOG_ERROR; level <= OXNI_LOG_DEBUG; level++)
        if (name == levels[level])
            oxnih_log_set_level(level);
}

/* Result: whether it is one, or none is given. */
static bool date_of(const std::string &hex, SYSTEMTIME *date)
{
    const std::string bytes = text_of_hex(hex);

    if (bytes.size() == sizeof(*date))
        memcpy(date, bytes.data(), sizeof(*date));
    return hex.empty() || bytes.size() == sizeof(*date);
}

bool machine_setup_zone(const node &said, TIME_ZONE_INFORMATION *zone)
{
    *zone = {};
    if (said->IsString())
        return machine_time_zone(text_wide(said->GetString()), zone);
    zone->Bias = static_cast<LONG>(said.integer("bias", 0));
    zone->StandardBias = static_cast<LONG>(said.integer("standard_bias", 0));
    zone->DaylightBias = static_cast<LONG>(said.integer("daylight_bias", 0));
    return date_of(said.text("standard_start"), &zone->StandardDate) &&
           date_of(said.text("daylight_start"), &zone->DaylightDate);
}

static void set_zone(const node &said)
{
    TIME_ZONE_INFORMATION zone;

    if (!said)
        return;
    if (!machine_setup_zone(said, &zone))
        said.bad("unknown time zone " + node_to_text(*said));
    oxnih_clock_set_zone(&zone);
}

static void set_processes(const node &processes)
{
    struct machine &machine = machine_get();

    if (processes)
        machine.processes.clear();
    for (const node &process : processes.elements())
        machine.processes.push_back({static_cast<uint32_t>(process.integer("pid", 0)),
                                     static_cast<uint32_t>(process.integer("parent", 0)),
                                     wide_of(process, "name"),
                                     timeline_time(process["created"], machine.boot_100ns),
                                     process.flag("protected", false)});
}

static void set_services(const node &services)
{
    static const char *const states[] = {
        "",        "stopped",          "start_pending", "stop_pending",
        "running", "continue_pending", "pause_pending", "paused"};

    for (const auto &[key, service] : services.members()) {
        std::wstring name = text_lower(text_wide(key));

        if (service->IsNull()) {
            machine_get().services.erase(name);
            continue;
        }
        std::vector<DWORD> &list = machine_get().services[name];
        list.clear();
        for (const node &state : service.elements())
            for (DWORD number = 1; number < ARRAYSIZE(states); number++)
                if (*state == states[number])
                    list.push_back(number);
    }
}

static void set_engine(const node &engine)
{
    node fails = engine["fails"];

    machine_get_engine().present = engine.flag("present", machine_get_engine().present);
    if (!fails && !engine["loads_for"] && !engine["prints"])
        return;
    if (engine["loads_for"])
        machine_get_engine().load_ms = static_cast<uint32_t>(engine.integer("loads_for", 0)) * 1000;
    if (engine["prints"])
        machine_get_engine().load_text = engine["prints"]->GetString();
    if (fails)
        machine_get_engine().faults.clear();
    for (const auto &[call, result] : fails.members())
        machine_get_engine().faults[call] = static_cast<HRESULT>(result->GetUint());
    machine_update_engine();
}

static void load_events(const std::string &file)
{
    evidence_log log;

    evidence_log_read(file, EVIDENCE_STANDARD, &log);
    for (event_record &event : log.events)
        machine_log(std::move(event));
}

void machine_setup_apply(const node &said)
{
    struct machine &machine = machine_get();

    set_zone(said["time_zone"]);
    if (said["privileges"])
        machine.privileges.clear();
    for (const node &privilege : said["privileges"].elements())
        machine.privileges.insert(privilege->GetString());
    machine.has_tick_count_64 = said.flag("tick_count_64", machine.has_tick_count_64);
    set_processes(said["processes"]);
    set_services(said["services"]);
    set_engine(said["engine"]);
    for (const node &value : said["registry"].elements())
        machine_setup_value(value);
    for (const node &file : said["files"].elements())
        machine_setup_file(file);
    if (said["events_from"])
        load_events(said["events_from"].path());
    for (const node &event : said["events"].elements())
        machine_setup_event(event);
    if (said["base_folder"])
        set_base_folder(said["base_folder"]);
    if (said["device_id"])
        oxnih_set_device_id(said.text("device_id").c_str());
    if (said["log_level"])
        machine_setup_log_level(said.text("log_level"));
    if (said["lenient"])
        oxnih_core_set_lenient(said.flag("lenient", false));
}

void machine_setup_event(const node &event)
{
    event_record record = {};
    uint64_t time = timeline_time(event["time"], oxnih_clock_now_100ns());

    record.number = static_cast<uint32_t>(event.integer("record", 0));
    record.time = static_cast<uint32_t>(time_unix(time));
    record.id = static_cast<uint32_t>(event.integer("id", 0));
    record.type = static_cast<uint16_t>(event.integer("type", EVENTLOG_INFORMATION_TYPE));
    record.source = wide_of(event, "source");
    for (const node &text : event["strings"].elements())
        record.strings.add(text_wide(text->GetString()));
    if (event["padding"])
        record.strings.add(std::wstring(static_cast<size_t>(event.integer("padding", 0)), L'x'));
    machine_log(std::move(record));
}

std::string machine_setup_stack(const node &said)
{
    std::string text = said.text("stack");

    if (said["frames"])
        text += "Call Site\n";
    for (const node &frame : said["frames"].elements())
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
    std::string full = text_replace(path, "{base}", base_folder());

    full = text_replace(full, "{data}/", agent_data_path(""));
    return text_wide(text_replace(full, "{bin}", agent_bin_folder()));
}

/* The bytes of an .ejs document, as the platform writes it at that path. */
static std::string document_bytes(const std::wstring &path, const json_value &document)
{
    const std::string text = node_to_text(document), real = text_narrow(machine_real_path(path));
    json_t *json = json_loadb(text.data(), text.size(), 0, nullptr);

    machine_write_file(path, "", 0, 0);
    (void)wdu_json_dump_file_ejs(json, real.c_str());
    json_decref(json);
    return machine_read_real_file(text_wide(real), EXIT_BAD_CALL);
}

void machine_setup_file(const node &file)
{
    std::wstring path = machine_setup_path(file.text("path"));
    uint64_t written = timeline_time(file["written"], oxnih_clock_now_100ns());
    uint64_t created = timeline_time(file["created"], written);
    std::string bytes = file.text("text");

    if (file["from"])
        bytes = machine_read_real_file(text_wide(file["from"].path()), EXIT_BAD_EVIDENCE);
    if (file["bytes"])
        bytes = text_of_hex(file.text("bytes"));
    if (file["document"])
        bytes = document_bytes(path, *file["document"]);
    if (file["record_count"])
        bytes = crash_record(static_cast<uint32_t>(file.integer("record_count", 0)));
    if (file["stack"] || file["frames"]) {
        bytes = SCRIPTED_DUMP_BYTES;
        machine_get_engine().stacks[path] = machine_setup_stack(file);
        machine_update_engine();
    }
    bytes.resize(static_cast<size_t>(file.integer("size", static_cast<int64_t>(bytes.size()))));
    machine_write_file(path, bytes, written, created);
    journal_add(HAPPENED_STEP, "windows", "file " + text_narrow(path) + " is written");
}

/* Types of registry values, and whether their data is a number. */
static const struct value_type {
    const char *name;
    DWORD type;
    bool number;
} s_value_types[] = {
    {"REG_SZ",        REG_SZ,        false},
    {"REG_EXPAND_SZ", REG_EXPAND_SZ, false},
    {"REG_DWORD",     REG_DWORD,     true },
    {"REG_QWORD",     REG_QWORD,     true },
    {"REG_BINARY",    REG_BINARY,    false},
    {"REG_MULTI_SZ",  REG_MULTI_SZ,  false},
};

static const value_type &type_of(const node &value)
{
    for (const value_type &row : s_value_types)
        if (value.text("type") == row.name)
            return row;
    return s_value_types[0];
}

/* Bytes of a value as the registry holds them. */
static std::string value_bytes(const node &value, const value_type &type)
{
    std::wstring wide = wide_of(value, "data");
    uint64_t number = type.number ? value["data"]->GetUint64() : 0;

    if (type.number)
        return std::string(reinterpret_cast<const char *>(&number),
                           type.type == REG_DWORD ? sizeof(uint32_t) : sizeof(number));
    if (type.type == REG_BINARY)
        return value.text("data");
    return std::string(reinterpret_cast<const char *>(wide.c_str()),
                       (wide.size() + 1) * sizeof(wchar_t));
}

std::string machine_setup_value_problem(const node &value)
{
    const value_type &type = type_of(value);
    node data = value["data"];

    if (!data)
        return "member \"data\" is missing";
    if (type.number ? data->IsUint64() : data->IsString())
        return "";
    return "\"data\": expected " + std::string(type.number ? "a number of 0 or more" : "a text") +
           " for " + type.name + ", found " + node_to_text(*data);
}

void machine_setup_value(const node &value)
{
    const value_type &type = type_of(value);

    machine_set_value(wide_of(value, "key"), wide_of(value, "name"), type.type,
                      value_bytes(value, type));
}
