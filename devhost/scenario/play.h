/*
 * Playing a scenario: its boots one after the other, each with its timeline of Windows' own events,
 * the agent's life and the scenario's steps.
 */
#ifndef DEVHOST_PLAY_H
#define DEVHOST_PLAY_H

#include <functional>
#include <string>
#include <vector>

#include "scenario.h"

struct play_options {
    std::string run_folder;  /* exists, empty; UTF-8, with backslashes */
    std::string plugin_path; /* the DLL to load */
    bool real_time;
    bool skip_impossible; /* a step that cannot be done at its moment is left out, no error */
};

/* Opens machine and agent for a scenario, which must live until play_close. Throws devhost_error,
 * as do all others that play: the run cannot go on then, and only play_close may follow. */
void play_open(const struct scenario &scenario, const struct play_options &options);

/* Windows starts for the next boot of the scenario. Result: false when there is none. */
bool play_begin_boot(void);
/* Plays on to a moment of the present boot. */
void play_run_until(uint64_t ms);
/* Where the scenario ends the present boot. */
uint64_t play_boot_end_ms(void);
/* The boot's expectations are checked, and Windows ends as the scenario says. */
void play_end_boot(void);

/* Result: what did not hold, one text each; empty when everything did. */
std::vector<std::string> play_close(void);

/* For the other rooms of a scenario. */

/* Does something at a moment of this boot, ms since Windows started; what is past happens as soon
 * as it can. Of one moment, in the order of the calls. */
void play_at(uint64_t ms, std::function<void()> action);
uint64_t play_now_ms(void);
/* Milliseconds of a number of seconds. */
uint64_t play_ms(double seconds);
/* A time of the scenario: ISO 8601, or seconds since this boot's start. FILETIME. */
uint64_t play_time(const struct scenario &scenario, const std::string &where,
                   const json_value *value, uint64_t missing);
/* The agent starts; its products register some time later. */
void play_start_agent(void);
void play_stop_agent(const std::string &why);

/* observe.cpp: log lines, complaints and events of the platform are recorded from here on. */
void observe_platform(void);

/* products.cpp: the agent modules that register with the plug-in. */

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

/* management.cpp: the other end of the link. */

void management_open(const struct scenario &scenario);
void management_agent_started(void);
void management_change(const json_value &changes);

/* evidence.cpp: what Windows leaves of a run, and what a scenario puts there. */

/* Takes over the members of a "machine". */
void evidence_set_machine(const struct scenario &scenario, const std::string &where,
                          const json_value &machine);
void evidence_add_event(const struct scenario &scenario, const std::string &where,
                        const json_value &event);
void evidence_add_file(const struct scenario &scenario, const std::string &where,
                       const json_value &file);
void evidence_set_value(const struct scenario &scenario, const std::string &where,
                        const json_value &value);
/* Plans the records and dumps that Windows writes in this boot. ended: how the last run ended;
 * crash: of that run, or NULL. */
void evidence_plan_boot(const struct scenario &scenario, const json_value *boot,
                        const std::string &ended, const json_value *crash, uint64_t crashed_100ns);
/* A path of the machine in which "{base}" and "{bin}" are replaced. */
std::wstring evidence_place(const std::string &path);
/* The count in the bytes of a driver's crash record; -1 for another size. */
int64_t evidence_record_count(const std::string &bytes);
/* The record of a clean shutdown. */
void evidence_clean_shutdown(void);

/* steps.cpp */

/* Throws devhost_error unless a step does exactly one thing that can be done. */
void step_check(const struct scenario &scenario, const std::string &where, const json_value &step);
/* Does one step of a boot. failures receives what an expectation in it finds. */
void step_run(const struct scenario &scenario, const std::string &where, const json_value &step,
              std::vector<std::string> &failures);

/* expect.cpp */

/* Looks at what happened in this boot since its start or its last expectation. */
void expect_check(const struct scenario &scenario, const std::string &where,
                  const json_value &expect, std::vector<std::string> &failures);
/* A boot begins. */
void expect_start_boot(void);
/* A boot ended: whoever broke the platform's rules behind the last expectation fails it, too. */
void expect_no_complaints(const struct scenario &scenario, const std::string &where,
                          std::vector<std::string> &failures);

#endif
