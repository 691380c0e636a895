/* The model of the plug-in's decisions, and what it reads of the machine for them. */
#include "model.h"

#include <windows.h>

#include <algorithm>

#include <oxni/base/log.h>
#include <oxni/base/time.h>

#include "agent/agent.h"
#include "base/system_events.h"
#include "base/text.h"
#include "disk/files.h"
#include "liboxnibase/host.h"
#include "machine/machine.h"
#include "machine/modules.h"
#include "machine/registry.h"

static constexpr int POLLS = 12;

struct agent_model model_agent;
struct machine_model model_machine;

std::string model_text(const json_t *object, const char *name)
{
    const char *text = json_string_value(json_object_get(object, name));

    return text != nullptr ? text : "";
}

static int status_of(const std::string &word)
{
    static const char *const words[] = {"", "working", "bypass", "initializing"};

    for (int status = STATUS_WORKING; status <= STATUS_INITIALIZING; status++)
        if (word == words[status])
            return status;
    return STATUS_NONE;
}

/* Last-write time of a file of the machine; 0: there is none. */
static uint64_t write_time(const std::wstring &real_path)
{
    WIN32_FILE_ATTRIBUTE_DATA data;

    if (!GetFileAttributesExW(real_path.c_str(), GetFileExInfoStandard, &data))
        return 0;
    return (static_cast<uint64_t>(data.ftLastWriteTime.dwHighDateTime) << 32) |
           data.ftLastWriteTime.dwLowDateTime;
}

static std::wstring driver_file(const char *name)
{
    return text_wide(agent_base_folder() + "\\Quorvel\\OXNI3_CFG\\driver\\" + name);
}

static bool has_base_folder(void)
{
    char folder[260];

    return oxni_log_dir(folder, sizeof(folder)) != 0;
}

static bool drivers_updated(void)
{
    uint64_t time = write_time(driver_file("oxni_driver_updata.cfg"));

    return has_base_folder() && time != 0 && time >= machine_get().boot_100ns;
}

bool model_tag_exists(void)
{
    return has_base_folder() && write_time(driver_file("oxni_driver_recover")) != 0;
}

/* Local text of a file's creation time; of 1970 when there is no such file. */
static std::string creation_text(const std::wstring &real_path)
{
    const uint64_t known_100ns = machine_file_created(real_path);
    FILETIME created = {};
    struct tm local = {};
    char text[32];

    if (write_time(real_path) != 0)
        created = {static_cast<DWORD>(known_100ns), static_cast<DWORD>(known_100ns >> 32)};
    if (oxni_time_stamp_to_local(known_100ns != 0 ? oxni_filetime_to_timet(&created) : 0, &local) !=
        0)
        return "1970-01-01 00:00:00";
    strftime(text, sizeof(text), "%Y-%m-%d %H:%M:%S", &local);
    return text;
}

/* Newest record of either event; NULL when there is none or the log could not be opened. query: how
 * many were made before in this delivery. */
static const event_record *newest(uint32_t id, const wchar_t *source, uint32_t other,
                                  const wchar_t *other_source, size_t query)
{
    const std::vector<event_record> &events = machine_get().events;

    if (query >= model_agent.now.logs.size() || !model_agent.now.logs[query])
        return nullptr;
    for (size_t at = events.size(); at-- > 0;)
        if (((events[at].id & 0xffff) == id && events[at].source == source) ||
            ((events[at].id & 0xffff) == other && events[at].source == other_source))
            return &events[at];
    return nullptr;
}

static bool is_event(const event_record *event, uint32_t id)
{
    return event != nullptr && (event->id & 0xffff) == id;
}

/* Module names of a stack's text. */
static std::set<std::string> stack_modules(const std::string &text)
{
    std::set<std::string> modules;
    size_t begin = text.find("Call Site\n");

    if (begin == std::string::npos)
        return modules;
    for (begin += 10; begin < text.size();) {
        size_t end = std::min(text.find('\n', begin), text.size());
        std::string line = text.substr(begin, end - begin);
        size_t cut = line.find('!') != std::string::npos ? line.find('!') : line.find('+');

        if (cut != std::string::npos)
            modules.insert(line.substr(0, cut));
        begin = end + 1;
    }
    return modules;
}

/* Modules on the stack of the dump that the blame of this boot is based on: the newest small dump if
 * it was written since the start of Windows, or else the complete dump. small_path: of the newest
 * small dump, however old; empty: none. */
static std::set<std::string> crashed_modules(std::wstring *small_path)
{
    const struct machine_engine &engine = machine_get_engine();
    const uint64_t boot_100ns = machine_get().boot_100ns;
    const std::string *small = nullptr, *complete = nullptr;
    uint64_t newest_small = 0;

    for (const auto &stack : engine.stacks) {
        uint64_t time = write_time(machine_real_path(stack.first));

        if (stack.first.find(L"\\Minidump\\") == std::wstring::npos) {
            if (time > boot_100ns)
                complete = &stack.second;
        } else if (time > newest_small) {
            newest_small = time;
            *small_path = machine_real_path(stack.first);
            small = time > boot_100ns ? &stack.second : nullptr;
        }
    }
    if (!engine.present || !engine.faults.empty() || (small == nullptr && complete == nullptr))
        return {};
    return stack_modules(small != nullptr ? *small : *complete);
}

static void expect_order(oxni_subscriber *to, const char *type, const std::string &reason,
                         int64_t count)
{
    model_agent.now.expected.push_back({to, type, reason, count});
}

static void set_status(member &member, int status)
{
    member.status = status;
    if (status != STATUS_BYPASS)
        return;
    model_agent.bypassed.insert(member.name);
    model_machine.bypassed.insert(member.name);
    model_agent.only_normal = false;
}

static void store(const member &member)
{
    model_machine.store[member.name] = {member.count, member.status};
}

static void reconcile(oxni_subscriber *subscriber, member &member)
{
    auto known = model_machine.store.find(member.name);
    bool is_known = known != model_machine.store.end();

    if (is_known && known->second.status != member.status) {
        store(member);
    } else if (model_machine.has_crash) {
        member.parsed = true;
        expect_order(subscriber, "bypass", model_machine.blamed, 0);
    } else if (!is_known) {
        model_agent.now.checks_expected = 1;
        model_agent.now.registers = subscriber;
    } else {
        member.parsed = true;
        if (member.count == known->second.count || drivers_updated() ||
            member.status == STATUS_BYPASS)
            return;
        if (member.count < known->second.count) {
            store(member);
            return;
        }
        member.count = known->second.count;
        expect_order(subscriber, "set_count", "none", member.count);
    }
}

static void model_registration(oxni_subscriber *subscriber, const json_t *message)
{
    member &member = model_agent.members[subscriber];
    const json_t *modules = json_object_get(json_object_get(message, "data"), "driver_module");

    if (member.filed)
        return;
    member.name = model_text(message, "product_name");
    member.count = json_integer_value(json_object_get(message, "count"));
    set_status(member, status_of(model_text(message, "status")));
    for (size_t i = 0; i < json_array_size(modules); i++) {
        std::string module = json_string_value(json_array_get(modules, i));

        if (std::find(member.modules.begin(), member.modules.end(), module) == member.modules.end())
            member.modules.push_back(module);
    }
    member.filed = true;
    model_agent.table.push_back(subscriber);
    if (member.status != STATUS_BYPASS && member.count >= 2 &&
        oxnih_clock_tick_ms() >= CALIBRATION_MS) {
        member.count = 1;
        store(member);
        expect_order(subscriber, "set_count", "none", 1);
    }
    reconcile(subscriber, member);
}

void model_message(oxni_subscriber *subscriber, const json_t *message)
{
    std::string type = model_text(message, "type");
    member &member = model_agent.members[subscriber];

    if (type == "reg") {
        model_registration(subscriber, message);
    } else if (type == "modify" && member.filed) {
        set_status(member, status_of(model_text(message, "status")));
        store(member);
    }
}

void model_leave(oxni_subscriber *subscriber)
{
    member &member = model_agent.members[subscriber];

    /* A subscriber that was never filed is released all the same. */
    if (!member.filed)
        model_agent.now.leaves = subscriber;
    member.filed = false;
    member.left = true;
    model_agent.table.erase(
        std::remove(model_agent.table.begin(), model_agent.table.end(), subscriber),
        model_agent.table.end());
}

void model_reply(oxni_subscriber *subscriber, int32_t error, const std::string &type)
{
    auto at = model_agent.members.find(subscriber);

    if (error != 0 || at == model_agent.members.end() || !at->second.filed)
        return;
    if (type == "recover")
        at->second.recover_sent = true;
    if (type != "bypass")
        return;
    set_status(at->second, STATUS_BYPASS);
    at->second.parsed = true;
    store(at->second);
}

/* First registered module that is on the stack. */
static const std::string *first_blamed(const std::set<std::string> &stack)
{
    for (oxni_subscriber *subscriber : model_agent.table)
        for (const std::string &module : model_agent.members[subscriber].modules)
            if (stack.count(module) != 0)
                return &module;
    return nullptr;
}

static void model_crash(member &member)
{
    const std::string *blamed;
    std::wstring small_path;

    if (drivers_updated())
        return;
    blamed = first_blamed(crashed_modules(&small_path));
    if (blamed == nullptr) {
        store(member);
        return;
    }
    model_machine.has_crash = true;
    model_machine.blamed = *blamed;
    model_machine.dump_created = creation_text(small_path);
    for (oxni_subscriber *subscriber : model_agent.table)
        expect_order(subscriber, "bypass", *blamed, 0);
}

static void model_power_loss(oxni_subscriber *subscriber, member &member)
{
    if (member.status != STATUS_BYPASS && member.count <= 1)
        return;
    if (member.status != STATUS_BYPASS && !model_tag_exists() && !drivers_updated()) {
        member.count--;
        expect_order(subscriber, "set_count", "none", member.count);
    }
    store(member);
}

void model_verdict(oxni_subscriber *subscriber, enum verdict verdict)
{
    member &member = model_agent.members[subscriber];

    model_agent.now.verdicts_expected++;
    if (verdict != VERDICT_NORMAL)
        model_agent.only_normal = false;
    if (!member.filed)
        return;
    switch (verdict) {
    case VERDICT_CRASH: model_crash(member); break;
    case VERDICT_POWER: model_power_loss(subscriber, member); break;
    case VERDICT_FAILED: store(member); break;
    case VERDICT_NORMAL:
    case VERDICT_NOT_YET:
    default: break;
    }
    member.parsed = true;
}

int model_polls_at_start(void)
{
    std::string text;

    if (!machine_get_value(L"SYSTEM\\CurrentControlSet\\Services\\load_driver", L"TimerMaxCount",
                           &text))
        return POLLS;
    return atoi(text.c_str());
}

enum verdict model_poll(status_check &check)
{
    const event_record *event;

    if (!check.logon_seen && check.left >= 1) {
        check.left--;
        event = newest(EVENT_LOGON, SOURCE_WINLOGON, EVENT_LOGON, L"", 0);
        check.logon_seen =
            is_event(event, EVENT_LOGON) &&
            machine_get().boot_100ns <= (event->time + UNIX_EPOCH_SECONDS) * TICKS_PER_SECOND;
        return VERDICT_NOT_YET;
    }
    check.logon_seen = true;
    if (is_event(newest(EVENT_BUG_CHECK, SOURCE_BUG_CHECK, EVENT_WINDOWS_START,
                        SOURCE_KERNEL_GENERAL, 0),
                 EVENT_BUG_CHECK))
        return VERDICT_CRASH;
    if (check.left >= 1) {
        check.left--;
        return VERDICT_NOT_YET;
    }
    return is_event(newest(EVENT_UNEXPECTED_SHUTDOWN, SOURCE_KERNEL_POWER, EVENT_WINDOWS_START,
                           SOURCE_KERNEL_GENERAL, 1),
                    EVENT_UNEXPECTED_SHUTDOWN)
               ? VERDICT_POWER
               : VERDICT_NORMAL;
}

void model_calibration(void)
{
    for (oxni_subscriber *subscriber : model_agent.table) {
        const member &member = model_agent.members[subscriber];

        if (member.status == STATUS_BYPASS || member.count < 2)
            continue;
        expect_order(subscriber, "set_count", "none", 1);
        store(member);
    }
}

void model_recover(bool all)
{
    for (oxni_subscriber *subscriber : model_agent.table) {
        const member &member = model_agent.members[subscriber];

        if (all || (!member.recover_sent && member.status == STATUS_BYPASS && member.parsed))
            expect_order(subscriber, "recover", "none", 0);
    }
}
