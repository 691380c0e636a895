/* The agent in a scenario. */
#include "agent_process.h"

#include "../agent/agent.h"
#include "management.h"
#include "products.h"
#include "journal.h"
#include "timeline.h"

void agent_process_start(void)
{
    if (agent_state_get() == AGENT_RUNNING)
        return;
    journal_add(HAPPENED_AGENT, "agent", "starts and loads the plug-in");
    agent_start();
    if (agent_state_get() == AGENT_EXITED) {
        agent_stop();
        journal_add(HAPPENED_AGENT, "agent", "was ended by the plug-in, exit code 0");
        return;
    }
    management_agent_started();
    products_agent_started();
}

void agent_process_stop(const std::string &why)
{
    if (agent_state_get() != AGENT_RUNNING)
        return;
    /* Recorded while everything is still there to be examined. */
    journal_add(HAPPENED_AGENT, "agent", why);
    agent_stop();
    products_agent_stopped();
}

void agent_process_run_until(uint64_t ms)
{
    bool was_running = agent_state_get() == AGENT_RUNNING;

    agent_run_until(ms > timeline_now_ms() ? ms : timeline_now_ms());
    if (was_running && agent_state_get() == AGENT_EXITED) {
        products_agent_stopped();
        journal_add(HAPPENED_AGENT, "agent", "was ended by the plug-in, exit code 0");
    }
}
