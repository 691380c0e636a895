/* What the reference platform promises to hosts: sentences of its host.h files. */
#include "reference.h"

#include <stdexcept>
#include <vector>

#include <oxni/base/debug_console.h>
#include <oxni/base/memory.h>
#include <oxni/base/mutex.h>
#include <oxni/base/resource.h>
#include <oxni/base/str.h>
#include <oxni/base/subscribee.h>
#include <oxni/base/timer.h>

static char *make(size_t size)
{
    return static_cast<char *>(oxni_zero_malloc_(size));
}

/* Queries the page's state, because a fault could not be caught. */
static bool readable(const void *address)
{
    MEMORY_BASIC_INFORMATION page;
    return VirtualQuery(address, &page, sizeof(page)) != 0 && page.State == MEM_COMMIT &&
           (page.Protect & PAGE_READWRITE) != 0;
}

static void blocks_end_at_a_page(std::initializer_list<unsigned> sizes, bool freed_are_readable)
{
    for (size_t size : sizes) {
        char *block = make(size);
        check_case(std::to_string(size) + " bytes");
        HOLDS(readable(block) && readable(block + size - 1));
        HOLDS(!readable(block + size));
        SAME(std::string(size, '\0'), std::string(block, size));
        memset(block, 'x', size);
        oxni_free_(block);
        HOLDS(freed_are_readable || !readable(block));
    }
}

PROMISE(host_memory, "OXNIH_MEMORY_FENCE", "The same without a Windows call per block")
{
    std::vector<char *> blocks;

    oxnih_memory_set_mode(OXNIH_MEMORY_FENCE);
    for (int agent = 1; agent <= 2; agent++) {
        blocks_end_at_a_page({1, 780, 4095, 4096}, true);
        blocks_end_at_a_page({4097}, false);
        make(780);
        oxnih_memory_drop_all(); /* the next agent reuses the pages */
    }
    for (int i = 0; i < 20000; i++) /* more than the fence mode has slots */
        blocks.push_back(make(24));
    for (char *block : blocks) {
        HOLDS(!readable(block + 24));
        oxni_free_(block);
    }
    SAME(0, memory_stats().live_blocks);
}

static bool contains(const std::string &text, const std::string &part)
{
    return text.find(part) != std::string::npos;
}

PROMISE(host_memory, "OXNIH_MEMORY_FENCE",
        "A freed block stays readable, filled with a pattern; oxnih_memory_drop_all reports writes "
        "to it.")
{
    for (size_t at : {0U, 23U}) {
        oxnih_memory_set_mode(OXNIH_MEMORY_FENCE);
        char *block = make(24), *other = make(24);
        oxni_free_(other);
        oxni_free_(block);
        SAME(std::string(24, '\xdd'), std::string(block, 24));
        block[at] = 'x';
        oxnih_memory_drop_all();
        const std::string said = complaints();
        SAME(0, said.find("block "));
        HOLDS(contains(said, " of 24 bytes from platform_check.exe+0x"));
        HOLDS(contains(said, " was written to after its free by platform_check.exe+0x"));
        SAME(said.find("block "), said.rfind("block "));
        oxnih_memory_drop_all();
        SAME("", complaints());
    }
}

PROMISE(host_memory, "oxni_free_", "a bad free causes a complaint and ends the run")
{
    static char elsewhere[16];
    /* clang-format off */
    static const struct {
        enum oxnih_memory_mode mode;
        void (*misuse)(char *block);
        const char *said;
    } rows[] = {
        {OXNIH_MEMORY_PLAIN, [](char *block) { oxni_free_(block); oxni_free_(block); },
         "or it was freed before"},
        {OXNIH_MEMORY_GUARD, [](char *block) { oxni_free_(block); oxni_ralloc_(block, 50); },
         " of 24 bytes from platform_check.exe+0x"},
        {OXNIH_MEMORY_FENCE, [](char *block) { oxni_free_(block); oxni_free_(block); },
         " was freed before by platform_check.exe+0x"},
        {OXNIH_MEMORY_PLAIN, [](char *block) { oxni_free_(block + 4); }, "lies 4 bytes inside"},
        {OXNIH_MEMORY_GUARD, [](char *) { oxni_free_(elsewhere); }, "no allocation gave"},
    };
    /* clang-format on */

    oxnih_set_exit([](void *) { throw run_ended(); }, NULL);
    for (const auto &row : rows) {
        bool ended = false;
        check_case(row.said);
        oxnih_memory_set_mode(row.mode);
        try {
            row.misuse(make(24));
        } catch (const run_ended &) {
            ended = true;
        }
        const std::string said = complaints();
        HOLDS(ended);
        SAME(0, said.find("bad free by platform_check.exe+0x"));
        HOLDS(contains(said, row.said));
    }
    oxnih_memory_drop_all();
}

PROMISE(host_memory, "oxnih_memory_fail", "Makes the nth allocation from now on fail")
{
    for (uint64_t nth : {0U, 1U, 4U})
        for (int forever : {0, 1}) {
            oxnih_memory_fail(nth, forever);
            for (uint64_t i = 1; i <= 6; i++) {
                char *made = i % 2 == 0 ? oxni_strdup("text") : make(8);
                check_case(std::to_string(nth) + " of " + std::to_string(i));
                SAME(nth != 0 && (i == nth || (forever != 0 && i > nth)), made == NULL);
                oxni_free_(made);
            }
        }
    oxnih_memory_fail(2, 0);
    char *block = oxni_strdup("text");
    HOLDS(oxni_ralloc_(block, 1000) == NULL);
    SAME("text", block);
    oxni_free_(block);
}

/* Allocations by Jansson and by the platform are attributed to their callers. */
PROMISE(host_memory, "oxnih_memory_leaks",
        "Calls fn for each site that allocated live blocks, most bytes first.")
{
    void *block = make(100000);
    json_t *value = json_string(std::string(90000, 'x').c_str());
    void *wide = oxni_str_utf8_to_unicode(std::string(40000, 'x').c_str());

    oxnih_memory_leaks(
        [](const char *site, uint64_t blocks, uint64_t bytes, void *) {
            if (bytes >= 80000)
                note(std::string(site).substr(0, 21) + std::to_string(bytes / 1000) + "k in " +
                     std::to_string(blocks));
        },
        NULL);
    SAME("platform_check.exe+0x100k in 1 platform_check.exe+0x90k in 2 "
         "platform_check.exe+0x80k in 1",
         notes());
    oxni_free_(block);
    json_decref(value);
    oxni_str_free(wide);
}

/* A process that ends does not destroy its mutexes. */
PROMISE(host_memory, "oxnih_memory_drop_all",
        "Frees all live blocks, as the end of the agent's process does.")
{
    auto heap_blocks = [] {
        PROCESS_HEAP_ENTRY entry = {};
        int blocks = 0;
        while (HeapWalk(GetProcessHeap(), &entry))
            blocks += (entry.wFlags & PROCESS_HEAP_ENTRY_BUSY) != 0;
        return blocks;
    };
    const int before = heap_blocks();

    for (int i = 0; i < 100; i++) {
        oxni_mutex *mutex;
        SAME(0, oxni_mutex_init(&mutex));
    }
    make(10);
    oxnih_memory_set_mode(OXNIH_MEMORY_GUARD);
    char *block = make(10);
    oxnih_memory_drop_all();
    HOLDS(heap_blocks() < before + 50);
    SAME(0, memory_stats().live_blocks);
    HOLDS(!readable(block));
}

PROMISE(host_memory, "OXNIH_MEMORY_GUARD",
        "Each block ends at an inaccessible page, and freed blocks become inaccessible.")
{
    oxnih_memory_set_mode(OXNIH_MEMORY_GUARD);
    blocks_end_at_a_page({1, 780, 4095, 4096, 4097, 70 * 1024 * 1024}, false);
}

/* Arms a timer that runs code. */
static uint64_t at(uint32_t ms, void (*code)())
{
    return oxni_timer_start(
        ms, [](void *, void *arg) { reinterpret_cast<void (*)()>(arg)(); },
        reinterpret_cast<void *>(code));
}

static void post(uint64_t ms, void (*code)())
{
    oxnih_core_post(
        ms, [](void *arg) { reinterpret_cast<void (*)()>(arg)(); }, reinterpret_cast<void *>(code));
}

PROMISE(host_core, "oxnih_core_run_one", "Delivers the next event if it is due now.")
{
    simulate();
    at(100, [] {
        note("t100");
        at(0, [] { note("queued"); });
        post(0, [] { note("p100b"); });
    });
    post(100, [] { note("p100a"); });
    at(0, [] { note("t0"); });
    post(0, [] { note("p0"); });
    post(UINT64_MAX, [] { note("beyond all time"); });
    SAME("", notes());
    SAME(1, oxnih_core_run_one());
    SAME(1, oxnih_core_run_one());
    SAME(0, oxnih_core_run_one()); /* nothing else is due, and time does not advance */
    SAME("p0 t0", notes());
    deliver(99);
    SAME("", notes());
    deliver(1);
    SAME("p100a t100 p100b queued", notes());
}

PROMISE(host_core, "oxnih_core_run_until",
        "Advances simulated time from event to event and finally to tick_ms")
{
    simulate();
    at(390000, [] {
        note(std::to_string(oxni_time_get_tick_cout()));
        oxni_msleep(100);
        note("woke");
    });
    at(390050, [] { note("t50"); });
    deliver(390060);
    SAME("391000 woke t50", notes());
    SAME(391100, oxni_time_get_tick_cout()); /* it is not set back */
}

PROMISE(host_core, "oxnih_core_run_until",
        "-1 when called from inside a callback, which the platform complains about")
{
    simulate();
    at(0, [] {
        post(0, [] { note("queued"); });
        note(std::to_string(oxnih_core_run_until(5000)));
        note(std::to_string(oxnih_core_run_one()));
        oxnih_core_reset();
    });
    deliver();
    SAME("-1 -1 queued", notes());
    const std::string said = complaints();
    SAME(0, said.find("oxnih_core_run_until was called from inside a callback: refused\n"));
    HOLDS(contains(said, "oxnih_core_run_one was") && contains(said, "oxnih_core_reset was"));
}

/* The exceptions are thrown in this program or in liboxnibase. They unwind frames of several
 * modules, each with its own C++ runtime, before the dispatcher catches them. */
static void exceptions()
{
    struct frame {
        ~frame()
        {
            note("unwound");
        }
    };
    /* clang-format off */
    static const struct {
        void (*code)();
        const char *said;
    } rows[] = {
        {[] { frame f; throw std::range_error("bad conversion"); },
         "an exception of type std::range_error left a callback: bad conversion"},
        {[] { frame f; oxni_out_of_memory_("x.cpp", 1); }, ""},
    };
    /* clang-format on */

    simulate();
    oxnih_set_exit([](void *) { throw run_ended(); }, NULL);
    for (const auto &row : rows) {
        at(0, row.code);
        at(0, [] { note("behind"); });
        SAME(-1, oxnih_core_run_until(UINT64_MAX));
        SAME(row.said, complaints());
        SAME("unwound", notes());
        deliver();
        SAME("behind", notes());
    }
}

static void on_reply(int32_t error, void *, oxni_subscriber *, void *)
{
    note("r" + std::to_string(error));
}

static void on_service(int32_t, void *, int32_t moment, json_t *, oxni_subscriber *)
{
    note("m" + std::to_string(moment));
}

static void on_event(oxni_subscriber *, uint32_t event, void *, json_t *)
{
    note("e" + std::to_string(event));
}

static const char SCHEMA[] = R"({"type": "object", "required": ["type"], "properties": {
    "count": {"type": "integer", "maximum": 10}, "list": {"items": {"type": "string"}}}})";

/* Returns a subscriber of a service with that schema; rejections are noted. */
static oxni_subscriber *subscribed()
{
    const oxni_subscriber_attr attr = {"ns", "a", NULL};
    oxni_subscriber *made = oxni_subscriber_new(&attr);

    simulate();
    oxnih_core_set_observer(
        [](const oxnih_event *event, void *) {
            if (event->kind == OXNIH_EVENT_REFUSED)
                note(event->text);
        },
        NULL);
    SAME(0, oxni_subscribee_install("svc", SCHEMA, 0, on_service, NULL));
    SAME(0, oxni_subscriber_subscribe(made, "svc", json_of("{\"type\": 1}"), on_event));
    deliver();
    SAME("m1 m3 e0", notes());
    return made;
}

static void rejections()
{
    static const struct {
        const char *message, *why;
    } rows[] = {
        {"{\"type\": 1, \"count\": 11}",  "member \"/count\" fails \"maximum\""                },
        {"{\"type\": 1, \"count\": 1.5}", "member \"/count\" fails \"type\""                   },
        {"{\"count\": 1}",                "member \"\" fails \"required\": \"type\" is missing"},
        {"{\"type\": 1, \"list\": [2]}",  "member \"/list/0\" fails \"type\""                  },
    };
    oxni_subscriber *a = subscribed();

    for (const auto &row : rows) {
        SAME(0, oxni_subscriber_pushforward(a, json_of(row.message), NULL, on_reply));
        deliver();
        SAME(row.why + std::string(" r22"), notes());
    }
    oxnih_core_set_lenient(1);
    SAME(0, oxni_subscriber_pushforward(a, json_of("{}"), NULL, on_reply));
    deliver();
    SAME("m1 r0", notes());
    oxni_subscriber *b = oxni_subscriber_new(oxni_subscriber_get_attr(a));
    SAME(0, oxni_subscriber_subscribe(b, "later", json_of("{}"), on_event));
    deliver();
    SAME("there is no such service", notes());
}

/* A subscriber that leaves before its registration is delivered, or without one, is not
 * reported. */
static void leaving()
{
    oxni_subscriber *a = subscribed(), *b = oxni_subscriber_new(oxni_subscriber_get_attr(a));
    json_t *message = json_of("{\"type\": 1}");

    oxnih_subscriber_set_reply_delay(a, 50);
    oxni_subscribee_pushback(a, message, NULL, on_reply);
    deliver();
    SAME("e1", notes());
    oxni_subscribee_pushback(a, message, NULL, on_reply);
    oxnih_subscriber_leave(a);
    SAME(0, oxni_subscriber_subscribe(b, "svc", message, on_event));
    oxnih_subscriber_leave(b);
    deliver(100);
    SAME("m2 r2 r2", notes());
    SAME(1, oxnih_subscriber_references(b));
}

PROMISE(host_core, "oxnih_subscriber_leave",
        "Pending pushes to it, including those with delayed replies, then get error replies.")
{
    leaving();
}

PROMISE(host_core, "oxni_subscribee_pushback", "queued")
{
    leaving();
}

PROMISE(host_core, "oxnih_subscriber_set_unreachable",
        "Makes pushes to the subscriber fail with this error")
{
    oxni_subscriber *a = subscribed();

    oxnih_subscriber_set_unreachable(a, 5);
    oxni_subscribee_pushback(a, json_of("{}"), NULL, on_reply);
    deliver();
    SAME("r5", notes());
    oxnih_subscriber_set_reply_delay(a, UINT64_MAX);
    oxnih_subscriber_set_unreachable(a, 0);
    oxni_subscribee_pushback(a, json_of("{}"), NULL, on_reply);
    deliver(1000);
    SAME("e1", notes());
    SAME(1, oxnih_core_pending_replies());
}

static oxnih_request *s_asked;

static void ask(json_t *message)
{
    oxnih_res_set_handler(
        "/r", [](oxnih_request *asked, json_t *, void *) { s_asked = asked; }, NULL);
    oxni_res_deliver(
        "/r", json_incref(message), NULL,
        [](oxnir_rsp *response, void *) {
            on_reply(oxnir_rsp_get_errno(response), NULL, NULL, NULL);
        },
        0);
}

PROMISE(host_core, "oxnih_core_reset",
        "Drops timers, queued events (including the host's), replies, services, subscribers, "
        "commands and watches without calling any callback, as the end of the agent's process "
        "does.")
{
    json_t *message = json_of("{\"type\": 1}");
    oxni_subscriber *a = subscribed();
    uint64_t timer = at(5, [] { note("timer"); });

    oxnih_subscriber_set_reply_delay(a, UINT64_MAX);
    oxni_subscribee_pushback(a, message, NULL, on_reply);
    oxni_subscriber_pushforward(a, message, NULL, on_reply);
    oxnih_subscriber_leave(a);
    oxni_res_require("/state", 0, [](const char *, int32_t state) { note(std::to_string(state)); });
    ask(message);
    oxnih_res_set_state("/state", 4);
    oxnih_core_reset();
    SAME(UINT64_MAX, oxnih_core_next_due());
    deliver(100000);
    SAME("", notes());
    SAME(0, oxnih_core_pending_replies());
    SAME(1, message->refcount);
    HOLDS(at(0, [] {}) > timer);
    oxni_res_require("/state", 0, [](const char *, int32_t state) { note(std::to_string(state)); });
    deliver();
    SAME("4", notes());
    oxnih_res_set_state("/state", 0);
}

PROMISE(host_core, "oxnih_res_answer", "Queues the response, once per request.")
{
    json_t *message = json_of("\"m\"");

    simulate();
    ask(message);
    deliver(1000);
    oxnih_res_answer(s_asked, 9, message, 5);
    oxnih_res_answer(s_asked, 0, NULL, 0);
    SAME(0, complaints().find("oxnih_res_answer: request "));
    deliver(4);
    SAME("", notes());
    deliver(1);
    SAME("r9", notes());
    SAME(1, message->refcount);
}

PROMISE(host_core, "oxnih_dbg_run",
        "Queues a command line for a declared command of that namespace")
{
    static oxni_dbg_context *s_context;

    SAME(0, oxni_dbg_decl("oxni", "late", "help", [](int32_t, char **, oxni_dbg_context *context) {
             s_context = context;
         }));
    SAME("help", oxnih_dbg_help("oxni", "late"));
    oxnih_dbg_run("oxni", "late");
    deliver();
    oxni_dbg_echo(s_context, 0, "too late");
    SAME("oxni_dbg_echo: no command runs with that context", complaints());
}

PROMISE(host_core, "oxnih_core_run_until",
        "A complaint names the exception unless the host's exit function threw it.")
{
    exceptions();
}

PROMISE(host_core, "OXNIH_EVENT_REFUSED",
        "a message was rejected or its service is missing: text is why")
{
    rejections();
}

/* clang-format off */
/* Bias in minutes; end and start of daylight saving time: month, day of week, week (5: last),
 * hour. */
static const TIME_ZONE_INFORMATION
    UTC = {},
    NEPAL = {-345, L"", {}, 0, L"", {}, 0},
    BERLIN = {-60, L"", {0, 10, 0, 5, 3, 0, 0, 0}, 0, L"", {0, 3, 0, 5, 2, 0, 0, 0}, -60},
    NEW_YORK = {300, L"", {0, 11, 0, 1, 2, 0, 0, 0}, 0, L"", {0, 3, 0, 2, 2, 0, 0, 0}, -60},
    SYDNEY = {-600, L"", {0, 4, 0, 1, 3, 0, 0, 0}, 0, L"", {0, 10, 0, 1, 2, 0, 0, 0}, -60};
/* clang-format on */

static constexpr int64_t WINTER = 1768478400, SUMMER = 1784116800; /* of 2026, both at 12:00 UTC */
static constexpr int64_t SPRING = 1774746000, AUTUMN = 1792890000; /* clock changes in Berlin */

PROMISE(host_clock, "oxnih_clock_set_zone",
        "Sets the time zone of the conversions below and in oxni/base/time.h; copied.")
{
    static const struct {
        const TIME_ZONE_INFORMATION *where;
        int64_t seconds;
        const char *local; /* with day of week, day of year and daylight saving flag */
    } rows[] = {
        {&NEW_YORK, -1,           "1969-12-31 18:59:59 3 364 0"},
        {&UTC,      -11644473600, "1601-01-01 00:00:00 1 0 0"  },
        {&UTC,      951782400,    "2000-02-29 00:00:00 2 59 0" },
        {&BERLIN,   SPRING - 1,   "2026-03-29 01:59:59 0 87 0" },
        {&BERLIN,   SPRING,       "2026-03-29 03:00:00 0 87 1" },
        {&BERLIN,   AUTUMN - 1,   "2026-10-25 02:59:59 0 297 1"},
        {&BERLIN,   AUTUMN,       "2026-10-25 02:00:00 0 297 0"},
        {&SYDNEY,   WINTER,       "2026-01-15 23:00:00 4 14 1" },
        {&NEPAL,    SUMMER,       "2026-07-15 17:45:00 3 195 0"},
    };

    for (const auto &row : rows) {
        struct tm tm;
        char text[64];
        oxnih_clock_set_zone(row.where);
        SAME(0, oxni_time_stamp_to_local(row.seconds, &tm));
        snprintf(text, sizeof(text), "%04d-%02d-%02d %02d:%02d:%02d %d %d %d", tm.tm_year + 1900,
                 tm.tm_mon + 1, tm.tm_mday, tm.tm_hour, tm.tm_min, tm.tm_sec, tm.tm_wday,
                 tm.tm_yday, tm.tm_isdst);
        SAME(row.local, text);
    }
}

/* A local file time has the current bias. Converting it back gives the same time in every zone. */
PROMISE(host_clock, "oxnih_filetime_to_local",
        "FileTimeToLocalFileTime and LocalFileTimeToFileTime in that zone, with the current bias.")
{
    static const struct {
        const TIME_ZONE_INFORMATION *where;
        int64_t now, minutes; /* local minus UTC */
    } rows[] = {
        {&BERLIN,   WINTER,     60  },
        {&BERLIN,   AUTUMN - 1, 120 },
        {&NEW_YORK, WINTER,     -300},
        {&SYDNEY,   WINTER,     660 },
        {&NEPAL,    SUMMER,     345 },
    };

    for (const auto &row : rows)
        for (int64_t moment : {INT64_C(0), INT64_C(-1), WINTER, SUMMER, SPRING, AUTUMN - 1}) {
            FILETIME local, utc;
            oxnih_clock_set_zone(row.where);
            oxnih_clock_simulate(to_100ns(row.now), 0);
            oxni_timet_to_filetime(moment, &local);
            SAME(moment + row.minutes * 60, oxni_filetime_to_timet(&local));
            HOLDS(oxnih_local_to_filetime(&local, &utc));
            SAME(moment, oxni_filetime_to_timet(&utc));
        }
}

PROMISE(host_clock, "oxnih_local_to_filetime", "Same result as those functions.")
{
    FILETIME first = {0, 0}, last = {0xffffffff, 0x7fffffff}, beyond = {0, 0x80000000}, out;
    struct tm tm;

    oxnih_clock_set_zone(&NEW_YORK);
    HOLDS(!oxnih_filetime_to_local(&first, &out));
    SAME(ERROR_INVALID_PARAMETER, GetLastError());
    HOLDS(!oxnih_local_to_filetime(&last, &out));
    HOLDS(!oxnih_filetime_to_local(&beyond, &out));
    oxnih_clock_set_zone(&UTC);
    SAME(0, oxni_time_stamp_to_local(910692730085, &tm));
    for (int64_t seconds : {INT64_C(-11644473601), INT64_C(910692730086), INT64_MIN, INT64_MAX}) {
        SAME(-1, oxni_time_stamp_to_local(seconds, &tm));
        oxni_timet_to_filetime(seconds, &out);
        SAME(0, out.dwLowDateTime | out.dwHighDateTime);
    }
}

PROMISE(host_clock, "oxnih_clock_set_wall", "Simulated: sets the wall clock and keeps the ticks")
{
    simulate();
    oxnih_clock_set_wall(to_100ns(WINTER));
    SAME(WINTER, oxni_time());
    SAME(1000, oxni_time_get_tick_cout());
}
