/* The boots of a scenario. */
#include "play.h"

#include <oxni/base/log.h>

#include "../../platform/liboxni_agentid/host.h"
#include "../../platform/liboxni_core/host.h"
#include "../../platform/liboxnibase/host.h"
#include "../agent/agent.h"
#include "../base/text.h"
#include "../calls/calls.h"
#include "../disk/files.h"
#include "../expect/expect.h"
#include "../machine/machine_open.h"
#include "../participants/machine_setup.h"
#include "../participants/management.h"
#include "../participants/observe.h"
#include "../participants/products.h"
#include "../participants/windows_traces.h"
#include "../scenario/journal.h"
#include "../scenario/timeline.h"
#include "agent_process.h"
#include "callbacks.h"
#include "steps.h"

/* Default start of the first boot: any working day. */
static constexpr char DEFAULT_START[] = "2024-03-07T09:00:00Z";
/* From the end of one run of Windows to the start of the next. */
static constexpr uint64_t REBOOT_TICKS = 60 * TICKS_PER_SECOND;

/* The scenario that is played. */
static struct {
    node root;
    struct play_options options;
    std::vector<node> boots;
    size_t number;     /* of the present boot, from 1 */
    uint64_t last_end; /* FILETIME at which the previous run of Windows ended; 0: not known */
    std::string ended; /* "clean" and so on */
    node crash;        /* its crash, may be missing */
    int log_level;     /* before the scenario */
    std::vector<std::string> failures;
} s_play;

/* Returns the FILETIME at which a boot begins. */
static uint64_t boot_start(const node &boot)
{
    uint64_t start = 0;
    std::string at = boot.text("at", s_play.last_end == 0 ? DEFAULT_START : "");

    if (s_play.options.real_time) {
        oxnih_clock_real(0);
        return oxnih_clock_now_100ns() - timeline_ms(boot.number("uptime", 0)) * TICKS_PER_MS;
    }
    if (at.empty())
        return s_play.last_end + REBOOT_TICKS;
    if (!time_parse(at, &start))
        boot["at"].bad("expected a time such as 2024-03-07T09:05:41Z");
    return start;
}

static void start_windows(const node &boot, uint64_t start)
{
    uint64_t uptime = timeline_ms(boot.number("uptime", 0));
    std::string about = boot.text("about");

    machine_boot(start);
    if (s_play.options.real_time)
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

/* A run that is disturbed cannot do every step of the scenario. */
static void run_step(const node &step)
{
    try {
        step_run(step, s_play.failures);
    } catch (const devhost_error &error) {
        if (!s_play.options.skip_impossible || error.status != EXIT_BAD_CALL)
            throw;
        journal_add(HAPPENED_STEP, "windows", std::string("cannot be done: ") + error.what());
    }
}

static void plan_boot(const node &boot)
{
    uint64_t begin = timeline_now_ms();

    if (!boot.is_null("agent_start"))
        timeline_at(begin + timeline_ms(boot.number("agent_start", AGENT_START_SECONDS)),
                    agent_process_start);
    for (const node &step : boot["steps"].elements())
        timeline_at(
            timeline_ms(timeline_seconds(step)), [step] { run_step(step); },
            step.text("when") == "before");
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
    node root(scenario), before = root["before"];

    timeline_clear();
    s_play = {root,
              options,
              root["boots"].elements(),
              0,
              0,
              before.text("ends", "clean"),
              before["crash"],
              oxni_log_level_get(),
              {}};
    journal_clear();
    journal_set_folder(options.run_folder, "<run>");
    machine_open(text_wide(options.run_folder));
    agent_open(options.run_folder, options.plugin_path);
    oxnih_clock_set_zone(nullptr);
    oxnih_core_set_lenient(0);
    machine_setup_open();
    oxnih_set_device_id("oxni_devhost");
    oxnih_uuid_fix(1);
    observe_platform();
    callbacks_open();
    products_open(root["products"]);
    management_open(root["management"]);
}

bool play_begin_boot(void)
{
    if (s_play.number == s_play.boots.size())
        return false;
    const node &boot = s_play.boots[s_play.number++];

    journal_set_boot(static_cast<int>(s_play.number));
    start_windows(boot, boot_start(boot));
    if (s_play.number == 1)
        machine_setup_apply(s_play.root["machine"]);
    machine_setup_apply(boot["machine"]);
    windows_traces_plan(boot, s_play.ended, s_play.crash, s_play.last_end);
    plan_boot(boot);
    return true;
}

void play_run_until(uint64_t end_ms)
{
    planned_action action;

    while (timeline_take(end_ms, &action)) {
        if (!action.before) {
            agent_process_run_until(action.ms);
        } else if (action.ms > timeline_now_ms()) {
            agent_process_run_until(action.ms - 1);
            oxnih_clock_advance(1);
        }
        action.run();
    }
    agent_process_run_until(end_ms);
}

uint64_t play_boot_end_ms(void)
{
    return timeline_ms(s_play.boots[s_play.number - 1].number("until", BOOT_SECONDS));
}

void play_end_boot(void)
{
    const node &boot = s_play.boots[s_play.number - 1];

    if (boot["expect"])
        expect_check(boot["expect"], s_play.failures);
    timeline_clear();
    s_play.ended = boot.text("ends", "clean");
    s_play.crash = boot["crash"];
    end_windows(s_play.ended);
    machine_release_all_files();
    expect_no_complaints(boot, s_play.failures);
    s_play.last_end = oxnih_clock_now_100ns();
}

std::vector<std::string> play_close(void)
{
    timeline_clear();
    oxnih_memory_fail(0, 0);
    agent_stop();
    oxnih_log_set_level(s_play.log_level);
    return std::move(s_play.failures);
}
