/*
 * The timeline of a boot: planned actions, the present moment, and the times of a scenario. Of this
 * directory it uses only the scenario.
 */
#ifndef DEVHOST_TIMELINE_H
#define DEVHOST_TIMELINE_H

#include <cstdint>

#include <functional>
#include <string>

#include "scenario.h"

/* An action and its moment, ms since Windows started. */
struct planned_action {
    uint64_t ms;
    bool before; /* before all that is due at this moment, not after it */
    std::function<void()> run;
};

/* Plans an action of this boot; one in the past happens as soon as it can. Actions of one moment
 * happen in the order of the calls, steps with "before" first. */
void timeline_at(uint64_t ms, std::function<void()> run, bool before = false);

/* Removes the first action that is planned up to that moment, inclusive, from the plan. Result:
 * whether there is one. */
bool timeline_take(uint64_t end_ms, planned_action *action);

/* Forgets all that is planned. */
void timeline_clear(void);

/* Milliseconds since Windows started. */
uint64_t timeline_now_ms(void);

/* "at" of a step or of an expected event: seconds since Windows started. */
double timeline_seconds(const node &step);

/* Milliseconds of a number of seconds. */
uint64_t timeline_ms(double seconds);

/* Returns a time of the scenario, ISO 8601 or seconds since this boot's start, as a FILETIME.
 * missing: the result for a missing value. Throws devhost_error. */
uint64_t timeline_time(const node &value, uint64_t missing);

/* Defaults of a boot. */
static constexpr double AGENT_START_SECONDS = 10.0;
static constexpr double BOOT_SECONDS = 600.0;

#endif
