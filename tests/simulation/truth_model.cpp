/*
 * The model of the plug-in on evidence: products that register soon after each start, and a log that
 * grows as it did on the machine. Nothing here runs the plug-in.
 */
#include "truth_runs.h"

#include <algorithm>
#include <map>

#include <oxni/base/json.h>

#include "base/run_folder.h"
#include "base/system_events.h"
#include "base/text.h"
#include "disk/files.h"
#include "liboxnibase/host.h"
#include "machine/event_log.h"
#include "machine/machine.h"
#include "machine/modules.h"
#include "machine/registry.h"
#include "model.h"
#include "play/play.h"

static constexpr uint32_t AGENT_MS = 10000u; /* the platform's own drivers register then */
static constexpr uint32_t PRODUCTS_MS = 15000u;
static constexpr uint32_t POLL_MS = 30000u;
static constexpr char DRIVERS[] = "XNI/BYPASS";

/* One boot as the log shows it. */
struct shown_boot {
    const synthesis &made;
    history_boot &boot;
    bool last;
    std::vector<event_record> events;      /* from its start to the next one */
    std::vector<const crash_dump *> dumps; /* that it wrote */
    bool stale;                            /* an older small dump seems newer */
    std::vector<uint64_t> ms;              /* when each record is there */
    size_t logged;                         /* records so far */
    uint64_t searched_ms;                  /* when the last check searched last */
    std::map<oxni_subscriber *, std::string> names;
    enum verdict verdict;
};

/* Registrations and polls, in the order in which they are due. */
struct due {
    uint64_t ms;
    oxni_subscriber *subscriber;
    const history_product *registers; /* nullptr: a poll */
};

static bool is(const event_record &event, const wchar_t *source, uint32_t id)
{
    return (event.id & 0xffff) == id && event.source == source;
}

/* A record is there at its own time, but not before the previous one. */
static std::vector<uint64_t> moments(const shown_boot &shown)
{
    uint64_t start = shown.boot.started_100ns, ms = 0;
    std::vector<uint64_t> moments;

    for (const event_record &event : shown.events) {
        uint64_t to, from;

        if (is(event, SOURCE_KERNEL_GENERAL, EVENT_CLOCK_CHANGE) &&
            time_parse(text_narrow(event.strings.at(0)), &to) &&
            time_parse(text_narrow(event.strings.at(1)), &from))
            start += to - from;
        if (time_of_unix(event.time) > start)
            ms = std::max(ms, (time_of_unix(event.time) - start) / TICKS_PER_MS);
        moments.push_back(moments.empty() ? 0 : ms);
    }
    return moments;
}

/* The log up to a moment: what is due at the same one comes first. */
static void log_until(shown_boot &shown, uint64_t ms)
{
    for (; shown.logged < shown.events.size() && (shown.logged == 0 || shown.ms[shown.logged] < ms);
         shown.logged++)
        machine_log(shown.events[shown.logged]);
}

static json_t *registration(const history_product &product)
{
    json_t *modules = json_array();

    for (const std::string &module : product.modules)
        json_array_append_new(modules, json_string(module.c_str()));
    return json_pack("{s:s, s:s, s:s, s:I, s:{s:o}}", "product_name", product.name.c_str(), "type",
                     "reg", "status", product.status.c_str(), "count",
                     static_cast<json_int_t>(product.count), "data", "driver_module", modules);
}

/* Takes the orders that the model expects; a product obeys at once. */
static void take_orders(shown_boot &shown)
{
    const std::vector<order> orders = model_agent.now.expected;

    for (const order &order : orders) {
        shown.boot.truth.orders.insert(
            {shown.names[order.to], order.type, order.reason, order.count});
        model_reply(order.to, 0, order.type);
    }
}

/* Result: whether the check goes on. */
static bool do_due(shown_boot &shown, const due &due,
                   std::map<oxni_subscriber *, status_check> &checks)
{
    bool goes_on = false;

    model_agent.now = {};
    model_agent.now.open = true;
    model_agent.now.logs = {true, true};
    if (due.registers != nullptr) {
        json_t *message = registration(*due.registers);

        model_message(due.subscriber, message);
        json_decref(message);
        goes_on = model_agent.now.checks_expected == 1;
        checks[due.subscriber] = {due.subscriber, model_polls_at_start(), false};
    } else {
        const enum verdict verdict = model_poll(checks[due.subscriber]);

        goes_on = verdict == VERDICT_NOT_YET;
        if (!goes_on) {
            model_verdict(due.subscriber, verdict);
            shown.boot.truth.decided_ms = due.ms;
            if (model_machine.has_crash && shown.boot.truth.blamed_ms == 0)
                shown.boot.truth.blamed_ms = due.ms;
            if (shown.verdict == VERDICT_NOT_YET || verdict == VERDICT_CRASH)
                shown.verdict = verdict;
        }
    }
    take_orders(shown);
    return goes_on;
}

static void play_model(shown_boot &shown)
{
    static const history_product drivers = {
        "XNI",
        {"load_driver", "file_filter", "function_driver", "network_driver", "oxnisp_driver"},
        1,
        "working"
    };
    std::map<oxni_subscriber *, status_check> checks;
    std::vector<due> plan;
    uintptr_t key = 1; /* the model needs different ones, no real ones */

    const auto add = [&](const history_product &product, uint64_t ms, const std::string &name) {
        oxni_subscriber *subscriber = reinterpret_cast<oxni_subscriber *>(key++);

        shown.names[subscriber] = name;
        plan.push_back({ms, subscriber, &product});
    };
    add(drivers, AGENT_MS, DRIVERS);
    for (const history_product &product : shown.made.history.products)
        add(product, PRODUCTS_MS, product.name);
    while (!plan.empty()) {
        const auto next = std::min_element(plan.begin(), plan.end(),
                                           [](const due &a, const due &b) { return a.ms < b.ms; });
        const due due = *next;

        plan.erase(next);
        log_until(shown, due.ms);
        shown.searched_ms = due.ms;
        if (do_due(shown, due, checks))
            plan.push_back({due.ms + POLL_MS, due.subscriber, nullptr});
    }
}

/* The machine at the start of that boot: its log, its registry, its zone, and the dumps that there
 * were. */
static void open_machine(shown_boot &shown)
{
    struct machine &machine = machine_get();
    uint64_t older = 0;

    for (const event_record &event : shown.made.history.records)
        if (event.number < shown.boot.start_record && shown.made.has(event.number))
            machine.events.push_back(event);
    for (const evidence_value &value : shown.made.values)
        machine_set_value(value.key, value.name, value.type, value.data);
    oxnih_clock_set_zone(&shown.made.history.zone);
    for (const history_boot &boot : shown.made.history.boots) {
        if (&boot > &shown.boot)
            break;
        for (const crash_dump &dump : boot.dumps) {
            if (dump.replaced)
                continue;
            std::string stack = "Call Site\n";

            for (const std::string &frame : dump.frames)
                stack += frame + "\n";
            machine_get_engine().stacks[text_wide(dump.path)] = stack;
            machine_write_file(text_wide(dump.path), "", dump.written_100ns, dump.written_100ns);
            if (&boot == &shown.boot)
                shown.dumps.push_back(&dump);
            else if (!dump.complete)
                older = std::max(older, dump.written_100ns);
        }
    }
    for (const crash_dump *dump : shown.dumps)
        shown.stale |= !dump->complete && older >= dump->written_100ns;
}

static bool is_recorded(const synthesis &made, const history_boot &boot)
{
    for (size_t i = boot.records; i < boot.end; i++) {
        const event_record &event = made.history.records[i];

        if (is(event, SOURCE_BUG_CHECK, EVENT_BUG_CHECK) && made.has(event.number))
            return true;
    }
    return false;
}

/* Copying may change the time of a file, so replay trusts it only up to the record of the crash, in a run
 * whose start the log shows. */
static bool has_unknown_time(const shown_boot &shown)
{
    bool starts = false;

    for (const history_boot *boot = shown.made.history.boots.data(); boot != &shown.boot; boot++) {
        starts |= shown.made.shows(*boot);
        for (const crash_dump &dump : boot->dumps)
            if (!dump.replaced && dump.written_100ns >= shown.boot.started_100ns &&
                (!starts || !is_recorded(shown.made, *boot)))
                return true;
    }
    return false;
}

static bool has(const shown_boot &shown, const wchar_t *source, uint32_t id)
{
    return std::any_of(shown.events.begin(), shown.events.end(),
                       [&](const event_record &event) { return is(event, source, id); });
}

/* Since when the previous run was running, as far as the log shows it. */
static uint64_t previous_start(const shown_boot &shown)
{
    uint64_t since = 0;

    for (const event_record &event : shown.made.history.records)
        if (shown.made.has(event.number)) {
            since = event.number < shown.boot.start_record ? time_of_unix(event.time) : 0;
            break;
        }
    for (const history_boot *boot = shown.made.history.boots.data(); boot != &shown.boot; boot++)
        if (shown.made.shows(*boot))
            since = boot->started_100ns;
    return since;
}

/* A dump of about this time whose crash no record reports. */
static bool has_unreported_dump(const shown_boot &shown)
{
    for (const history_boot &boot : shown.made.history.boots)
        for (const crash_dump &dump : boot.dumps)
            if (!dump.replaced && !is_recorded(shown.made, boot) &&
                dump.crashed_100ns >= previous_start(shown) &&
                (dump.crashed_100ns <= shown.boot.started_100ns || shown.last))
                return true;
    return false;
}

/* Whether a registered name and one on the stack of the boot's dumps differ in case only. */
static bool has_other_case(const shown_boot &shown)
{
    for (const crash_dump *dump : shown.dumps)
        for (const std::string &frame : dump->frames)
            for (const history_product &product : shown.made.history.products)
                for (const std::string &name : product.modules) {
                    const std::string module = frame.substr(0, frame.find_first_of("!+"));

                    if (module != name && text_lower(module) == text_lower(name))
                        return true;
                }
    return false;
}

/* Why evidence of that boot cannot acquit the drivers; empty: it can. */
static std::string doubt(const shown_boot &shown)
{
    const bool crash = has(shown, SOURCE_BUG_CHECK, EVENT_BUG_CHECK);
    const bool unexpected = has(shown, SOURCE_KERNEL_POWER, EVENT_UNEXPECTED_SHUTDOWN);
    const history &history = shown.made.history;
    const size_t number = static_cast<size_t>(&shown.boot - history.boots.data());
    const std::string &before =
        number == 0 ? history.ended_before : history.boots[number - 1].ended;
    const int64_t start = time_unix(shown.boot.started_100ns);

    for (size_t i = shown.boot.records; i < shown.boot.end; i++)
        if (!shown.made.has(history.records[i].number))
            return "its records are lost";
    if (shown.last && shown.made.damage.cut_off)
        return "its log is truncated";
    if (crash && shown.verdict != VERDICT_CRASH)
        return "the record of the crash is late";
    if (has_unreported_dump(shown) || (!crash && before == "blue_screen" && unexpected))
        return "the crash has no record";
    if (unexpected && shown.verdict == VERDICT_NORMAL)
        return "the unexpected shutdown was not found";
    if (crash && shown.dumps.empty())
        return "the crash has no dump";
    if (crash && shown.stale)
        return "another dump seems newer than that of the crash";
    for (const event_record &event : shown.events)
        if (event.time < start && (crash || unexpected) &&
            (is(event, SOURCE_BUG_CHECK, EVENT_BUG_CHECK) ||
             is(event, SOURCE_KERNEL_POWER, EVENT_UNEXPECTED_SHUTDOWN) ||
             is(event, SOURCE_WINLOGON, EVENT_LOGON)))
            return "the clock was set back";
    if (shown.verdict == VERDICT_CRASH && history.products.empty())
        return "no product is known";
    if (shown.verdict == VERDICT_CRASH && has_other_case(shown))
        return "a registered name differs in its case only";
    const int64_t seconds = int64_t(shown.events.back().time) - start;
    if (shown.last && !crash && !unexpected && before != "clean" && seconds >= 0 &&
        seconds < int64_t(shown.searched_ms / 1000))
        return "its log ends early";
    return "";
}

/* registry: that the scenario gives its machine, as JSON. */
static void predict(shown_boot &shown, const std::string &registry, const std::string &folder)
{
    static const char *const names[] = {"normal", "not known", "blue screen", "power loss", "none"};
    history_truth &truth = shown.boot.truth;
    struct scenario scenario;
    struct play_options play = {};

    scenario.file = "evidence";
    scenario.document.Parse(text_format("{\"machine\":{\"registry\":%s},\"boots\":[{\"at\":\"%s\","
                                        "\"agent_start\":null,\"log\":null}]}",
                                        registry.c_str(),
                                        time_iso(shown.boot.started_100ns).c_str())
                                .c_str());
    play.run_folder = folder;
    play_open(scenario, play);
    (void)play_begin_boot();
    open_machine(shown);
    shown.ms = moments(shown);
    model_agent = {};
    model_machine = {};
    play_model(shown);
    (void)play_close();
    truth.verdict = names[shown.verdict];
    truth.blamed = model_machine.has_crash ? model_machine.blamed : "";
    truth.answer = !truth.blamed.empty()   ? "bypass"
                   : !doubt(shown).empty() ? "cannot tell"
                                           : "no bypass";
    truth.all_orders = true;
}

void truth_predict(const struct scenario &scenario, synthesis *made)
{
    history &history = made->history;
    const node values = node(scenario)["machine"]["registry"];
    const std::string registry = values ? node_to_text(*values) : "[]";

    for (size_t i = 0; i < history.boots.size(); i++) {
        history_boot &boot = history.boots[i];
        const run_folder folder("");
        shown_boot shown = {
            *made, boot,           i + 1 == history.boots.size(), {}, {}, false, {}, 0, 0,
            {},    VERDICT_NOT_YET};

        boot.truth = {};
        if (!made->shows(boot))
            continue;
        for (size_t at = boot.records; at < boot.end; at++)
            if (history.records[at].number >= boot.start_record &&
                made->has(history.records[at].number))
                shown.events.push_back(history.records[at]);
        if (i + 1 < history.boots.size() && !made->shows(history.boots[i + 1]))
            boot.truth.why = "the start of the next boot is not in the log";
        else if (has_unknown_time(shown))
            boot.truth.why = "no record shows when an older dump was written, before the clock was "
                             "set back";
        else
            predict(shown, registry, folder.path);
    }
}
