/* The agent's blocks and handles at its end. */
#include "leaks.h"

#include "agent/agent.h"
#include "base/text.h"
#include "calls/calls.h"
#include "liboxnibase/host.h"
#include "machine/modules.h"

/* Longer than any product's name in scenarios and on random machines. */
static constexpr int NAME_BYTES = 32;

struct search {
    uint64_t names; /* of products, that may be lost */
    std::vector<std::string> lost;
};

static void add_lost(const char *site, uint64_t blocks, uint64_t bytes, void *user)
{
    search *search = static_cast<struct search *>(user);

    if (blocks <= search->names && bytes <= blocks * NAME_BYTES) {
        search->names = 0; /* they come from one place */
        return;
    }
    search->lost.push_back(text_format("%llu blocks of %llu bytes from %s are lost",
                                       static_cast<unsigned long long>(blocks),
                                       static_cast<unsigned long long>(bytes), site));
}

std::vector<std::string> leaks_of_agent(const void *plugin, uint64_t failed_uploads)
{
    std::string open = calls_left_open(), engine = machine_engine_left(),
                libraries = machine_libraries_left();
    search search = {failed_uploads, {}};

    if (agent_state_get() == AGENT_EXITED)
        return {};
    oxnih_memory_lost(plugin, add_lost, &search);
    if (!open.empty())
        search.lost.push_back("left open: " + open);
    if (!libraries.empty())
        search.lost.push_back("left loaded: " + libraries);
    if (!engine.empty())
        search.lost.push_back("not released: " + engine);
    return search.lost;
}
