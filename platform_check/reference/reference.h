/* What the rows about the reference platform share: its choices, and what it promises to hosts. */
#ifndef PLATFORM_REFERENCE_H
#define PLATFORM_REFERENCE_H

#include "check.h"

#include <liboxni_core/host.h>
#include <liboxnibase/host.h>
#include <oxni/base/time.h>

/* Thrown by the exit function, as a host does to unwind the plug-in's frames. */
struct run_ended {
};

/* Converts seconds since 1970 to a UTC file time. */
constexpr uint64_t to_100ns(int64_t seconds)
{
    return static_cast<uint64_t>(seconds + 11644473600) * 10000000;
}

/* Simulates time from 2026-03-01 12:00:00 UTC and tick 1000 ms on. */
inline void simulate()
{
    oxnih_clock_simulate(to_100ns(1772366400), 1000);
}

/* Returns the complaints since the last call, joined by line feeds. */
std::string complaints();
/* Whether a text has reached the host's sink of the log. */
bool sunk(const std::string &text);
oxnih_memory_stats memory_stats();

inline bool contains(const std::string &text, const std::string &part)
{
    return text.find(part) != std::string::npos;
}

#endif
