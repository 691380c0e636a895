/* What the reference platform promises to hosts about deliveries and the clock, in host.h. */
#include "reference.h"

#include <stdexcept>

#include <oxni/base/debug_console.h>
#include <oxni/base/memory.h>
#include <oxni/base/resource.h>
#include <oxni/base/subscribee.h>
#include <oxni/base/timer.h>

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
    oxnih_set_exit([](void *) { throw run_ended(); }, nullptr);
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
    const oxni_subscriber_attr attr = {"ns", "a", nullptr};
    oxni_subscriber *made = oxni_subscriber_new(&attr);

    simulate();
    oxnih_core_set_observer(
        [](const oxnih_event *event, void *) {
            if (event->kind == OXNIH_EVENT_REFUSED)
                note(event->text);
        },
        nullptr);
    SAME(0, oxni_subscribee_install("svc", SCHEMA, 0, on_service, nullptr));
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
        SAME(0, oxni_subscriber_pushforward(a, json_of(row.message), nullptr, on_reply));
        deliver();
        SAME(row.why + std::string(" r22"), notes());
    }
    oxnih_core_set_lenient(1);
    SAME(0, oxni_subscriber_pushforward(a, json_of("{}"), nullptr, on_reply));
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
    oxni_subscribee_pushback(a, message, nullptr, on_reply);
    deliver();
    SAME("e1", notes());
    oxni_subscribee_pushback(a, message, nullptr, on_reply);
    oxnih_subscriber_leave(a);
    SAME(0, oxni_subscriber_subscribe(b, "svc", message, on_event));
    oxnih_subscriber_leave(b);
    deliver(100);
    SAME("m2 r2 r2", notes());
    SAME(1, oxnih_subscriber_references(b));
}

PROMISE_BY(leaving, host_core, "oxnih_subscriber_leave",
           "Pending pushes to it, including those with delayed replies, then get error replies.")

PROMISE_BY(leaving, host_core, "oxni_subscribee_pushback", "queued")

PROMISE(host_core, "oxnih_subscriber_set_unreachable",
        "Makes pushes to the subscriber fail with this error")
{
    oxni_subscriber *a = subscribed();

    oxnih_subscriber_set_unreachable(a, 5);
    oxni_subscribee_pushback(a, json_of("{}"), nullptr, on_reply);
    deliver();
    SAME("r5", notes());
    oxnih_subscriber_set_reply_delay(a, UINT64_MAX);
    oxnih_subscriber_set_unreachable(a, 0);
    oxni_subscribee_pushback(a, json_of("{}"), nullptr, on_reply);
    deliver(1000);
    SAME("e1", notes());
    SAME(1, oxnih_core_pending_replies());
}

static oxnih_request *s_asked;

static void ask(json_t *message)
{
    oxnih_res_set_handler(
        "/r", [](oxnih_request *asked, json_t *, void *) { s_asked = asked; }, nullptr);
    oxni_res_deliver(
        "/r", json_incref(message), nullptr,
        [](oxnir_rsp *response, void *) {
            on_reply(oxnir_rsp_get_errno(response), nullptr, nullptr, nullptr);
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
    oxni_subscribee_pushback(a, message, nullptr, on_reply);
    oxni_subscriber_pushforward(a, message, nullptr, on_reply);
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
    oxnih_res_answer(s_asked, 0, nullptr, 0);
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

PROMISE_BY(exceptions, host_core, "oxnih_core_run_until",
           "A complaint names the exception unless the host's exit function threw it.")

PROMISE_BY(rejections, host_core, "OXNIH_EVENT_REFUSED",
           "a message was rejected or its service is missing: text is why")

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
