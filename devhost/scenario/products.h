/* The products of a scenario: the agent modules that register with the plug-in. */
#ifndef DEVHOST_PRODUCTS_H
#define DEVHOST_PRODUCTS_H

#include <stdint.h>

#include <string>
#include <vector>

#include "scenario.h"

void products_open(const struct scenario &scenario);
/* Plans the registrations of those that register by themselves. */
void products_agent_started(void);
/* Their handles are gone with the agent. */
void products_agent_stopped(void);
/* Throw devhost_error for a name that is no product. */
void product_register(const std::string &key);
void product_send(const std::string &key, const json_value &message);
/* Its present status and count, by "modify". */
void product_tell(const std::string &key);
void product_unsubscribe(const std::string &key);
/* Changes what a "product" of the scenario says; only the members that are given. */
void product_change(const std::string &key, const json_value &changes);
/* {"status": ..., "count": ..., "commands": ..., "references": ...} as JSON text. */
std::string product_state_text(const std::string &key);
std::vector<std::string> product_keys(void);
/* One line a product for the summary: its state, and the last command with its reason. */
std::string product_summary(const std::string &key);
/* The product's key for a handle; namespace and name when it is nobody's. */
std::string product_of(struct oxni_subscriber *subscriber);
/* From here on the nth command (1 is the next) finds whoever it is for unreachable with that error,
 * once or it and all behind it; nth 0: none. */
void product_disturb(uint64_t nth, bool forever, int32_t error);
/* Commands in this boot. */
uint64_t product_pushes(void);
/* A command is on its way to a handle, and was answered. */
void product_pushed(struct oxni_subscriber *subscriber);
void product_replied(struct oxni_subscriber *subscriber);
/* Pushes a message as it stands to a subscriber that product_of calls so, as the plug-in would.
 * Result: whether it was seen since the agent's start. */
bool subscriber_order(const std::string &whom, const json_value &message);

#endif
