/* The agent of a scenario: start and end of its process, its products, the management side. */
#ifndef DEVHOST_AGENT_PROCESS_H
#define DEVHOST_AGENT_PROCESS_H

#include <cstdint>

#include <string>

/* The agent starts; its products register some time later. Harmless when it is running. */
void agent_process_start(void);

/* Calls the plug-in's entry once more. Returns its result. */
uint64_t agent_process_init_again(void);

/* The agent's process ends. why: for the journal. Harmless when it is not running. */
void agent_process_stop(const std::string &why);

/* Delivers everything up to that tick, ms since Windows started; an agent that ends itself on the way
 * is recorded once. Throws devhost_error as agent_run_until. */
void agent_process_run_until(uint64_t ms);

#endif
