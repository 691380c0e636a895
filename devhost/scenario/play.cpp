/* The boots of a scenario. */
#include "play.h"

#include "../../platform/liboxni_agentid/host.h"
#include "../../platform/liboxni_core/host.h"
#include "../../platform/liboxnibase/host.h"
#include "../agent/agent.h"
#include "../machine/calls.h"
#include "../machine/machine.h"
#include "../base/text.h"
#include "agent_process.h"
#include "expect.h"
#include "machine_setup.h"
#include "management.h"
#include "observe.h"
#include "products.h"
#include "journal.h"
#include "steps.h"
#include "timeline.h"
#include "windows_traces.h"

/* Where the first boot begins when the scenario does not say: any working day. */
#define DEFAULT_START       "2024-03-07T09:00:00Z"
#define AGENT_START_SECONDS 10.0
#define BOOT_SECONDS        600.0
/* From the end of one run of Windows to the start of the next. */
#define REBOOT_TICKS (60 * TICKS_PER_SECOND)

/* The scenario that is played. */
static struct {
    const struct scenario *scenario;
    struct play_options options;
    std::vector<const json_value *> boots;
    size_t number;           /* of the present boot, from 1 */
    uint64_t last_end;       /* FILETIME at which the run before ended; 0: not known */
    std::string ended;       /* how it ended */
    const json_value *crash; /* and with which crash; NULL: none */
    std::vector<std::string> failures;
} s_play;

/* When this boot begins. last_end: FILETIME at which the run before it ended, 0 for the first. */
static uint64_t boot_start(const struct scenario &scenario, const std::string &where,
                           const json_value &boot, uint64_t last_end)
{
    uint64_t start;
    std::string at = node_text_of(&boot, "at", last_end == 0 ? DEFAULT_START : "");

    if (s_play.options.real_time) {
        oxnih_clock_real(0);
        return oxnih_clock_now_100ns() -
               timeline_ms(node_number_of(&boot, "uptime", 0)) * TICKS_PER_MS;
    }
    if (at.empty())
        return last_end + REBOOT_TICKS;
    if (!time_parse(at, &start))
        scenario_bad(scenario, where + "/at", "expected a time such as 2024-03-07T09:05:41Z");
    return start;
}

static void start_windows(const json_value &boot, const struct play_options &options,
                          uint64_t start)
{
    uint64_t uptime = timeline_ms(node_number_of(&boot, "uptime", 0));
    std::string about = node_text_of(&boot, "about", "");

    machine_boot(start);
    if (options.real_time)
        oxnih_clock_real(uptime);
    else
        oxnih_clock_simulate(start + uptime * TICKS_PER_MS, uptime);
    calls_clear_failures();
    oxnih_memory_fail(0, 0);
    expect_start_boot();
    journal_add(HAPPENED_BOOT, "windows",
                text_format("boot %d starts at ", journal_boot()) + time_iso(start) +
                    (about.empty() ? "" : ": " + about));
}

/* Before anything is played: a mistake should not show hours into a run. A step behind the end of
 * its boot would never be done. */
static void check_steps(const struct scenario &scenario, const std::string &where,
                        const json_value &boot)
{
    double until = node_number_of(&boot, "until", BOOT_SECONDS);
    size_t index = 0;

    for (const json_value *step : node_elements(&boot, "steps")) {
        std::string place = where + "/steps/" + std::to_string(index++);

        step_check(scenario, place, *step);
        if (node_number_of(step, "at", 0) > until)
            scenario_bad(scenario, place + "/at", "lies behind the end of the boot, \"until\"");
    }
    if (node_member(&boot, "crash") != NULL && node_text_of(&boot, "ends", "") != "blue_screen")
        scenario_bad(scenario, where + "/crash", "expected \"ends\": \"blue_screen\" beside it");
}

/* A run whose course is disturbed cannot do everything that the scenario wants. */
static void run_step(const struct scenario &scenario, const std::string &where,
                     const json_value &step)
{
    try {
        step_run(scenario, where, step, s_play.failures);
    } catch (const devhost_error &error) {
        if (!s_play.options.skip_impossible || error.status != EXIT_BAD_CALL)
            throw;
        journal_add(HAPPENED_STEP, "windows", std::string("cannot be done: ") + error.what());
    }
}

static void plan_boot(const struct scenario &scenario, const std::string &where,
                      const json_value &boot)
{
    uint64_t begin = timeline_now_ms();
    size_t index = 0;

    if (!node_is_null(&boot, "agent_start"))
        timeline_at(begin + timeline_ms(node_number_of(&boot, "agent_start", AGENT_START_SECONDS)),
                    agent_process_start);
    for (const json_value *step : node_elements(&boot, "steps")) {
        std::string place = where + "/steps/" + std::to_string(index++);

        timeline_at(timeline_ms(node_number_of(step, "at", 0)),
                    [&scenario, place, step] { run_step(scenario, place, *step); });
    }
}

static void end_windows(const std::string &ends)
{
    if (ends == "clean") {
        agent_process_stop("stops, Windows shuts down");
        windows_traces_shutdown();
        journal_add(HAPPENED_END, "windows", "shuts down");
    } else {
        agent_process_stop("is gone");
        journal_add(HAPPENED_END, "windows",
                    ends == "blue_screen" ? "crashes with a blue screen" : "loses power");
    }
}

void play_open(const struct scenario &scenario, const struct play_options &options)
{
    const json_value *before = node_member(&scenario.document, "before");

    timeline_clear();
    s_play = {&scenario,
              options,
              node_elements(&scenario.document, "boots"),
              0,
              0,
              node_text_of(before, "ends", "clean"),
              node_member(before, "crash"),
              {}};
    for (size_t boot = 0; boot < s_play.boots.size(); boot++)
        check_steps(scenario, "/boots/" + std::to_string(boot), *s_play.boots[boot]);
    journal_clear();
    journal_set_folder(options.run_folder, "<run>");
    machine_open(text_wide(options.run_folder));
    agent_open(options.run_folder, options.plugin_path);
    oxnih_clock_set_zone(NULL);
    oxnih_core_set_lenient(0);
    oxnih_set_device_id("oxni_devhost");
    oxnih_uuid_fix(1);
    observe_platform();
    products_open(scenario);
    management_open(scenario);
}

bool play_begin_boot(void)
{
    const struct scenario &scenario = *s_play.scenario;
    const json_value *root = &scenario.document;

    if (s_play.number == s_play.boots.size())
        return false;
    const json_value *boot = s_play.boots[s_play.number], *machine = node_member(boot, "machine");
    std::string where = "/boots/" + std::to_string(s_play.number);
    uint64_t start = boot_start(scenario, where, *boot, s_play.last_end);

    s_play.number++;
    journal_set_boot(static_cast<int>(s_play.number));
    start_windows(*boot, s_play.options, start);
    if (s_play.number == 1 && node_member(root, "machine") != NULL)
        machine_setup_apply(scenario, "/machine", *node_member(root, "machine"));
    if (machine != NULL)
        machine_setup_apply(scenario, where + "/machine", *machine);
    windows_traces_plan(scenario, boot, s_play.ended, s_play.crash, s_play.last_end);
    plan_boot(scenario, where, *boot);
    return true;
}

void play_run_until(uint64_t end_ms)
{
    std::function<void()> action;
    uint64_t ms;

    while (timeline_take(end_ms, &ms, &action)) {
        agent_process_run_until(ms);
        action();
    }
    agent_process_run_until(end_ms);
}

uint64_t play_boot_end_ms(void)
{
    return timeline_ms(node_number_of(s_play.boots[s_play.number - 1], "until", BOOT_SECONDS));
}

void play_end_boot(void)
{
    const json_value *boot = s_play.boots[s_play.number - 1];
    const json_value *expect = node_member(boot, "expect");

    if (expect != NULL)
        expect_check(*s_play.scenario, "/boots/" + std::to_string(s_play.number - 1) + "/expect",
                     *expect, s_play.failures);
    timeline_clear();
    s_play.ended = node_text_of(boot, "ends", "clean");
    s_play.crash = node_member(boot, "crash");
    end_windows(s_play.ended);
    expect_no_complaints(*s_play.scenario, "/boots/" + std::to_string(s_play.number - 1),
                         s_play.failures);
    s_play.last_end = oxnih_clock_now_100ns();
}

std::vector<std::string> play_close(void)
{
    timeline_clear();
    oxnih_memory_fail(0, 0);
    agent_stop();
    return std::move(s_play.failures);
}
