/* The list of failures, and how each is injected. */
#include "failures.h"

#include "base/text.h"
#include "calls/calls.h"
#include "liboxnibase/host.h"
#include "machine/modules.h"
#include "participants/products.h"

/* Calls of a name that fail with each of their errors; the later ones take one error in turn. */
static constexpr uint32_t ALL_ERRORS_CALLS = 2u;
/* So many calls of a name in a boot fail each; later ones repeat the polls of a driver or of ten
 * days. */
static constexpr uint32_t FIRST_CALLS = 128u;

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

/* Total of the allocations before the boot. */
static uint64_t s_allocations_before;

/* These fail as allocations. */
static bool is_allocation(const std::string &call)
{
    return call == "oxni_zero_malloc_" || call == "oxni_ralloc_" || call == "oxni_strdup";
}

static void add_calls(std::vector<failure> &list, const std::string &call, uint64_t count)
{
    std::vector<uint32_t> errors = calls_errors(call);

    for (uint64_t nth = 1; nth <= count; nth = nth < FIRST_CALLS ? nth + 1 : nth * 2)
        for (size_t i = 0; i < errors.size(); i++)
            if (nth <= ALL_ERRORS_CALLS || i == nth % errors.size())
                list.push_back({FAILS_CALL, nth, false, call, errors[i]});
}

static void add_engine(std::vector<failure> &list)
{
    for (const auto &row : s_engine_failures)
        for (uint32_t result : row.results)
            list.push_back({FAILS_ENGINE, 1, true, row.call, result});
}

std::vector<failure> failures_of(const std::string &kind, const boot_counts &plain)
{
    std::vector<failure> list;

    if (kind == "allocations") {
        for (uint64_t nth = 1; nth <= plain.allocations; nth++)
            list.push_back({FAILS_ALLOCATION, nth, false, "", 0});
    } else {
        for (const auto &call : plain.calls)
            if (!is_allocation(call.first))
                add_calls(list, call.first, call.second);
        for (uint64_t nth = 1; nth <= plain.commands; nth++)
            for (uint32_t error : {2u, 110u})
                list.push_back({FAILS_DELIVERY, nth, false, "", error});
    }
    for (size_t i = 0, once = list.size(); i < once; i++) {
        list.push_back(list[i]);
        list.back().persistent = true;
    }
    if (kind == "calls" && plain.calls.at("LoadLibraryW") != 0)
        add_engine(list);
    return list;
}

static uint64_t allocations(void)
{
    oxnih_memory_stats stats;

    oxnih_memory_get_stats(&stats);
    return stats.allocations;
}

void failure_arm(const failure *failure)
{
    s_allocations_before = allocations();
    product_disturb(0, false, 0);
    if (failure == nullptr)
        return;
    switch (failure->kind) {
    case FAILS_ALLOCATION: oxnih_memory_fail(failure->nth, failure->persistent); break;
    case FAILS_CALL:
        calls_fail(failure->call, failure->nth, failure->persistent ? 0 : 1, failure->error);
        break;
    case FAILS_DELIVERY:
        product_disturb(failure->nth, failure->persistent, static_cast<int32_t>(failure->error));
        break;
    case FAILS_ENGINE:
        machine_get_engine().faults[failure->call] = static_cast<HRESULT>(failure->error);
        machine_update_engine();
        break;
    }
}

bool failure_fired(const failure &failure)
{
    switch (failure.kind) {
    case FAILS_ALLOCATION: return allocations() - s_allocations_before >= failure.nth;
    case FAILS_CALL: return calls_count(failure.call) >= failure.nth;
    case FAILS_DELIVERY: return product_pushes() >= failure.nth;
    default: return true;
    }
}

boot_counts failure_disarm(const failure *failure)
{
    boot_counts counts = {allocations() - s_allocations_before, {}, product_pushes()};

    for (const std::string &name : calls_failing())
        counts.calls[name] = calls_count(name);
    oxnih_memory_fail(0, 0);
    if (failure != nullptr && failure->kind == FAILS_ENGINE) {
        machine_get_engine().faults.erase(failure->call);
        machine_update_engine();
    }
    return counts;
}

std::string failure_text(const failure &failure)
{
    static const char *const kinds[] = {"allocation", "call", "delivery of command",
                                        "every call of the engine's"};
    std::string text = kinds[failure.kind];

    if (failure.kind != FAILS_ENGINE)
        text += text_format(" %llu", static_cast<unsigned long long>(failure.nth));
    if (!failure.call.empty())
        text += (failure.kind == FAILS_CALL ? " of " : " ") + failure.call;
    text += failure.persistent ? " fails persistently" : " fails once";
    return failure.kind == FAILS_ALLOCATION ? text
                                            : text + text_format(", error 0x%x", failure.error);
}
