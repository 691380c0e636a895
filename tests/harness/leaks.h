/* What the plug-in leaves behind when its agent ends. Host's one thread. */
#ifndef LEAKS_H
#define LEAKS_H

#include <stdint.h>

#include <string>
#include <vector>

/* Blocks to which nothing points any more, when they are guarded, handles that are open and what of the engine's was not given back; one
 * line for each place that they come from. plugin: its module, still loaded. An agent that ended
 * itself in the middle of its work leaves all to Windows: empty then. Left out is what the plug-in
 * is known to leave: the product's name of each of the agent's uploads that failed in transport. */
std::vector<std::string> leaks_of_agent(const void *plugin, uint64_t failed_uploads);

#endif
