/*
 * The invariants of random machines. A model of products, checks and store follows what passes
 * between plug-in and platform; after each delivery both must agree.
 */
#include "machines.h"

#include <cstdio>

#include <algorithm>
#include <map>
#include <set>

#include <oxni/base/ejs.h>
#include <oxni/base/json.h>

#include "agent/agent.h"
#include "base/text.h"
#include "calls/calls.h"
#include "harness/leaks.h"
#include "harness/previous_boot.h"
#include "invariants.h"
#include "liboxni_core/host.h"
#include "liboxnibase/host.h"
#include "machine/machine.h"
#include "model.h"
#include "scenario/journal.h"

static constexpr uint32_t POLL_MS = 30000u;

static simulate_finding s_finding;

void broken(const char *invariant, const std::string &what)
{
    if (s_finding.invariant.empty())
        s_finding = {invariant, what, oxnih_clock_tick_ms(), journal_boot()};
}

static std::string order_text(const order &order)
{
    auto at = model_agent.members.find(order.to);

    return (at != model_agent.members.end() ? at->second.name : "?") + ":" + order.type + "(" +
           order.reason + "," + std::to_string(order.count) + ")";
}

static std::string orders_text(const std::vector<order> &orders)
{
    std::string text;

    for (const order &order : orders)
        text += (text.empty() ? "" : " ") + order_text(order);
    return text.empty() ? "nothing" : text;
}

static void check_polls(void)
{
    delivery &now = model_agent.now;
    enum verdict verdict = VERDICT_NOT_YET;
    oxni_subscriber *subscriber = nullptr;
    auto at = model_agent.checks.find(now.context);

    if (at != model_agent.checks.end()) {
        subscriber = at->second.subscriber;
        verdict = model_poll(at->second);
        if (verdict == VERDICT_NOT_YET && !now.arming_failed)
            now.checks_expected = 1;
        else
            model_agent.checks.erase(at);
    } else {
        subscriber = now.registers;
    }
    if (now.arming_failed) {
        verdict = VERDICT_FAILED;
        now.checks_expected = 0;
    }
    if (verdict != VERDICT_NOT_YET && subscriber != nullptr)
        model_verdict(subscriber, verdict);
    if ((verdict == VERDICT_CRASH || verdict == VERDICT_POWER) && subscriber != nullptr &&
        model_agent.members[subscriber].filed)
        WANT(now.undeletable || !model_tag_exists(), "tag",
             "a recovery tag remains after a crash or a power loss");
    if (verdict == VERDICT_NORMAL && model_agent.members[subscriber].filed) {
        WANT(now.plain_timer != 0, "one tag timer", "nothing watches the tag");
        model_agent.recover_function = now.plain_timer;
        model_agent.recover_missed = now.plain_failed;
    }
    if (now.context == 0 && now.armed == 1 && now.checks_expected == 1)
        model_agent.members[subscriber].checks++;
    if (now.context != 0 && verdict != VERDICT_NOT_YET)
        model_agent.members[subscriber].checks--;
    WANT(now.armed == now.checks_expected, "one check",
         text_format("%d checks go on, expected %d", now.armed, now.checks_expected));
    WANT(now.verdicts == now.verdicts_expected, "one verdict",
         text_format("%d verdicts, expected %d", now.verdicts, now.verdicts_expected));
}

static void check_handles(void)
{
    uint64_t excess = oxnih_core_excess_deletes();

    for (auto at = model_agent.members.begin(); at != model_agent.members.end();) {
        const member &member = at->second;
        int64_t due = (member.filed ? 1 : 0) + member.checks;

        if (model_agent.now.leaves == at->first)
            due = -1;
        WANT(member.references == due, "handles",
             text_format("%s: %lld references, expected %lld", member.name.c_str(),
                         static_cast<long long>(member.references), static_cast<long long>(due)));
        if (member.left && member.checks == 0)
            at = model_agent.members.erase(at);
        else
            ++at;
    }
    WANT(excess - model_agent.excess == (model_agent.now.leaves != nullptr ? 1 : 0), "handles",
         "deletes without a reference");
    model_agent.excess = excess;
}

static const char *order_invariant(void)
{
    for (const order &order : model_agent.now.seen) {
        auto at = model_agent.members.find(order.to);

        if (at == model_agent.members.end() || !at->second.filed)
            return "registered only";
        if (order.type == "bypass")
            return "blame";
    }
    return "orders";
}

static void check_recover_timer(void)
{
    size_t pending = 0;

    if (model_agent.recover_function == 0)
        return;
    for (const auto &timer : model_agent.timers)
        if (timer.second.function == model_agent.recover_function)
            pending++;
    WANT(pending == (model_agent.recover_missed ? 0 : 1), "one tag timer",
         text_format("%u timers watch the tag", static_cast<unsigned>(pending)));
}

static void finish(void)
{
    if (!model_agent.now.open)
        return;
    if (model_agent.now.context != 0 || model_agent.now.registers != nullptr)
        check_polls();
    WANT(model_agent.now.seen == model_agent.now.expected, order_invariant(),
         orders_text(model_agent.now.seen) + " ordered, expected " +
             orders_text(model_agent.now.expected));
    check_handles();
    documents_check_store();
    check_recover_timer();
    model_agent.now = {};
}

static void on_timer_start(const uint64_t *a, uint64_t result)
{
    delivery &now = model_agent.now;
    uint32_t ms = static_cast<uint32_t>(a[0]);

    if (a[2] == 0) {
        static const uint32_t periods[] = {1000, 60000, 1800000, 3600000};

        WANT(std::find(std::begin(periods), std::end(periods), ms) != std::end(periods), "timers",
             text_format("a timer of %u ms", ms));
        WANT(!model_agent.calibrated || a[1] != model_agent.uptime_function, "timers",
             "the uptime is looked at again after ten days were seen");
        if (ms == 1000) /* the first delay of the hourly one */
            model_agent.uptime_function = a[1];
        now.plain_timer = a[1];
        now.plain_failed = result == 0;
        if (a[1] == model_agent.recover_function)
            model_agent.recover_missed = now.plain_failed;
    } else {
        WANT(ms == POLL_MS, "timers", text_format("a poll after %u ms", ms));
        if (result == 0)
            now.arming_failed = true;
        else
            now.armed++;
        if (result != 0 && now.context == 0 && now.registers != nullptr)
            model_agent.checks[a[2]] = {now.registers, model_polls_at_start(), false};
        WANT(now.context == 0 || a[2] == now.context, "one check", "a check arms another one");
    }
    if (result != 0)
        model_agent.timers[result] = {a[1], a[2]};
}

static void on_retain(const uint64_t *a, uint64_t result)
{
    (void)result;
    model_agent.members[reinterpret_cast<oxni_subscriber *>(a[0])].references++;
}

static void on_delete(const uint64_t *a, uint64_t result)
{
    oxni_subscriber *subscriber = reinterpret_cast<oxni_subscriber *>(a[0]);

    (void)result;
    model_agent.members[subscriber].references--;
    if (model_agent.now.open && model_agent.now.kind != OXNIH_EVENT_LEFT)
        model_agent.now.verdicts++;
}

static void on_open_log(const uint64_t *a, uint64_t result)
{
    (void)a;
    model_agent.now.logs.push_back(result != 0);
}

static void on_delete_file(const uint64_t *a, uint64_t result)
{
    (void)a;
    model_agent.now.undeletable |= static_cast<int>(result) != 0;
}

static void on_open_record(const uint64_t *a, uint64_t result)
{
    (void)result;
    model_agent.records_written += wcschr(reinterpret_cast<const wchar_t *>(a[1]), L'+') != nullptr;
}

static void begin(const oxnih_event *event)
{
    finish();
    previous_boot_initialised();
    model_agent.now = {};
    model_agent.now.open = true;
    model_agent.now.kind = event->kind;
}

static void on_fired(uint64_t handle)
{
    auto at = model_agent.timers.find(handle);

    if (at == model_agent.timers.end())
        return;
    timer fired = at->second;

    model_agent.timers.erase(at);
    model_agent.now.context = fired.context;
    if (fired.function == model_agent.recover_function && model_tag_exists())
        model_recover(false);
    if (fired.function == model_agent.uptime_function && oxnih_clock_tick_ms() >= CALIBRATION_MS) {
        model_calibration();
        model_agent.calibrated = true;
    }
}

static void on_console(const std::string &line)
{
    if (line != "bypass -r")
        return;
    model_agent.only_normal = false;
    model_recover(true);
}

static void on_pushed(const oxnih_event *event)
{
    const json_t *message = event->message;

    model_agent.ordered = true;
    model_agent.now.seen.push_back({event->subscriber, model_text(message, "type"),
                                    model_text(message, "reason"),
                                    json_integer_value(json_object_get(message, "count"))});
}

static void on_request(const oxnih_event *event)
{
    const json_t *content = json_object_get(
        json_object_get(json_object_get(event->message, "data"), "content"), "data");
    std::string name = model_text(content, "productType");

    WANT(model_agent.bypassed.count(name) != 0, "alarms",
         "an alarm of " + name + ", never in bypass");
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
        model_reply(event->subscriber, event->error, model_text(event->message, "type"));
        break;
    case OXNIH_EVENT_COMMAND:
        begin(event);
        on_console(event->text);
        break;
    case OXNIH_EVENT_RESPONSE:
        begin(event);
        model_agent.failed_uploads += event->error != 0;
        break;
    case OXNIH_EVENT_TO_SUBSCRIBER:
    case OXNIH_EVENT_LINK:
    case OXNIH_EVENT_EXEC_ANSWER: begin(event); break;
    case OXNIH_EVENT_DELIVERED: finish(); break;
    case OXNIH_EVENT_PUSHED: on_pushed(event); break;
    case OXNIH_EVENT_REQUEST: on_request(event); break;
    case OXNIH_EVENT_TIMER_STOPPED: model_agent.timers.erase(event->timer); break;
    default: break;
    }
}

/* Nothing but these is left alone by a plug-in that has seen normal boots only. */
static void check_idle(void)
{
    static const char *const calls[] = {
        "RegCreateKeyExW", "RegDeleteKeyW", "DeleteFileW",          "WriteFile",
        "SetFileTime",     "LoadLibraryW",  "oxni_path_del_file_u", "oxni_res_deliver",
        "FindFirstFileW",
    };

    for (const char *call : calls)
        WANT(calls_count(call) == 0, "idle", std::string(call) + " was called");
    WANT(model_agent.records_written == 0 || model_agent.ordered, "idle",
         "a crash record was written");
}

static void agent_starts(void)
{
    model_agent = {};
    model_agent.only_normal = true;
    model_agent.excess = oxnih_core_excess_deletes();
    calls_reset_counts();
    if (model_machine.behind)
        documents_fall_back();
    /* Of whole seconds: a clock that was set back can make two boots one. */
    if (model_machine.boot_seconds == machine_get().boot_100ns / TICKS_PER_SECOND)
        return;
    model_machine.boot_seconds = machine_get().boot_100ns / TICKS_PER_SECOND;
    model_machine.store.clear();
    model_machine.has_crash = false;
}

static void agent_ends(void)
{
    oxnih_memory_stats stats;

    finish();
    for (const std::string &found : previous_boot_violations())
        broken("previous boot", found);
    if (model_agent.only_normal)
        check_idle();
    else
        documents_check_history();
    oxnih_memory_get_stats(&stats);
    model_machine.blocks.push_back(stats.live_blocks);
}

static void check_leaks(const void *plugin)
{
    for (const std::string &lost : leaks_of_agent(plugin, model_agent.failed_uploads))
        broken("nothing lost", lost);
}

static void look(const happening &what, void *user)
{
    (void)user;
    previous_boot_note(what);
    if (what.kind != HAPPENED_AGENT)
        return;
    WANT(what.text.rfind("was ended", 0) != 0, "no exit", "the allocation guard ended the agent");
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
    {"oxni_timer_start",       on_timer_start   },
    {"oxni_subscriber_retain", on_retain        },
    {"oxni_subscriber_delete", on_delete        },
    {"OpenEventLogW",          on_open_log      },
    {"oxni_file_open_w",       on_open_record   },
    {"wdu_json_load_file_ejs", documents_on_load},
    {"wdu_json_dump_file_ejs", documents_on_dump},
    {"oxni_path_del_file_u",   on_delete_file   },
};

void invariants_open(void)
{
    model_agent = {};
    model_machine = {};
    s_finding = {};
    journal_set_view(look, nullptr);
    agent_watch_end(check_leaks);
    oxnih_core_set_observer(observe, nullptr);
    oxnih_set_complaint(complain, nullptr);
    oxnih_log_set_sink(nullptr, nullptr);
    for (const auto &row : s_watches)
        calls_set_watch(row.name, row.watch);
    previous_boot_open();
}

const simulate_finding &invariants_finding(void)
{
    return s_finding;
}

const std::vector<uint64_t> &invariants_blocks(void)
{
    return model_machine.blocks;
}

void invariants_close(void)
{
    for (const auto &row : s_watches)
        calls_set_watch(row.name, nullptr);
    previous_boot_close();
    agent_watch_end(nullptr);
    journal_set_view(nullptr, nullptr);
}
