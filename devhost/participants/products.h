/* The products of a scenario: the agent modules that register with the plug-in. */
#ifndef DEVHOST_PRODUCTS_H
#define DEVHOST_PRODUCTS_H

#include <cstdint>

#include <string>
#include <vector>

#include "../scenario/scenario.h"

/* products: of the scenario, may be missing. */
void products_open(const node &products);
/* Plans the registrations of the products that register by themselves. */
void products_agent_started(void);
/* Forgets their handles, which end with the agent's process. */
void products_agent_stopped(void);
/* Throw devhost_error for a name that is no product. */
void product_register(const std::string &key);
void product_send(const std::string &key, const json_value &message);
/* Reports the product's present status and count by "modify". */
void product_tell(const std::string &key);
void product_unsubscribe(const std::string &key);
/* Changes the members of a product that are given. */
void product_change(const std::string &key, const node &changes);
/* Returns {"status": ..., "count": ..., "commands": ..., "references": ...} as JSON text. */
std::string product_state_text(const std::string &key);
std::vector<std::string> product_keys(void);
/* Returns the line of a product in the summary: its state, and the last command with its reason. */
std::string product_summary(const std::string &key);
/* Returns the product's key for a handle; namespace and name for a handle of no product. */
std::string product_of(struct oxni_subscriber *subscriber);
/* Makes the nth command from now on undeliverable with that error (1 is the next one), once or
 * persistently; nth 0: none. */
void product_disturb(uint64_t nth, bool forever, int32_t error);
/* Returns the number of commands in this boot. */
uint64_t product_pushes(void);
/* Called when a command to a handle is pushed, and when it is replied to. */
void product_pushed(struct oxni_subscriber *subscriber);
void product_replied(struct oxni_subscriber *subscriber);
/* Returns the latest handle of that product_of key since the agent's start; NULL: none was seen. */
struct oxni_subscriber *subscriber_seen(const std::string &whom);
/* Pushes a message, unchanged, to the subscriber of that product_of key, as the plug-in would. Result:
 * whether the subscriber was seen since the agent's start. */
bool subscriber_order(const std::string &whom, const json_value &message);

#endif
