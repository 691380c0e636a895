/* What a scenario's expectations state about the decision of each boot, where evidence shows all that
 * the decision depends on. */
#include "history.h"

#include <algorithm>

#include "../base/text.h"
#include "../scenario/timeline.h"

/* A replay has decided by then: the last poll of products that register 15 s after the start. */
static constexpr double DECIDED_SECONDS = 420.0;

/* Members of a boot's machine, and steps, that change nothing of the decision or that evidence shows. */
static const char *const s_shown_members[] = {"time_zone", "events", "log_level", "device_id",
                                              "registry"};
static const char *const s_shown_steps[] = {"expect",      "event",     "link", "management",
                                            "report_link", "log_level", "clock"};

template <size_t size>
static bool is_one_of(const char *const (&names)[size], const std::string &name)
{
    return std::find(std::begin(names), std::end(names), name) != std::end(names);
}

static bool is_dump(const node &file)
{
    return file["frames"] || file["stack"];
}

/* Why the machine differs from one that is restored from evidence; empty: it does not. */
static std::string unshown_machine(const node &machine)
{
    for (const auto &[name, value] : machine.members()) {
        if (is_one_of(s_shown_members, name))
            continue;
        if (name == "files") {
            const std::vector<node> files = value.elements();

            if (std::all_of(files.begin(), files.end(), is_dump))
                continue;
        }
        return "its machine has \"" + name + "\"";
    }
    return "";
}

/* A product's status and count matter for counts only, which are compared in the first boot. */
static bool is_state(const node &changes)
{
    for (const auto &[name, value] : changes.members())
        if (name != "status" && name != "count")
            return false;
    return true;
}

static bool is_shown_step(const node &step, bool first_boot)
{
    for (const auto &[name, value] : step.members()) {
        if (is_one_of(s_shown_steps, name) || (name == "file" && is_dump(value)) ||
            (name == "product" && !first_boot && is_state(step["set"])))
            return true;
        if (name == "machine")
            return unshown_machine(value).empty();
    }
    return false;
}

static std::string step_text(const node &step)
{
    for (const auto &[name, value] : step.members())
        if (name != "at" && name != "about" && name != "when")
            return text_format("its step \"%s\" at %g s", name.c_str(), timeline_seconds(step));
    return "its step";
}

static bool changes_registry(const node &boot)
{
    if (boot["machine"]["registry"])
        return true;
    for (const node &step : boot["steps"].elements())
        if (step["registry"] || step["delete_value"] || step["delete_key"] ||
            step["machine"]["registry"])
            return true;
    return false;
}

/* Why the whole boot is not shown. */
static std::string unshown_boot(const node &root, size_t number)
{
    const std::vector<node> boots = root["boots"].elements();
    const node &boot = boots[number];
    std::string machine = unshown_machine(boot["machine"]);

    if (std::string why = unshown_machine(root["machine"]); !why.empty() && number == 0)
        return why;
    if (!machine.empty())
        return machine;
    if (boot.is_null("agent_start"))
        return "the agent does not start by itself";
    if (boot.number("uptime", 0) > 0)
        return "the agent starts when Windows has run for long";
    for (size_t later = number + 1; later < boots.size(); later++)
        if (changes_registry(boots[later]))
            return "the registry is another one at the end";
    for (const auto &[key, product] : root["products"].members())
        if (product["registration"])
            return "product \"" + key + "\" registers with a message of its own";
    return "";
}

std::string history_unshown(const struct scenario &scenario, size_t number, double *from)
{
    const node root(scenario), boot = root["boots"].elements()[number];
    std::string why = unshown_boot(root, number);

    *from = 0;
    if (!why.empty())
        return why;
    *from = boot.number("until", BOOT_SECONDS);
    for (const node &step : boot["steps"].elements())
        if (!is_shown_step(step, number == 0) && timeline_seconds(step) <= *from) {
            *from = timeline_seconds(step);
            why = step_text(step);
        }
    return why;
}

/* The expectations of a boot up to a moment; those at its end, too, when all of it is shown. */
static std::vector<node> expectations(const node &boot, const std::string &why, double until)
{
    std::vector<node> found;

    for (const node &step : boot["steps"].elements())
        if (step["expect"] && timeline_seconds(step) <= until)
            found.push_back(step["expect"]);
    if (why.empty() && boot["expect"])
        found.push_back(boot["expect"]);
    return found;
}

/* Takes the orders that the expectations list. Result: whether each of them lists its orders. all_orders:
 * whether one of them lists the orders of a blame. */
static bool take_orders(const std::vector<node> &expectations, history_truth *truth)
{
    bool complete = !expectations.empty();

    for (const node &expected : expectations) {
        const std::string module =
            expected["documents"]["bypass_mgr_persistence.ejs"]["data"]["crash_info"].text(
                "module_name");

        if (!module.empty())
            truth->blamed = module;
        complete = complete && expected["commands"];
        for (const node &command : expected["commands"].elements()) {
            const history_order order = {command.text("to"), command.text("type"),
                                         command.text("reason", "none"),
                                         command.integer("count", 0)};

            if (order.type == "bypass" && truth->blamed.empty() && command["at"])
                truth->blamed_ms = timeline_ms(timeline_seconds(command));
            if (order.type == "bypass")
                truth->blamed = order.reason;
            truth->all_orders |= order.type == "bypass";
            truth->orders.insert(order);
        }
    }
    return complete;
}

void history_expect(const struct scenario &scenario, history *history)
{
    const std::vector<node> boots = node(scenario)["boots"].elements();

    for (size_t i = 0; i < history->boots.size(); i++) {
        history_truth &truth = history->boots[i].truth;
        double from = 0;

        truth.why = history_unshown(scenario, i, &from);
        if (from == 0 || history->boots[i].start_record == 0)
            continue;
        const bool complete = take_orders(expectations(boots[i], truth.why, from), &truth);

        /* Counts last from boot to boot, and replay's products begin with those of the first. */
        truth.all_orders |= complete && i == 0 && from >= DECIDED_SECONDS;
        if (!truth.blamed.empty() || (complete && from >= DECIDED_SECONDS))
            truth.why.clear();
        else if (truth.why.empty())
            truth.why = "the scenario does not state it";
        if (truth.why.empty() && !truth.blamed.empty())
            truth.answer = "bypass";
        for (const crash_dump &dump : history->boots[i].dumps)
            if (dump.replaced)
                truth.why = dump.path + " was replaced by a later crash";
    }
}
