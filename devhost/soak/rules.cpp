/*
 * The rules of a long run. A model of products, chains and store goes along with the plug-in, told
 * only of what passes between it and the platform; after each delivery both must agree.
 */
#include "machines.h"

#include <stdio.h>

#include <algorithm>
#include <map>
#include <set>

#include <oxni/base/ejs.h>
#include <oxni/base/json.h>

#include "../../platform/liboxni_core/host.h"
#include "../../platform/liboxnibase/host.h"
#include "../agent.h"
#include "../machine/calls.h"
#include "../machine/machine.h"
#include "../scenario/record.h"
#include "../sweep/leaks.h"
#include "../text.h"

#define STORE_FILE         "bypass_mgr_persistence.ejs"
#define HISTORY_FILE       "bypass_mgr_upload.ejs"
#define ALARM_PATH         "/oxni/quality_opr"
#define OWN_PRODUCT        "XNI"
#define CALIBRATION_MS     864000000ull
#define POLL_MS            30000u
#define POLLS              12
#define UNIX_EPOCH_SECONDS 11644473600ull

enum status {
    STATUS_NONE,
    STATUS_WORKING,
    STATUS_BYPASS,
    STATUS_INITIALIZING
};

enum verdict {
    VERDICT_NORMAL,
    VERDICT_FAILED,
    VERDICT_CRASH,
    VERDICT_POWER,
    VERDICT_NOT_YET
};

/* One registered product, or one that could be. */
struct member {
    std::string name;
    std::vector<std::string> modules;
    int status;
    int64_t count;
    bool filed, parsed, recover_sent, left;
    int64_t references; /* of the plug-in */
    int chains;
};

struct chain {
    oxni_subscriber *subscriber;
    int left;
    bool logon_seen;
};

struct order {
    oxni_subscriber *to;
    std::string type, reason;
    int64_t count;

    bool operator==(const order &other) const
    {
        return to == other.to && type == other.type && reason == other.reason &&
               count == other.count;
    }
};

/* What the store must hold. */
struct entry {
    int64_t count;
    int status;
};

struct timer {
    uint64_t function;
    uint64_t context; /* of a chain; 0: none */
};

/* What is delivered at present, and what it is seen and expected to do. */
struct delivery {
    bool open;
    enum oxnih_event_kind kind;
    std::vector<order> expected, seen;
    uint64_t context;           /* of the chain whose timer fired */
    oxni_subscriber *registers; /* who may start a chain */
    int armed;                  /* chains armed or armed again */
    int chains_expected;
    int verdicts, verdicts_expected;
    std::vector<bool> logs; /* whether each opening of the event log succeeded */
    bool arming_failed;
    uint64_t plain_timer; /* function of the last timer without a context */
    bool plain_failed;
    oxni_subscriber *leaves; /* released although it was never filed */
};

/* Of the agent's process. */
static struct {
    std::map<oxni_subscriber *, member> members;
    std::vector<oxni_subscriber *> table; /* filed ones, in order */
    std::map<uint64_t, chain> chains;     /* by context */
    std::map<uint64_t, timer> timers;     /* pending ones by handle */
    uint64_t recover_function, uptime_function;
    json_t *document;               /* the plug-in's own, borrowed */
    std::set<std::string> bypassed; /* names that were in bypass */
    bool only_normal;
    uint64_t excess;
    uint64_t failed_uploads;
    delivery now;
} s_agent;

/* Of the machine. */
static struct {
    std::map<std::string, entry> store;
    bool has_crash;
    std::string blamed;
    std::set<std::string> bypassed;
    std::string on_disk; /* the store's file */
    bool behind;         /* it could not be written since */
    std::vector<uint64_t> blocks;
    uint64_t boot_seconds; /* of the boot that the store is of */
    soak_finding finding;
} s_seen;

static void broken(const char *rule, const std::string &what)
{
    if (s_seen.finding.rule.empty())
        s_seen.finding = {rule, what, oxnih_clock_tick_ms(), record_boot()};
}

static void want(bool holds, const char *rule, const std::string &what)
{
    if (!holds)
        broken(rule, what);
}

static std::string order_text(const order &order)
{
    auto at = s_agent.members.find(order.to);

    return (at != s_agent.members.end() ? at->second.name : "?") + ":" + order.type + "(" +
           order.reason + "," + std::to_string(order.count) + ")";
}

static std::string orders_text(const std::vector<order> &orders)
{
    std::string text;

    for (const order &order : orders)
        text += (text.empty() ? "" : " ") + order_text(order);
    return text.empty() ? "nothing" : text;
}

static std::string text_member(const json_t *object, const char *name)
{
    const char *text = json_string_value(json_object_get(object, name));

    return text != NULL ? text : "";
}

static int status_of(const std::string &word)
{
    static const char *const words[] = {"", "working", "bypass", "initializing"};

    for (int status = STATUS_WORKING; status <= STATUS_INITIALIZING; status++)
        if (word == words[status])
            return status;
    return STATUS_NONE;
}

/* The machine */

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

static bool drivers_updated(void)
{
    uint64_t time = write_time(driver_file("oxni_driver_updata.cfg"));

    return time != 0 && time >= machine_get().boot_100ns;
}

static bool tag_exists(void)
{
    return write_time(driver_file("oxni_driver_recover")) != 0;
}

/* Newest record of either event; NULL when there is none or the log could not be opened. query: how
 * many were made before in this delivery. */
static const machine_event *newest(uint32_t id, const wchar_t *source, uint32_t other,
                                   const wchar_t *other_source, size_t query)
{
    const std::vector<machine_event> &events = machine_get().events;

    if (query >= s_agent.now.logs.size() || !s_agent.now.logs[query])
        return NULL;
    for (size_t at = events.size(); at-- > 0;)
        if (((events[at].id & 0xffff) == id && events[at].source == source) ||
            ((events[at].id & 0xffff) == other && events[at].source == other_source))
            return &events[at];
    return NULL;
}

static bool is_event(const machine_event *event, uint32_t id)
{
    return event != NULL && (event->id & 0xffff) == id;
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

/* Modules on the stack of the dump that this boot's blame goes by: the newest small one written
 * since the start of Windows, or else the complete one. */
static std::set<std::string> crashed_modules(void)
{
    const struct machine &machine = machine_get();
    const std::string *small = NULL, *complete = NULL;
    uint64_t newest_small = machine.boot_100ns;

    for (const auto &stack : machine.stacks) {
        uint64_t time = write_time(machine_real_path(stack.first));

        if (stack.first.find(L"\\Minidump\\") == std::wstring::npos) {
            if (time > machine.boot_100ns)
                complete = &stack.second;
        } else if (time > newest_small) {
            newest_small = time;
            small = &stack.second;
        }
    }
    if (!machine.has_engine || !machine.engine_faults.empty() ||
        (small == NULL && complete == NULL))
        return {};
    return stack_modules(small != NULL ? *small : *complete);
}

/* Model of the plug-in's decisions */

static void expect_order(oxni_subscriber *to, const char *type, const std::string &reason,
                         int64_t count)
{
    s_agent.now.expected.push_back({to, type, reason, count});
}

static void set_status(member &member, int status)
{
    member.status = status;
    if (status != STATUS_BYPASS)
        return;
    s_agent.bypassed.insert(member.name);
    s_seen.bypassed.insert(member.name);
    s_agent.only_normal = false;
}

static void store(const member &member)
{
    s_seen.store[member.name] = {member.count, member.status};
}

static void reconcile(oxni_subscriber *subscriber, member &member)
{
    auto known = s_seen.store.find(member.name);
    bool is_known = known != s_seen.store.end();

    if (is_known && known->second.status != member.status) {
        store(member);
    } else if (s_seen.has_crash) {
        member.parsed = true;
        expect_order(subscriber, "bypass", s_seen.blamed, 0);
    } else if (!is_known) {
        s_agent.now.chains_expected = 1;
        s_agent.now.registers = subscriber;
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
    member &member = s_agent.members[subscriber];
    const json_t *modules = json_object_get(json_object_get(message, "data"), "driver_module");

    if (member.filed)
        return;
    member.name = text_member(message, "product_name");
    member.count = json_integer_value(json_object_get(message, "count"));
    set_status(member, status_of(text_member(message, "status")));
    for (size_t i = 0; i < json_array_size(modules); i++) {
        std::string module = json_string_value(json_array_get(modules, i));

        if (std::find(member.modules.begin(), member.modules.end(), module) == member.modules.end())
            member.modules.push_back(module);
    }
    member.filed = true;
    s_agent.table.push_back(subscriber);
    if (member.status != STATUS_BYPASS && member.count >= 2 &&
        oxnih_clock_tick_ms() >= CALIBRATION_MS) {
        member.count = 1;
        store(member);
        expect_order(subscriber, "set_count", "none", 1);
    }
    reconcile(subscriber, member);
}

static void model_message(oxni_subscriber *subscriber, const json_t *message)
{
    std::string type = text_member(message, "type");
    member &member = s_agent.members[subscriber];

    if (type == "reg") {
        model_registration(subscriber, message);
    } else if (type == "modify" && member.filed) {
        set_status(member, status_of(text_member(message, "status")));
        store(member);
    }
}

static void model_leave(oxni_subscriber *subscriber)
{
    member &member = s_agent.members[subscriber];

    /* A subscriber that was never filed is released all the same. */
    if (!member.filed)
        s_agent.now.leaves = subscriber;
    member.filed = false;
    member.left = true;
    s_agent.table.erase(std::remove(s_agent.table.begin(), s_agent.table.end(), subscriber),
                        s_agent.table.end());
}

static void model_reply(oxni_subscriber *subscriber, int32_t error, const std::string &type)
{
    auto at = s_agent.members.find(subscriber);

    if (error != 0 || at == s_agent.members.end() || !at->second.filed)
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
    for (oxni_subscriber *subscriber : s_agent.table)
        for (const std::string &module : s_agent.members[subscriber].modules)
            if (stack.count(module) != 0)
                return &module;
    return NULL;
}

static void model_crash(member &member)
{
    const std::string *blamed;

    if (drivers_updated())
        return;
    blamed = first_blamed(crashed_modules());
    if (blamed == NULL) {
        store(member);
        return;
    }
    s_seen.has_crash = true;
    s_seen.blamed = *blamed;
    for (oxni_subscriber *subscriber : s_agent.table)
        expect_order(subscriber, "bypass", *blamed, 0);
}

static void model_power_loss(oxni_subscriber *subscriber, member &member)
{
    if (member.status != STATUS_BYPASS && member.count <= 1)
        return;
    if (member.status != STATUS_BYPASS && !drivers_updated()) {
        member.count--;
        expect_order(subscriber, "set_count", "none", member.count);
    }
    store(member);
}

static void model_verdict(oxni_subscriber *subscriber, enum verdict verdict)
{
    member &member = s_agent.members[subscriber];

    s_agent.now.verdicts_expected++;
    if (verdict != VERDICT_NORMAL)
        s_agent.only_normal = false;
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
    if (verdict == VERDICT_CRASH || verdict == VERDICT_POWER)
        want(!tag_exists(), "tag", "a recovery tag is left after a crash or a power loss");
    member.parsed = true;
}

/* Polls left at the start of a chain. */
static int polls_at_start(void)
{
    std::string text;

    if (!machine_get_value(L"SYSTEM\\CurrentControlSet\\Services\\load_driver", L"TimerMaxCount",
                           &text))
        return POLLS;
    return atoi(text.c_str());
}

/* What one poll of a chain finds; moves the chain on. */
static enum verdict model_poll(chain &chain)
{
    static const wchar_t start[] = L"Microsoft-Windows-Kernel-General";
    const machine_event *event;

    if (!chain.logon_seen && chain.left >= 1) {
        chain.left--;
        event = newest(7001, L"Microsoft-Windows-Winlogon", 7001, L"", 0);
        chain.logon_seen =
            is_event(event, 7001) &&
            machine_get().boot_100ns <= (event->time + UNIX_EPOCH_SECONDS) * TICKS_PER_SECOND;
        return VERDICT_NOT_YET;
    }
    chain.logon_seen = true;
    if (is_event(newest(1001, L"BugCheck", 12, start, 0), 1001))
        return VERDICT_CRASH;
    if (chain.left >= 1) {
        chain.left--;
        return VERDICT_NOT_YET;
    }
    return is_event(newest(41, L"Microsoft-Windows-Kernel-Power", 12, start, 1), 41)
               ? VERDICT_POWER
               : VERDICT_NORMAL;
}

/* The ten days are over: everybody's count is called back, and the records stay as they are. */
static void model_calibration(void)
{
    for (oxni_subscriber *subscriber : s_agent.table) {
        const member &member = s_agent.members[subscriber];

        if (member.status == STATUS_BYPASS || member.count < 2)
            continue;
        expect_order(subscriber, "set_count", "none", 1);
        store(member);
    }
}

static void expect_recover(bool all)
{
    for (oxni_subscriber *subscriber : s_agent.table) {
        const member &member = s_agent.members[subscriber];

        if (all || (!member.recover_sent && member.status == STATUS_BYPASS && member.parsed))
            expect_order(subscriber, "recover", "none", 0);
    }
}

/* After each delivery */

static void check_chain(void)
{
    delivery &now = s_agent.now;
    enum verdict verdict = VERDICT_NOT_YET;
    oxni_subscriber *subscriber = NULL;
    auto at = s_agent.chains.find(now.context);

    if (at != s_agent.chains.end()) {
        subscriber = at->second.subscriber;
        verdict = model_poll(at->second);
        if (verdict == VERDICT_NOT_YET && !now.arming_failed)
            now.chains_expected = 1;
        else
            s_agent.chains.erase(at);
    } else {
        subscriber = now.registers;
    }
    if (now.arming_failed) {
        verdict = VERDICT_FAILED;
        now.chains_expected = 0;
    }
    if (verdict != VERDICT_NOT_YET && subscriber != NULL)
        model_verdict(subscriber, verdict);
    if (verdict == VERDICT_NORMAL && s_agent.members[subscriber].filed) {
        want(now.plain_timer != 0, "one tag timer", "nothing watches the tag");
        s_agent.recover_function = now.plain_failed ? 0 : now.plain_timer;
    }
    if (now.context == 0 && now.armed == 1 && now.chains_expected == 1)
        s_agent.members[subscriber].chains++;
    if (now.context != 0 && verdict != VERDICT_NOT_YET)
        s_agent.members[subscriber].chains--;
    want(now.armed == now.chains_expected, "one chain",
         text_format("%d chains go on, expected %d", now.armed, now.chains_expected));
    want(now.verdicts == now.verdicts_expected, "one verdict",
         text_format("%d verdicts, expected %d", now.verdicts, now.verdicts_expected));
}

static void check_handles(void)
{
    uint64_t excess = oxnih_core_excess_deletes();

    for (auto at = s_agent.members.begin(); at != s_agent.members.end();) {
        const member &member = at->second;
        int64_t due = (member.filed ? 1 : 0) + member.chains;

        if (s_agent.now.leaves == at->first)
            due = -1;
        want(member.references == due, "handles",
             text_format("%s: %lld references, expected %lld", member.name.c_str(),
                         static_cast<long long>(member.references), static_cast<long long>(due)));
        if (member.left && member.chains == 0)
            at = s_agent.members.erase(at);
        else
            ++at;
    }
    want(excess - s_agent.excess == (s_agent.now.leaves != NULL ? 1 : 0), "handles",
         "deletes without a reference");
    s_agent.excess = excess;
}

static void check_store(void)
{
    json_t *data = json_object_get(s_agent.document, "data");
    const char *name;
    json_t *value;

    want(s_seen.behind || text_of_json(s_agent.document) == s_seen.on_disk, "store on disk",
         "the file holds " + s_seen.on_disk);
    want(json_object_size(data) == s_seen.store.size() + (s_seen.has_crash ? 1 : 0), "store",
         "it holds " + text_of_json(data));
    json_object_foreach(data, name, value)
    {
        auto at = s_seen.store.find(name);

        if (std::string(name) == "crash_info") {
            want(s_seen.has_crash && text_member(value, "module_name") == s_seen.blamed, "blame",
                 "the store blames " + text_of_json(value));
            continue;
        }
        want(at != s_seen.store.end() &&
                 json_integer_value(json_object_get(value, "count")) == at->second.count &&
                 json_integer_value(json_object_get(value, "status")) == at->second.status,
             "store", std::string(name) + " is stored as " + text_of_json(value));
    }
}

static const char *order_rule(void)
{
    for (const order &order : s_agent.now.seen) {
        auto at = s_agent.members.find(order.to);

        if (at == s_agent.members.end() || !at->second.filed)
            return "registered only";
        if (order.type == "bypass")
            return "blame";
    }
    return "orders";
}

static void check_recover_timer(void)
{
    size_t pending = 0;

    for (const auto &timer : s_agent.timers)
        if (timer.second.function == s_agent.recover_function)
            pending++;
    want(s_agent.recover_function == 0 || pending == 1, "one tag timer",
         text_format("%u timers watch the tag", static_cast<unsigned>(pending)));
}

static void finish(void)
{
    if (!s_agent.now.open)
        return;
    if (s_agent.now.context != 0 || s_agent.now.registers != NULL)
        check_chain();
    want(s_agent.now.seen == s_agent.now.expected, order_rule(),
         orders_text(s_agent.now.seen) + " ordered, expected " + orders_text(s_agent.now.expected));
    check_handles();
    check_store();
    check_recover_timer();
    s_agent.now = {};
}

/* Calls of the plug-in */

static void on_timer_start(const uint64_t *a, uint64_t result)
{
    delivery &now = s_agent.now;
    uint32_t ms = static_cast<uint32_t>(a[0]);

    if (a[2] == 0) {
        static const uint32_t periods[] = {1000, 60000, 1800000, 3600000};

        want(std::find(std::begin(periods), std::end(periods), ms) != std::end(periods), "timers",
             text_format("a timer of %u ms", ms));
        if (ms == 1000) /* the first delay of the hourly one */
            s_agent.uptime_function = a[1];
        now.plain_timer = a[1];
        now.plain_failed = result == 0;
        if (now.plain_failed && a[1] == s_agent.recover_function)
            s_agent.recover_function = 0; /* the watch ends here */
    } else {
        want(ms == POLL_MS, "timers", text_format("a poll after %u ms", ms));
        if (result == 0)
            now.arming_failed = true;
        else
            now.armed++;
        if (result != 0 && now.context == 0 && now.registers != NULL)
            s_agent.chains[a[2]] = {now.registers, polls_at_start(), false};
        want(now.context == 0 || a[2] == now.context, "one chain", "a chain arms another one");
    }
    if (result != 0)
        s_agent.timers[result] = {a[1], a[2]};
}

static void on_retain(const uint64_t *a, uint64_t result)
{
    (void)result;
    s_agent.members[reinterpret_cast<oxni_subscriber *>(a[0])].references++;
}

static void on_delete(const uint64_t *a, uint64_t result)
{
    oxni_subscriber *subscriber = reinterpret_cast<oxni_subscriber *>(a[0]);

    (void)result;
    s_agent.members[subscriber].references--;
    if (s_agent.now.open && s_agent.now.kind != OXNIH_EVENT_LEFT)
        s_agent.now.verdicts++;
}

static void on_open_log(const uint64_t *a, uint64_t result)
{
    (void)a;
    s_agent.now.logs.push_back(result != 0);
}

static bool is_store(uint64_t path)
{
    std::string text = reinterpret_cast<const char *>(path);
    std::string name = STORE_FILE;

    return text.size() >= name.size() && text.substr(text.size() - name.size()) == name;
}

static void on_load(const uint64_t *a, uint64_t result)
{
    if (!is_store(a[0]))
        return;
    s_agent.document = reinterpret_cast<json_t *>(result);
    s_seen.on_disk = text_of_json(s_agent.document);
}

static void on_dump(const uint64_t *a, uint64_t result)
{
    json_t *read;

    if (!is_store(a[1]))
        return;
    s_agent.document = reinterpret_cast<json_t *>(a[0]);
    s_seen.behind = static_cast<int>(result) != 0;
    if (s_seen.behind)
        return;
    read = wdu_json_load_file_ejs(reinterpret_cast<const char *>(a[1]));
    s_seen.on_disk = text_of_json(read);
    json_decref(read);
}

/* What the platform delivers */

static void begin(const oxnih_event *event)
{
    finish();
    s_agent.now = {};
    s_agent.now.open = true;
    s_agent.now.kind = event->kind;
}

static void on_fired(uint64_t handle)
{
    auto at = s_agent.timers.find(handle);

    if (at == s_agent.timers.end())
        return;
    timer fired = at->second;

    s_agent.timers.erase(at);
    s_agent.now.context = fired.context;
    if (fired.function == s_agent.recover_function && tag_exists())
        expect_recover(false);
    if (fired.function == s_agent.uptime_function && oxnih_clock_tick_ms() >= CALIBRATION_MS)
        model_calibration();
}

static void on_console(const std::string &line)
{
    if (line != "bypass -r")
        return;
    s_agent.only_normal = false;
    expect_recover(true);
}

static void on_pushed(const oxnih_event *event)
{
    const json_t *message = event->message;

    s_agent.now.seen.push_back({event->subscriber, text_member(message, "type"),
                                text_member(message, "reason"),
                                json_integer_value(json_object_get(message, "count"))});
}

static void on_request(const oxnih_event *event)
{
    const json_t *content = json_object_get(
        json_object_get(json_object_get(event->message, "data"), "content"), "data");
    std::string name = text_member(content, "productType");

    want(s_agent.bypassed.count(name) != 0, "alarms", "an alarm of " + name + ", never in bypass");
}

static void observe(const oxnih_event *event, void *user)
{
    (void)user;
    switch (event->kind) {
    case OXNIH_EVENT_TIMER_FIRED:
        begin(event);
        on_fired(event->timer);
        break;
    case OXNIH_EVENT_TO_SERVICE:
        begin(event);
        model_message(event->subscriber, event->message);
        break;
    case OXNIH_EVENT_LEFT:
        begin(event);
        model_leave(event->subscriber);
        break;
    case OXNIH_EVENT_REPLY:
        begin(event);
        model_reply(event->subscriber, event->error, text_member(event->message, "type"));
        break;
    case OXNIH_EVENT_COMMAND:
        begin(event);
        on_console(event->text);
        break;
    case OXNIH_EVENT_RESPONSE:
        begin(event);
        s_agent.failed_uploads += event->error != 0;
        break;
    case OXNIH_EVENT_TO_SUBSCRIBER:
    case OXNIH_EVENT_LINK:
    case OXNIH_EVENT_EXEC_ANSWER: begin(event); break;
    case OXNIH_EVENT_DELIVERED: finish(); break;
    case OXNIH_EVENT_PUSHED: on_pushed(event); break;
    case OXNIH_EVENT_REQUEST: on_request(event); break;
    case OXNIH_EVENT_TIMER_STOPPED: s_agent.timers.erase(event->timer); break;
    default: break;
    }
}

/* Life of the agent */

/* Nothing but these is left alone by a plug-in that has seen normal boots only. */
static void check_idle(void)
{
    static const char *const calls[] = {
        "RegCreateKeyExW", "RegDeleteKeyW", "DeleteFileW",          "WriteFile",
        "SetFileTime",     "LoadLibraryW",  "oxni_path_del_file_u", "oxni_res_deliver",
        "FindFirstFileW",
    };

    for (const char *call : calls)
        want(calls_count(call) == 0, "idle", std::string(call) + " was called");
}

static void check_history(void)
{
    json_t *history = wdu_json_load_file_ejs(agent_data_path(HISTORY_FILE).c_str()), *value;
    const char *name;

    json_object_foreach(history, name, value)
    {
        want(s_seen.bypassed.count(name) != 0, "alarms",
             std::string(name) + " stands in the history and was never in bypass");
    }
    json_decref(history);
}

/* What the file holds is what there is, when its last writing failed. */
static void fall_back(void)
{
    json_t *document = json_loads(s_seen.on_disk.c_str(), 0, NULL), *value;
    const char *name;

    s_seen.behind = false;
    s_seen.store.clear();
    s_seen.has_crash = false;
    s_seen.boot_seconds =
        static_cast<uint64_t>(json_integer_value(json_object_get(document, "start_time"))) +
        UNIX_EPOCH_SECONDS;
    json_object_foreach(json_object_get(document, "data"), name, value)
    {
        if (std::string(name) != "crash_info") {
            s_seen.store[name] = {
                json_integer_value(json_object_get(value, "count")),
                static_cast<int>(json_integer_value(json_object_get(value, "status")))};
            continue;
        }
        s_seen.has_crash = true;
        s_seen.blamed = text_member(value, "module_name");
    }
    json_decref(document);
}

static void agent_starts(void)
{
    s_agent = {};
    s_agent.only_normal = true;
    s_agent.excess = oxnih_core_excess_deletes();
    calls_reset_counts();
    if (s_seen.behind)
        fall_back();
    /* Of whole seconds: a clock that was set back can make two boots one. */
    if (s_seen.boot_seconds == machine_get().boot_100ns / TICKS_PER_SECOND)
        return;
    s_seen.boot_seconds = machine_get().boot_100ns / TICKS_PER_SECOND;
    s_seen.store.clear();
    s_seen.has_crash = false;
}

static void agent_ends(void)
{
    oxnih_memory_stats stats;

    finish();
    if (s_agent.only_normal)
        check_idle();
    else
        check_history();
    oxnih_memory_get_stats(&stats);
    s_seen.blocks.push_back(stats.live_blocks);
}

static void check_leaks(const void *plugin)
{
    for (const std::string &lost : leaks_of_agent(plugin, s_agent.failed_uploads))
        broken("nothing lost", lost);
}

static void look(const happening &what, void *user)
{
    (void)user;
    if (what.kind != HAPPENED_AGENT)
        return;
    if (what.text.rfind("starts", 0) == 0)
        agent_starts();
    else
        agent_ends();
}

static void complain(const char *text, void *user)
{
    (void)user;
    if (std::string(text).find("delete") == std::string::npos)
        broken("platform", text);
}

static const struct {
    const char *name;
    calls_watch_fn watch;
} s_watches[] = {
    {"oxni_timer_start",       on_timer_start},
    {"oxni_subscriber_retain", on_retain     },
    {"oxni_subscriber_delete", on_delete     },
    {"OpenEventLogW",          on_open_log   },
    {"wdu_json_load_file_ejs", on_load       },
    {"wdu_json_dump_file_ejs", on_dump       },
};

void rules_open(void)
{
    s_agent = {};
    s_seen = {};
    record_set_view(look, NULL);
    agent_watch_end(check_leaks);
    oxnih_core_set_observer(observe, NULL);
    oxnih_set_complaint(complain, NULL);
    oxnih_log_set_sink(NULL, NULL);
    for (const auto &row : s_watches)
        calls_set_watch(row.name, row.watch);
}

const soak_finding &rules_finding(void)
{
    return s_seen.finding;
}

const std::vector<uint64_t> &rules_blocks(void)
{
    return s_seen.blocks;
}

void rules_close(void)
{
    for (const auto &row : s_watches)
        calls_set_watch(row.name, NULL);
    agent_watch_end(NULL);
    record_set_view(NULL, NULL);
}
