/*
 * Evidence of a scenario: the records and dumps that Windows leaves of a run and writes in the next
 * one, and whatever a scenario puts on the machine itself.
 */
#include "play.h"

#include <oxni/base/algo.h>
#include "../../platform/liboxni_core/host.h"
#include "../../platform/liboxnibase/host.h"
#include "../agent.h"
#include "../evidence/log.h"
#include "../machine/machine.h"
#include "../text.h"
#include "record.h"

/* Seconds after the start of Windows at which it writes these. */
#define START_SECONDS      0.0
#define UNEXPECTED_SECONDS 3.0
#define DUMP_SECONDS       6.0
#define WINLOGON_SECONDS   20.0
#define BUG_CHECK_SECONDS  25.0

/* EventIDs with their qualifiers. */
enum {
    EVENT_START = 12,
    EVENT_SHUTDOWN = 13,
    EVENT_UNEXPECTED = 41,
    EVENT_LOGON = 7001,
    EVENT_BUG_CHECK = 0x400003e9,
};

#define KERNEL_GENERAL L"Microsoft-Windows-Kernel-General"
#define KERNEL_POWER   L"Microsoft-Windows-Kernel-Power"
#define WINLOGON       L"Microsoft-Windows-Winlogon"
#define BUG_CHECK      L"BugCheck"
#define DEFAULT_BUG_CHECK                                                                          \
    "0x0000007e (0xffffffffc0000005, 0xfffff8048b58334c, 0xffff850429891ee8, 0xffff850429891720)"

/* Layout of a driver's crash_config.cfg, coded with the drivers' key. */
#define CRASH_RECORD_BYTES    50
#define CRASH_RECORD_COUNT_AT 30
#define CRASH_RECORD_KEY      "Tz!*#4,k"

/* What the plug-in's user would see of a scripted dump's file; nobody reads it. */
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
             play_time(scenario, where + "/processes/created", node_member(process, "created"),
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
    for (machine_event &event : log.events)
        machine_log(std::move(event));
}

void evidence_set_machine(const struct scenario &scenario, const std::string &where,
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
        evidence_set_value(scenario, where + "/registry", *value);
    for (const json_value *file : node_elements(&said, "files"))
        evidence_add_file(scenario, where + "/files", *file);
    if (node_member(&said, "events_from") != NULL)
        load_events(scenario_path(scenario, node_text_of(&said, "events_from", "")));
    for (const json_value *event : node_elements(&said, "events"))
        evidence_add_event(scenario, where + "/events", *event);
    if (node_member(&said, "base_folder") != NULL)
        oxnih_set_log_dir(node_flag_of(&said, "base_folder", true) ? agent_base_folder().c_str()
                                                                   : NULL);
    if (node_member(&said, "lenient") != NULL)
        oxnih_core_set_lenient(node_flag_of(&said, "lenient", false));
}

static void log_record(const wchar_t *source, uint32_t id, uint64_t time_100ns,
                       machine_strings strings)
{
    uint16_t type = id == EVENT_UNEXPECTED || id == EVENT_BUG_CHECK ? EVENTLOG_ERROR_TYPE
                                                                    : EVENTLOG_INFORMATION_TYPE;

    record_add(HAPPENED_STEP, "windows",
               text_format("logs event %u of %s", id & 0xffff, text_narrow(source).c_str()));
    machine_log(
        {0, static_cast<uint32_t>(time_unix(time_100ns)), id, type, source, std::move(strings)});
}

/* A record at a moment of this boot; at once when that is past. */
static void plan_record(double seconds, const wchar_t *source, uint32_t id, machine_strings strings)
{
    uint64_t ms = play_ms(seconds);
    uint64_t time = machine_get().boot_100ns + ms * TICKS_PER_MS;

    if (ms <= play_now_ms())
        log_record(source, id, time, std::move(strings));
    else
        play_at(ms, [=] { log_record(source, id, oxnih_clock_now_100ns(), strings); });
}

void evidence_add_event(const struct scenario &scenario, const std::string &where,
                        const json_value &event)
{
    machine_event record = {};
    uint64_t time =
        play_time(scenario, where + "/time", node_member(&event, "time"), oxnih_clock_now_100ns());

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

/* Text as the engine prints a stack, of call sites. */
static std::string stack_text(const json_value *said)
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

int64_t evidence_record_count(const std::string &bytes)
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

std::wstring evidence_place(const std::string &path)
{
    return text_wide(text_replace(text_replace(path, "{base}", agent_base_folder()), "{bin}",
                                  agent_bin_folder()));
}

void evidence_add_file(const struct scenario &scenario, const std::string &where,
                       const json_value &file)
{
    std::wstring path = evidence_place(node_text_of(&file, "path", ""));
    uint64_t written = play_time(scenario, where + "/written", node_member(&file, "written"),
                                 oxnih_clock_now_100ns());
    uint64_t created =
        play_time(scenario, where + "/created", node_member(&file, "created"), written);
    std::string bytes = node_text_of(&file, "text", "");

    if (node_member(&file, "from") != NULL)
        bytes = machine_read_real_file(
            text_wide(scenario_path(scenario, node_text_of(&file, "from", ""))), EXIT_BAD_EVIDENCE);
    if (node_member(&file, "record_count") != NULL)
        bytes = crash_record(static_cast<uint32_t>(node_integer_of(&file, "record_count", 0)));
    if (node_member(&file, "stack") != NULL || node_member(&file, "frames") != NULL) {
        bytes = SCRIPTED_DUMP_BYTES;
        machine_get().stacks[path] = stack_text(&file);
        machine_update_engine();
    }
    bytes.resize(
        static_cast<size_t>(node_integer_of(&file, "size", static_cast<int64_t>(bytes.size()))));
    machine_write_file(path, bytes, written, created);
    record_add(HAPPENED_STEP, "windows", "file " + text_narrow(path) + " is written");
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

void evidence_set_value(const struct scenario &scenario, const std::string &where,
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

/* Where a dump lies: a path, or true for Windows' own place. Empty: there is none. */
static std::wstring dump_path(const json_value *crash, const char *member, bool usual,
                              const std::wstring &place)
{
    const json_value *said = node_member(crash, member);

    if (said != NULL && said->IsString())
        return text_wide(said->GetString());
    return (said != NULL ? said->GetBool() : usual) ? place : L"";
}

static std::wstring usual_minidump(uint64_t crashed_100ns)
{
    std::string date = time_iso(crashed_100ns); /* YYYY-MM-DD... */

    return machine_get().windows_folder + L"\\Minidump\\" +
           text_wide(date.substr(5, 2) + date.substr(8, 2) + date.substr(2, 2) + "-5437-01.dmp");
}

static void write_dump(const struct scenario &scenario, const std::wstring &path,
                       const json_value *crash)
{
    std::string bytes = SCRIPTED_DUMP_BYTES, from = node_text_of(crash, "dump", "");
    uint64_t now = oxnih_clock_now_100ns();

    if (path.empty())
        return;
    machine_get().stacks.erase(path);
    if (!from.empty())
        bytes = machine_read_real_file(text_wide(scenario_path(scenario, from)), EXIT_BAD_EVIDENCE);
    else
        machine_get().stacks[path] = stack_text(crash);
    machine_update_engine();
    machine_write_file(path, bytes, now, now);
    record_add(HAPPENED_STEP, "windows", "writes the dump " + text_narrow(path));
}

/* The dump files and the BugCheck record of a blue screen. */
static void plan_blue_screen(const struct scenario &scenario, const json_value *crash,
                             uint64_t crashed_100ns)
{
    bool has_dump = node_member(crash, "frames") != NULL || node_member(crash, "stack") != NULL ||
                    node_member(crash, "dump") != NULL;
    std::wstring minidump = dump_path(crash, "minidump", has_dump, usual_minidump(crashed_100ns));
    std::wstring complete =
        dump_path(crash, "complete", false, machine_get().windows_folder + L"\\MEMORY.DMP");
    std::wstring named = minidump.empty() ? complete : minidump;

    if (!node_text_of(crash, "dump", "").empty())
        (void)scenario_path(scenario, node_text_of(crash, "dump", "")); /* told now, not later */
    play_at(play_ms(node_number_of(crash, "written", DUMP_SECONDS)),
            [&scenario, minidump, complete, crash] {
                write_dump(scenario, minidump, crash);
                write_dump(scenario, complete, crash);
            });
    if (!node_is_null(crash, "recorded"))
        plan_record(node_number_of(crash, "recorded", BUG_CHECK_SECONDS), BUG_CHECK,
                    static_cast<uint32_t>(EVENT_BUG_CHECK),
                    {text_wide(node_text_of(crash, "bug_check", DEFAULT_BUG_CHECK)), named,
                     L"00000000-0000-0000-0000-000000000000"});
}

void evidence_plan_boot(const struct scenario &scenario, const json_value *boot,
                        const std::string &ended, const json_value *crash, uint64_t crashed_100ns)
{
    const json_value *log = node_member(boot, "log");
    uint64_t start = machine_get().boot_100ns;

    if (!node_is_null(boot, "log")) {
        if (!node_is_null(log, "start"))
            plan_record(node_number_of(log, "start", START_SECONDS), KERNEL_GENERAL, EVENT_START,
                        {L"10", L"0", L"19041", L"1", L"0", L"0", text_wide(time_iso(start))});
        if (ended != "clean" && !node_is_null(log, "unexpected"))
            plan_record(node_number_of(log, "unexpected", UNEXPECTED_SECONDS), KERNEL_POWER,
                        EVENT_UNEXPECTED, {L"0", L"0x0", L"0x0", L"0x0", L"0x0", L"false", L"0"});
        if (!node_is_null(log, "winlogon"))
            plan_record(node_number_of(log, "winlogon", WINLOGON_SECONDS), WINLOGON, EVENT_LOGON,
                        {L"1", L"S-1-5-21-1-2-3-1001"});
    }
    if (ended == "blue_screen")
        plan_blue_screen(scenario, crash,
                         crashed_100ns != 0 ? crashed_100ns : start - 60 * TICKS_PER_SECOND);
}

void evidence_clean_shutdown(void)
{
    uint64_t now = oxnih_clock_now_100ns();

    log_record(KERNEL_GENERAL, EVENT_SHUTDOWN, now, {text_wide(time_iso(now))});
}
