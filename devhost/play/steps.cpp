/* The steps of a scenario: one table, a row for each thing that can be done. */
#include "steps.h"

#include <string_view>

#include "../../platform/liboxni_core/host.h"
#include "../../platform/liboxnibase/host.h"
#include "../agent/agent.h"
#include "../base/text.h"
#include "../calls/calls.h"
#include "../disk/files.h"
#include "../expect/expect.h"
#include "../machine/registry.h"
#include "../participants/machine_setup.h"
#include "../participants/management.h"
#include "../participants/products.h"
#include "../scenario/journal.h"
#include "../scenario/timeline.h"
#include "agent_process.h"
#include "callbacks.h"

struct step_context {
    const node &step;
    const node &value; /* of the member that names the step */
    std::vector<std::string> &failures;
};

static void say(const std::string &text)
{
    journal_add(HAPPENED_STEP, "windows", text);
}

static void step_agent(const step_context &context)
{
    std::string what = context.value->GetString();

    if (what != "start")
        agent_process_stop(what == "stop" ? "stops" : "stops to start again");
    if (what != "stop")
        agent_process_start();
}

static void step_register(const step_context &context)
{
    product_register(context.value->GetString());
}

static void step_send(const step_context &context)
{
    product_send(context.value->GetString(), *context.step["message"]);
}

static void step_order(const step_context &context)
{
    if (!subscriber_order(context.value->GetString(), *context.step["message"]))
        context.value.bad("no subscriber of this name was seen since the start of the agent");
}

static void step_tell(const step_context &context)
{
    product_tell(context.value->GetString());
}

static void step_unsubscribe(const step_context &context)
{
    product_unsubscribe(context.value->GetString());
}

static void step_console(const step_context &context)
{
    oxnih_dbg_run("oxni", context.value->GetString());
}

static void step_product(const step_context &context)
{
    product_change(context.value->GetString(), context.step["set"]);
}

static void step_log_level(const step_context &context)
{
    machine_setup_log_level(context.value->GetString());
    say(std::string("the log level is ") + context.value->GetString());
}

/* A second call of the plug-in's entry; the value is the expected result. */
static void step_init(const step_context &context)
{
    const uint64_t result = agent_process_init_again();

    say(text_format("oxni_plugin_init is called again, result %llu", result));
    if (result != context.value->GetUint64())
        context.failures.push_back(context.value.place() +
                                   text_format(": result %llu, expected ", result) +
                                   node_to_text(*context.value));
}

static void step_callback(const step_context &context)
{
    callbacks_call(context.value->GetString(), context.step["arguments"]);
}

static void step_event(const step_context &context)
{
    say(text_format("logs event %u of %s",
                    static_cast<unsigned>(context.value.integer("id", 0)) & 0xffff,
                    context.value.text("source").c_str()));
    machine_setup_event(context.value);
}

static void step_delete_file(const step_context &context)
{
    machine_delete_file(machine_setup_path(context.value->GetString()));
    say(std::string("file ") + context.value->GetString() + " is deleted");
}

/* Another program opens the file for reading and writing, and shares it as stated. */
static void step_hold_file(const step_context &context)
{
    static const struct {
        const char *name;
        DWORD share;
    } shares[] = {
        {"none",       0                                                     },
        {"read",       FILE_SHARE_READ                                       },
        {"read_write", FILE_SHARE_READ | FILE_SHARE_WRITE                    },
        {"all",        FILE_SHARE_READ | FILE_SHARE_WRITE | FILE_SHARE_DELETE}
    };
    const std::string share = context.step.text("share", "none");

    for (const auto &row : shares)
        if (share == row.name)
            machine_hold_file(machine_setup_path(context.value->GetString()), row.share);
    say(std::string("file ") + context.value->GetString() + " is held open, shared: " + share);
}

static void step_release_file(const step_context &context)
{
    machine_release_file(machine_setup_path(context.value->GetString()));
    say(std::string("file ") + context.value->GetString() + " is closed by its holder");
}

/* A copy is a new file: created now, its content as before. */
static void step_copy_file(const step_context &context)
{
    std::string to = context.step.text("to");
    uint64_t now = oxnih_clock_now_100ns();

    machine_write_file(
        machine_setup_path(to),
        machine_read_real_file(machine_real_path(machine_setup_path(context.value->GetString())),
                               EXIT_BAD_CALL),
        now, now);
    say(std::string("file ") + context.value->GetString() + " is copied to " + to);
}

static void step_registry(const step_context &context)
{
    machine_setup_value(context.value);
    say("registry value " + context.value.text("name") + " is set");
}

static void step_delete_value(const step_context &context)
{
    machine_delete_value(text_wide(context.value.text("key")),
                         text_wide(context.value.text("name")));
    say("registry value " + context.value.text("name") + " is deleted");
}

static void step_delete_key(const step_context &context)
{
    machine_delete_key(text_wide(context.value->GetString()));
    say(std::string("registry key ") + context.value->GetString() + " is deleted");
}

static void step_clock(const step_context &context)
{
    uint64_t now = timeline_time(context.value, 0);

    if (!oxnih_clock_is_simulated())
        context.value.bad("in real time the clock is this machine's and is not set");
    oxnih_clock_set_wall(now);
    say("the clock is set to " + time_iso(now));
}

static void step_fail(const step_context &context)
{
    std::string call = context.value->GetString();
    uint64_t nth = static_cast<uint64_t>(context.step.integer("nth", 1));
    uint64_t times = static_cast<uint64_t>(context.step.integer("times", 1));
    uint32_t error = static_cast<uint32_t>(context.step.integer("error", 0));

    std::string with = context.step.text("with");

    calls_fail(call, nth, times, error, with);
    say(text_format("call %llu of %s from now on fails with %u", nth,
                    (with.empty() ? call : call + "(" + with + ")").c_str(), error));
}

static void step_fail_allocation(const step_context &context)
{
    oxnih_memory_fail(context.value->GetUint64(), context.step.flag("forever", false));
    say(text_format("allocation %llu from here on fails", context.value->GetUint64()));
}

static const struct {
    std::string_view member;
    bool needs_agent; /* its process must be there */
    void (*run)(const step_context &context);
} s_steps[] = {
    {"agent",           false, step_agent                                                         },
    {"register",        true,  step_register                                                      },
    {"send",            true,  step_send                                                          },
    {"order",           true,  step_order                                                         },
    {"tell",            true,  step_tell                                                          },
    {"unsubscribe",     true,  step_unsubscribe                                                   },
    {"console",         true,  step_console                                                       },
    {"product",         false, step_product                                                       },
    {"management",      false, [](const step_context &at) { management_change(at.value); }        },
    {"link",            false, [](const step_context &at) { management_set_link(at.value); }      },
    {"report_link",     false, [](const step_context &at) { management_report_link(at.value); }   },
    {"log_level",       false, step_log_level                                                     },
    {"init",            true,  step_init                                                          },
    {"callback",        true,  step_callback                                                      },
    {"event",           false, step_event                                                         },
    {"file",            false, [](const step_context &at) { machine_setup_file(at.value); }       },
    {"delete_file",     false, step_delete_file                                                   },
    {"copy_file",       false, step_copy_file                                                     },
    {"hold_file",       false, step_hold_file                                                     },
    {"release_file",    false, step_release_file                                                  },
    {"registry",        false, step_registry                                                      },
    {"delete_value",    false, step_delete_value                                                  },
    {"delete_key",      false, step_delete_key                                                    },
    {"machine",         false, [](const step_context &at) { machine_setup_apply(at.value); }      },
    {"clock",           false, step_clock                                                         },
    {"fail",            false, step_fail                                                          },
    {"fail_allocation", false, step_fail_allocation                                               },
    {"expect",          false, [](const step_context &at) { expect_check(at.value, at.failures); }},
};

/* Members that belong to a step of another name, and the step. */
static const struct {
    const char *step, *member;
} s_needed[] = {
    {"send",      "message"  },
    {"callback",  "arguments"},
    {"order",     "message"  },
    {"product",   "set"      },
    {"copy_file", "to"       },
};

/* Why a call cannot fail as the step "fail" wants; empty: it can. */
static std::string failure_problem(const node &step)
{
    const std::string name = step.text("fail");

    if (!calls_can_fail(name, 1))
        return "\"" + name + "\" is not a call of the plug-in that can fail";
    if (!calls_can_fail(name, static_cast<uint32_t>(step.integer("error", 0))))
        return "\"" + name + "\" needs an \"error\" that is not 0";
    return "";
}

std::string step_problem(const node &step)
{
    std::string does;

    for (const auto &row : s_steps) {
        if (!step[row.member.data()])
            continue;
        if (!does.empty())
            return "both \"" + does + "\" and \"" + std::string(row.member) +
                   "\", expected one action in a step";
        does = row.member;
    }
    if (does.empty())
        return "no action, expected a member such as \"register\"";
    for (const auto &row : s_needed)
        if (does == row.step && !step[row.member])
            return std::string("member \"") + row.member + "\" is missing";
    if (does == "callback" && step.text("callback") != "console" && !step["arguments"]["of"])
        return "\"arguments\": member \"of\" is missing, the subscriber that is passed";
    return does == "fail" ? failure_problem(step) : "";
}

void step_run(const node &step, std::vector<std::string> &failures)
{
    for (const auto &[name, value] : step.members())
        for (const auto &row : s_steps)
            if (name == row.member) {
                if (row.needs_agent && agent_state_get() != AGENT_RUNNING)
                    step.bad("the agent is not running at this moment");
                row.run({step, value, failures});
            }
}
