/*
 * The history of a scenario's machine, as far as evidence can show it: the records, dumps and products
 * of all its boots. The scenario is played without the agent, so nothing here calls the plug-in.
 */
#ifndef DEVHOST_HISTORY_H
#define DEVHOST_HISTORY_H

#include <cstdint>
#include <windows.h>

#include <set>
#include <string>
#include <vector>

#include "../base/event_record.h"
#include "../scenario/scenario.h"

/* crash_dump.cpp: crash dumps with chosen call sites. */
struct crash_dump {
    std::string path;                /* on the machine */
    bool complete;                   /* a kernel dump with bitmap; else a small dump */
    std::vector<std::string> frames; /* call sites, top first: "nt!KeBugCheckEx+0x107" */
    uint32_t code;                   /* bug check */
    uint64_t parameters[4];
    uint64_t crashed_100ns, uptime_100ns;
    uint64_t written_100ns;
    bool replaced; /* by a later one of the same path */
};

/* Splits the engine's text of a stack into call sites. Result: false for a text that is no list of call
 * sites, which no dump contains. */
bool crash_dump_frames(const std::string &stack, std::vector<std::string> *frames);

/* The address at which the topmost frame outside the kernel executes; 0: there are no frames. */
uint64_t crash_dump_fault(const std::vector<std::string> &frames);

/* The bytes of the dump. loaded: names of further modules that were loaded. */
std::string crash_dump_bytes(const crash_dump &dump, const std::vector<std::string> &loaded);

struct history_product {
    std::string name;
    std::vector<std::string> modules;
    int64_t count;
    std::string status;
};

/* An order of the plug-in. */
struct history_order {
    std::string to, type, reason;
    int64_t count; /* of "set_count" */

    bool operator<(const history_order &other) const;
    bool operator==(const history_order &other) const;
};

/* What is right to decide in a boot; what is not known is not stated. */
struct history_truth {
    std::string why;         /* why what was decided is not known; empty: it is known */
    std::string ended;       /* how the boot's run ended: "blue screen" */
    std::string answer;      /* of replay: "bypass", "no bypass", "cannot tell" */
    std::string verdict;     /* on the previous run: "power loss" */
    std::string blamed;      /* module; empty: none */
    uint64_t blamed_ms = 0;  /* since the start of Windows; 0: not known */
    uint64_t decided_ms = 0; /* when the last check reached its verdict, likewise */
    bool all_orders = false;
    std::set<history_order> orders; /* each once */
};

struct history_boot {
    uint64_t started_100ns;
    std::string ended;     /* "clean", "power_loss", "blue_screen"; the last boot goes on: empty */
    size_t records, end;   /* indexes in history.records, end exclusive */
    uint32_t start_record; /* number of the record of the start; 0: it was not logged */
    std::vector<crash_dump> dumps;
    history_truth truth;
};

struct history {
    std::string name;
    std::vector<event_record> records; /* by rising number */
    std::vector<history_boot> boots;
    std::vector<history_product> products;
    std::string ended_before;   /* how the run before the first boot ended */
    std::string time_zone;      /* name of the machine's last one; empty: it has only rules */
    TIME_ZONE_INFORMATION zone; /* its rules */
};

struct history_options {
    unsigned noise = 12;      /* further records a boot */
    uint64_t seed = 1;        /* of what no scenario states */
    bool memory_dump = false; /* the last crash with a small dump leaves MEMORY.DMP, too */
};

/* Plays the scenario in that folder, which is empty. Afterwards the machine's registry is that of the
 * last boot. Throws devhost_error with EXIT_BAD_CALL for a scenario that evidence cannot show. */
history history_of(const struct scenario &scenario, const std::string &run_folder,
                   const struct history_options &options);

/* expectations.cpp: fills in the truth of each boot, from the expectations of the scenario. */
void history_expect(const struct scenario &scenario, history *history);
/* Returns why evidence shows a boot of the scenario only in part, and from which second on; empty: it
 * shows all of it. */
std::string history_unshown(const struct scenario &scenario, size_t boot, double *from);

/* accompany.cpp: records that only accompany the runs of Windows in a System log. */
struct accompanied_boot {
    uint64_t from_100ns, to_100ns; /* start, and end or export, by the clock as it is set then */
    std::string
        ended_before; /* how the previous run ended; empty: the boot's start is not in the log */
    std::string ends; /* how this one ends; empty: it goes on */
    unsigned noise;   /* number of records of services */
    uint64_t seed;
};

/* Adds records to those of a boot, in the order of time up to a change of the clock: the event log and
 * the session begin and end, and services, some with names in other scripts, change their state. */
void accompany_boot(const accompanied_boot &boot, std::vector<event_record> *events);

#endif
