/* Lists of failures, and how each is brought about. */
#include "failures.h"

#include <algorithm>

#include "liboxnibase/host.h"
#include "machine/calls.h"
#include "machine/machine.h"
#include "scenario/products.h"
#include "base/text.h"

/* So many calls of a name in a boot fail each in a run of its own; of those behind them, runs of so
 * many make each fail once. */
#define BATCH 32ull
/* "For ever" begins at each of so many calls of a name in a boot, and behind them at the 1,024th,
 * 2,048th and so on: there it is the same poll again and again. */
#define FOREVER_CALLS 512ull

static const struct {
    const char *call;
    uint32_t results[3];
} s_engine_failures[] = {
    {"DebugCreate",        {0x80004005, 0x8007000e, 0x80004002}},
    {"QueryInterface",     {0x80004002, 0x8007000e, 0x80004005}},
    {"SetOutputCallbacks", {0x80004005, 0x80070057, 0x00000001}},
    {"OpenDumpFileWide",   {0x80070002, 0x80070005, 0x8007000d}},
    {"WaitForEvent",       {0x80004005, 0x00000001, 0x8000000a}},
    {"GetStackTrace",      {0x80004005, 0x80004001, 0x8007000e}},
    {"OutputStackTrace",   {0x80004005, 0x80004001, 0x8007000e}},
};

/* Those fail in the sweep of allocations. */
static bool is_allocation(const std::string &call)
{
    return call == "oxni_zero_malloc_" || call == "oxni_ralloc_" || call == "oxni_strdup";
}

/* Both ways of one failure. */
static void add_both(boot_failures &list, const failure &once)
{
    list.once.push_back(once);
    list.forever.push_back(once);
    list.forever.back().times = 0;
}

static void add_calls(boot_failures &list, const std::string &call, uint64_t count)
{
    std::vector<uint32_t> errors = calls_errors(call);

    for (uint64_t nth = 1; nth <= std::min<uint64_t>(count, BATCH); nth++)
        for (size_t i = 0; i < errors.size(); i++)
            if (nth <= 2 || i == nth % errors.size())
                add_both(list, {FAILS_CALL, nth, 1, call, errors[i]});
    /* Behind those it is the same again and again, as in the polls of a driver. */
    for (uint64_t nth = BATCH + 1; nth <= std::min<uint64_t>(count, 2 * BATCH); nth++)
        list.once.push_back(
            {FAILS_CALL, nth, (count - nth) / BATCH + 1, call, errors[nth % errors.size()]});
    for (uint64_t nth = BATCH + 1; nth <= count; nth = nth < FOREVER_CALLS ? nth + 1 : nth * 2)
        list.forever.push_back({FAILS_CALL, nth, 0, call, errors[nth % errors.size()]});
}

boot_failures failures_list(const std::string &kind, const boot_counts &plain)
{
    boot_failures list;

    if (kind == "allocations") {
        for (uint64_t nth = 1; nth <= plain.allocations; nth++)
            add_both(list, {FAILS_ALLOCATION, nth, 1, "", 0});
        return list;
    }
    for (const auto &call : plain.calls)
        if (!is_allocation(call.first))
            add_calls(list, call.first, call.second);
    for (uint64_t nth = 1; nth <= plain.pushes; nth++)
        for (uint32_t error : {2u, 110u})
            add_both(list, {FAILS_PUSH, nth, 1, "", error});
    if (plain.calls.at("LoadLibraryW") != 0)
        for (const auto &row : s_engine_failures)
            for (uint32_t result : row.results)
                list.forever.push_back({FAILS_ENGINE, 1, 0, row.call, result});
    return list;
}

void failure_arm(const failure &failure)
{
    if (failure.way == FAILS_ALLOCATION && failure.times == 0)
        oxnih_memory_fail(failure.nth, 1);
    if (failure.way == FAILS_ALLOCATION && failure.times != 0)
        oxnih_memory_fail_also(failure.nth);
    if (failure.way == FAILS_CALL)
        for (uint64_t i = 0; i < std::max<uint64_t>(failure.times, 1); i++)
            calls_fail(failure.call, failure.nth + i * BATCH, failure.times == 0 ? 0 : 1,
                       failure.error);
    if (failure.way == FAILS_PUSH)
        product_disturb(failure.nth, failure.times == 0, static_cast<int32_t>(failure.error));
    if (failure.way == FAILS_ENGINE) {
        machine_get().engine_faults[failure.call] = static_cast<HRESULT>(failure.error);
        machine_update_engine();
    }
}

void failure_disarm(const failure &failure)
{
    oxnih_memory_fail(0, 0);
    if (failure.way == FAILS_ENGINE) {
        machine_get().engine_faults.erase(failure.call);
        machine_update_engine();
    }
}

uint64_t failure_came_about(const failure &failure, const boot_counts &counts)
{
    if (failure.way == FAILS_ALLOCATION)
        return counts.allocations >= failure.nth; /* of "for ever" the first one */
    if (failure.way == FAILS_ENGINE)
        return 1;
    uint64_t calls = failure.way == FAILS_PUSH ? counts.pushes : counts.calls.at(failure.call);
    if (calls < failure.nth)
        return 0;
    return failure.times == 0 ? calls - failure.nth + 1
                              : std::min(failure.times, (calls - failure.nth) / BATCH + 1);
}

std::string failure_text(const failure &failure)
{
    static const char *const ways[] = {"allocation", "call", "every call of the engine's",
                                       "delivery of command"};

    return text_format("%s %llu %s%s, error 0x%x", ways[failure.way],
                       static_cast<unsigned long long>(failure.nth), failure.call.c_str(),
                       failure.times == 0 ? " and all behind it" : "", failure.error);
}
