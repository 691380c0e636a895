/* Leaks of the plug-in at the end of its agent. Host's one thread. */
#ifndef LEAKS_H
#define LEAKS_H

#include <cstdint>

#include <string>
#include <vector>

/* Guarded blocks to which nothing points any more, open handles, and references to the debugger
 * engine; one line for each place that they come from. Empty for an agent that the allocation guard
 * ended: Windows frees what it held. The plug-in is known to lose the product's name with each
 * upload that fails in transport; so many are excused. plugin: its module, still loaded. */
std::vector<std::string> leaks_of_agent(const void *plugin, uint64_t failed_uploads);

#endif
