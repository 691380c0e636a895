/* The agent in a scenario. */
#include "agent_process.h"

#include "../../platform/liboxnibase/host.h"
#include "../agent/agent.h"
#include "../calls/calls.h"
#include "../machine/machine.h"
#include "../participants/management.h"
#include "../participants/observe.h"
#include "../participants/products.h"
#include "../scenario/journal.h"
#include "../scenario/timeline.h"
#include "callbacks.h"

/* All that ends with the agent's process. */
static void forget_agent(void)
{
    products_agent_stopped();
    observe_agent_stopped();
    callbacks_agent_stopped();
}

static uint64_t failed_token_calls(void)
{
    return calls_failed("OpenProcessToken") + calls_failed("LookupPrivilegeValueA") +
           calls_failed("AdjustTokenPrivileges");
}

static uint64_t s_failed_before; /* of these calls, at the start of the process */

/* The token belongs to the whole process: a plug-in must not change it for the others, unless a call
 * that it needs fails. */
static void check_token(void)
{
    const std::string changes = machine_token_changes();

    if (!changes.empty() && failed_token_calls() == s_failed_before)
        oxnih_complain("the agent's token is not as it was: %s", changes.c_str());
}

/* The plug-in may have ended the process in its entry. Result: whether it did. */
static bool ended_in_entry(void)
{
    if (agent_state_get() != AGENT_EXITED)
        return false;
    agent_stop();
    forget_agent();
    journal_add(HAPPENED_AGENT, "agent", "was ended by the plug-in, exit code 0");
    return true;
}

void agent_process_start(void)
{
    if (agent_state_get() == AGENT_RUNNING)
        return;
    journal_add(HAPPENED_AGENT, "agent", "starts and loads the plug-in");
    s_failed_before = failed_token_calls();
    agent_start();
    if (ended_in_entry())
        return;
    management_agent_started();
    products_agent_started();
}

uint64_t agent_process_init_again(void)
{
    const uint64_t result = agent_call_entry();

    (void)ended_in_entry();
    return result;
}

void agent_process_stop(const std::string &why)
{
    if (agent_state_get() != AGENT_RUNNING)
        return;
    /* Recorded while everything is still there to be examined. */
    journal_add(HAPPENED_AGENT, "agent", why);
    check_token();
    agent_stop();
    forget_agent();
}

void agent_process_run_until(uint64_t ms)
{
    bool was_running = agent_state_get() == AGENT_RUNNING;

    agent_run_until(ms > timeline_now_ms() ? ms : timeline_now_ms());
    if (was_running && agent_state_get() == AGENT_EXITED) {
        forget_agent();
        journal_add(HAPPENED_AGENT, "agent", "was ended by the plug-in, exit code 0");
    }
}
