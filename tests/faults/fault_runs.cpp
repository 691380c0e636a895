/* The runs of a sweep, and what is looked at in each. */
#include "fault_runs.h"

#include <stdio.h>
#include <string.h>
#include <windows.h>

#include <algorithm>
#include <map>

#include <oxni/base/ejs.h>
#include <oxni/base/log.h>

#include "liboxni_core/host.h"
#include "liboxnibase/host.h"
#include "agent/agent.h"
#include "machine/heap.h"
#include "machine/calls.h"
#include "machine/machine.h"
#include "machine/memory_disk.h"
#include "agent/plugin_image.h"
#include "scenario/play.h"
#include "scenario/products.h"
#include "scenario/timeline.h"
#include "scenario/journal.h"
#include "base/run_folder.h"
#include "base/text.h"
#include "view/view.h"
#include "failures.h"
#include "harness/jobs.h"
#include "harness/leaks.h"
#include "fault_scenario.h"
#include "harness/watch.h"

/* A run takes less than a second, one of ten days some. */
#define HANG_SECONDS 120
/* Failures that come about once: so many in one boot, and so many places apart in their list at
 * least, where the ways of one call to fail stand together. */
#define AT_ONCE ((size_t)8)
#define APART   ((size_t)40)
/* How long a boot lasts behind the moment from which on everything fails. */
#define SETTLE_MS 30000u

typedef std::vector<const failure *> failure_list;
/* By boot. */
typedef std::vector<failure_list> failure_set;

/* What a run showed. */
struct course {
    std::vector<boot_counts> counts;              /* by boot */
    std::vector<std::vector<std::string>> states; /* of the products, at each boot's end */
    std::vector<std::string> complaints;          /* but for those that are no violation */
    std::vector<std::string> afterwards; /* what the boots behind it brought the products */
    std::vector<std::string> problems;   /* violations */
    failure_list missed;                 /* failures that did not come about */
    uint64_t failures;                   /* that came about */
    uint64_t exits;                      /* of the agent, by the allocation guard */
};

/* The part of a file that this process sweeps. */
struct file_sweep {
    const struct fault_options &options;
    const run_folder &folder;
    size_t index; /* of the next run */
    uint64_t runs, failed, missed, exits, violations;
};

static std::vector<std::string> s_lost; /* at the ends of the agent */
static uint64_t s_told;                 /* failed replies that earlier lives were told of */

/* Of this life of the agent, in transport. */
static uint64_t failed_uploads(void)
{
    uint64_t told = calls_failed("oxnir_rsp_get_errno"), failed = 0;

    for (const happening &what : journal_all()) {
        if (what.kind == HAPPENED_AGENT && what.text.rfind("starts", 0) == 0)
            failed = 0;
        failed += what.kind == HAPPENED_RESPONSE && what.number != 0;
    }
    failed += told - s_told;
    s_told = told;
    return failed;
}

static void look_for_leaks(const void *plugin)
{
    for (const std::string &lost : leaks_of_agent(plugin, failed_uploads()))
        s_lost.push_back(lost);
}

/* Unsubscribing gives a reference back whether the handle was filed or not. A registration that was
 * dropped leaves it unfiled, and the platform counts one delete too many when that product leaves:
 * one for each leaving, and only of the handle that left. */
static void note_complaints(course &course)
{
    std::map<std::string, size_t> left;

    for (const happening &what : journal_all()) {
        if (what.kind == HAPPENED_AGENT)
            left.clear();
        if (what.kind == HAPPENED_LEFT)
            left[what.who]++;
        if (what.kind != HAPPENED_COMPLAINT)
            continue;
        bool excused = false;
        for (auto &leaving : left)
            if (leaving.second > 0 && what.text.find("no reference of subscriber " + leaving.first +
                                                     " is left to give") != std::string::npos) {
                leaving.second--;
                excused = true;
                break;
            }
        if (!excused)
            course.complaints.push_back(what.text);
    }
}

/* How often the platform's drivers crashed is in files of theirs, which failures keep from being
 * set back. */
static std::string without_count(const happening &what)
{
    size_t at = what.text.find(", count ");

    if (what.kind != HAPPENED_MESSAGE || what.who != "XNI/BYPASS" || at == std::string::npos)
        return what.text;
    return what.text.substr(0, at) + what.text.substr(what.text.find(',', at + 1));
}

/* Left out are the orders that follow from how often the platform's own drivers crashed. */
static bool is_compared(const happening &what)
{
    if (what.kind == HAPPENED_COMMAND)
        return what.whom != "XNI/BYPASS" || what.text.find(": set_count") == std::string::npos;
    return what.kind == HAPPENED_MESSAGE || what.kind == HAPPENED_UPLOAD;
}

static void note_afterwards(course &course, int boot)
{
    for (const happening &what : journal_all())
        if (what.boot == boot && is_compared(what))
            course.afterwards.push_back(time_span(what.ms) + " " + what.who + " " + what.whom +
                                        without_count(what));
    if (agent_state_get() != AGENT_RUNNING)
        course.problems.push_back("the agent does not run in the boot afterwards");
}

static const char *const s_documents[] = {"bypass_mgr_persistence.ejs", "bypass_mgr_upload.ejs",
                                          "bypass_mgr_dumprecord.ejs"};

/* Whether a scenario puts a file with that content on the disk, somewhere below value. */
static bool puts_text(const json_value &value, const std::string &content)
{
    auto puts = [&content](const json_value &below) { return puts_text(below, content); };

    if (value.IsArray())
        return std::any_of(value.Begin(), value.End(), puts);
    if (!value.IsObject())
        return false;
    return (node_member(&value, "text") != NULL && node_text_of(&value, "text", "") == content) ||
           std::any_of(value.MemberBegin(), value.MemberEnd(),
                       [&puts](const auto &member) { return puts(member.value); });
}

/* A document that is there loads, unless it is the damaged one of the scenario that nobody has
 * replaced. */
static void check_documents(course &course, const struct scenario &scenario)
{
    for (const char *name : s_documents) {
        std::string path = agent_data_path(name);

        if (!machine_file_exists(text_wide(path)))
            continue;
        json_t *document = wdu_json_load_file_ejs(path.c_str());
        if (document == NULL &&
            !puts_text(scenario.document,
                       machine_read_real_file(text_wide(path), EXIT_EXPECTATION_FAILED)))
            course.problems.push_back(std::string(name) + " does not load");
        wdu_json_delete_ejs(document);
    }
}

/* Behind the undisturbed boots nothing half-written lies beside a document. */
static void check_left_behind(course &course)
{
    for (const char *name : s_documents)
        if (machine_file_exists(text_wide(agent_data_path(name) + ".tmp")))
            course.problems.push_back(std::string(name) + ".tmp is left behind");
}

static uint64_t allocations(bool failed_only)
{
    oxnih_memory_stats stats;

    oxnih_memory_get_stats(&stats);
    return failed_only ? stats.failed : stats.allocations;
}

/* To the end of the boot. Where everything fails from some moment on, nothing new happens for long
 * behind it. */
static void run_boot(const failure_list &failures)
{
    bool forever = failures.size() == 1 && failures[0]->times == 0;
    uint64_t failed = allocations(true);

    while (forever && timeline_now_ms() + SETTLE_MS < play_boot_end_ms()) {
        bool begun = failures[0]->way == FAILS_ALLOCATION ? allocations(true) > failed
                     : failures[0]->way == FAILS_CALL
                         ? calls_count(failures[0]->call) >= failures[0]->nth
                         : false;

        play_run_until(timeline_now_ms() + SETTLE_MS);
        if (begun)
            return;
    }
    play_run_until(play_boot_end_ms());
}

/* One boot, with failures in it or without. */
static void play_boot(course &course, const failure_list &failures)
{
    uint64_t before = allocations(false), failed = allocations(true);

    course.states.emplace_back();
    product_disturb(0, false, 0);
    for (const failure *failure : failures)
        failure_arm(*failure);
    run_boot(failures);
    for (const std::string &key : product_keys())
        course.states.back().push_back(product_state_text(key));
    course.counts.push_back({allocations(false) - before, {}, product_pushes()});
    for (const std::string &name : calls_failing())
        course.counts.back().calls[name] = calls_count(name);
    course.failures += allocations(true) - failed;
    for (const failure *failure : failures) {
        uint64_t came_about = failure_came_about(*failure, course.counts.back());

        failure_disarm(*failure);
        if (failure->way != FAILS_ALLOCATION)
            course.failures += came_about;
        if (came_about == 0)
            course.missed.push_back(failure);
    }
}

static void play_boots(course &course, const struct scenario &scenario, const failure_set &failures)
{
    for (size_t boot = 0; play_begin_boot(); boot++) {
        play_boot(course, boot < failures.size() ? failures[boot] : failure_list());
        course.exits += agent_state_get() == AGENT_EXITED;
        if (!failures.empty() && boot >= failures.size())
            note_afterwards(course, static_cast<int>(boot + 1));
        play_end_boot();
        check_documents(course, scenario);
    }
}

/* failures: for each boot of the scenario but the last, undisturbed one. */
static course play(const file_sweep &sweep, const struct scenario &scenario,
                   const failure_set &failures)
{
    course course = {};

    sweep.folder.empty();
    s_lost.clear();
    try {
        play_open(scenario, {sweep.folder.path, sweep.options.plugin_path, false, true});
        if (journal_view() == NULL)
            oxnih_log_set_sink(NULL, NULL); /* nobody reads the lines */
        play_boots(course, scenario, failures);
    } catch (const devhost_error &error) {
        course.problems.push_back(error.what());
    }
    (void)play_close();
    note_complaints(course);
    check_left_behind(course);
    course.problems.insert(course.problems.end(), s_lost.begin(), s_lost.end());
    return course;
}

/* What a disturbed run shows beyond the plain one. */
static std::vector<std::string> violations(const course &plain, const course &disturbed)
{
    std::vector<std::string> found;

    for (const std::string &problem : disturbed.problems)
        if (std::find(plain.problems.begin(), plain.problems.end(), problem) ==
            plain.problems.end())
            found.push_back(problem);
    for (const std::string &complaint : disturbed.complaints)
        if (std::count(plain.complaints.begin(), plain.complaints.end(), complaint) <
            std::count(disturbed.complaints.begin(), disturbed.complaints.end(), complaint))
            found.push_back(complaint);
    if (disturbed.afterwards != plain.afterwards) {
        found.push_back("the boot afterwards is another one:");
        for (const std::string &line : disturbed.afterwards)
            found.push_back("  " + line);
        found.push_back(" in place of");
        for (const std::string &line : plain.afterwards)
            found.push_back("  " + line);
    }
    return found;
}

static void print_violation(const file_sweep &sweep, const failure_set &failures,
                            const std::string &again, const std::vector<std::string> &found)
{
    printf("violation: %s\n  again: %s\n", sweep.options.files.front().c_str(), again.c_str());
    for (size_t boot = 0; boot < failures.size(); boot++)
        for (const failure *failure : failures[boot])
            printf("  in boot %u: %s\n", static_cast<unsigned>(boot + 1),
                   failure_text(*failure).c_str());
    for (const std::string &line : found)
        printf("  %s\n", line.c_str());
}

/* A boot that is swept: the scenario that leads to it, and its course without failures. */
struct boot_sweep {
    struct scenario scenario;
    course plain;
    size_t boot;
};

static failure_list run_failures(file_sweep &sweep, const boot_sweep &now,
                                 const failure_set &failures)
{
    std::string again =
        text_format("harness faults %s --only %u %s", sweep.options.kind.c_str(),
                    static_cast<unsigned>(sweep.index), sweep.options.files.front().c_str());

    watch_try(again, sweep.index);
    if (sweep.options.only >= 0)
        journal_set_view(view_happening, NULL);
    course disturbed = play(sweep, now.scenario, failures);
    std::vector<std::string> found = violations(now.plain, disturbed);

    if (sweep.options.kind == "calls" && disturbed.exits > now.plain.exits)
        found.push_back("the allocation guard ends the agent, and no allocation failed");
    sweep.runs++;
    sweep.failed += disturbed.failures;
    sweep.exits += disturbed.exits;
    if (!found.empty()) {
        sweep.violations++;
        print_violation(sweep, failures, again, found);
    }
    return disturbed.missed;
}

/* Runs of failures that did not come about: at_once of them, each alone in its boot. Result: those
 * that did not come about again. */
static failure_list run_again(file_sweep &sweep, const boot_sweep &now, const failure_list &missed,
                              size_t at_once)
{
    failure_list left;

    for (size_t first = 0; first < missed.size(); first += at_once) {
        failure_set alone(now.boot);

        for (size_t i = first; i < std::min(first + at_once, missed.size()); i++)
            alone.push_back({missed[i]});
        alone.resize(now.boot + LIVES);
        failure_list again = run_failures(sweep, now, alone);
        left.insert(left.end(), again.begin(), again.end());
    }
    return left;
}

/* A run. What did not come about there comes with none beside it in its boot, and at last with none
 * in the boots before it either, where all is as in the run without failures. */
static void run_index(file_sweep &sweep, const boot_sweep &now, const failure_set &failures)
{
    failure_list missed = run_failures(sweep, now, failures);

    missed = run_again(sweep, now, missed, LIVES);
    sweep.missed += run_again(sweep, now, missed, 1).size();
}

static bool is_mine(const struct fault_options &options, size_t index)
{
    if (options.only >= 0)
        return index == static_cast<size_t>(options.only);
    return index >= options.from && index % options.every == 0 &&
           index / options.every % options.parts == options.part;
}

/* Each run takes failures that stand far apart in the list: at_once of them for each life. */
static void run_list(file_sweep &sweep, const boot_sweep &now, const std::vector<failure> &list,
                     size_t at_once)
{
    size_t lives = (list.size() + at_once - 1) / at_once;

    lives = std::max(lives, std::min(list.size(), APART));
    size_t runs = (lives + LIVES - 1) / LIVES;
    for (size_t run = 0; run < runs; run++, sweep.index++) {
        failure_set failures(now.boot);

        if (!is_mine(sweep.options, sweep.index))
            continue;
        for (size_t life = run; life < runs * LIVES; life += runs) {
            failures.emplace_back();
            for (size_t at = life; life < lives && at < list.size(); at += lives)
                failures.back().push_back(&list[at]);
        }
        run_index(sweep, now, failures);
    }
}

static void tell_undisturbed(file_sweep &sweep, const course &course)
{
    for (const std::string &problem : course.problems) {
        sweep.violations++;
        printf("violation: %s, undisturbed: %s\n", sweep.options.files.front().c_str(),
               problem.c_str());
    }
}

/* The products as each boot begins with them. */
static std::vector<std::vector<std::string>> states_at_boots(file_sweep &sweep,
                                                             const struct scenario &whole)
{
    struct scenario plain;

    products_open(whole);
    std::vector<std::vector<std::string>> states = {{}};
    for (const std::string &key : product_keys())
        states[0].push_back(product_state_text(key));
    plain.file = whole.file;
    plain.folder = whole.folder;
    plain.defines = whole.defines;
    plain.document.CopyFrom(whole.document, plain.document.GetAllocator());
    fault_scenario_strip(plain);
    course course = play(sweep, plain, {});
    states.insert(states.end(), course.states.begin(), course.states.end());
    tell_undisturbed(sweep, course);
    return states;
}

static void fault_runs_file(file_sweep &sweep, const struct scenario &whole)
{
    size_t boots = node_elements(&whole.document, "boots").size();

    watch_try("oxni_devhost run " + sweep.options.files.front(), 0);
    std::vector<std::vector<std::string>> states = states_at_boots(sweep, whole);
    for (size_t boot = 0; boot < std::min(boots, states.size()); boot++) {
        boot_sweep now = {};

        now.boot = boot;
        fault_scenario_prepare(whole, boot, states.at(boot), now.scenario);
        now.plain = play(sweep, now.scenario, failure_set(boot + LIVES));
        tell_undisturbed(sweep, now.plain);
        if (now.plain.counts.size() <= boot)
            return; /* it was not played so far, which is told */
        boot_failures list = failures_list(sweep.options.kind, now.plain.counts[boot]);
        run_list(sweep, now, list.once, AT_ONCE);
        run_list(sweep, now, list.forever, 1);
    }
}

/* This process's part of a file. */
static int fault_runs_part(const struct fault_options &options)
{
    run_folder folder("", options.place);
    struct scenario scenario;

    heap_open();
    image_keep_mapped(!options.reload);
    watch_open(HANG_SECONDS);
    journal_set_view(NULL, NULL);
    agent_watch_end(look_for_leaks);
    oxnih_memory_set_mode(OXNIH_MEMORY_GUARD);
    memory_disk_open(text_wide(folder.path));
    scenario_load(scenario, options.files.front(), {});
    file_sweep sweep = {options, folder, 0, 0, 0, 0, 0, 0};
    fault_runs_file(sweep, scenario);
    printf("figures %llu %llu %llu %llu\n", static_cast<unsigned long long>(sweep.runs),
           static_cast<unsigned long long>(sweep.failed),
           static_cast<unsigned long long>(sweep.missed),
           static_cast<unsigned long long>(sweep.exits));
    fflush(stdout);
    return sweep.violations == 0 ? EXIT_ALL_HOLD : EXIT_EXPECTATION_FAILED;
}

/* All parts, each in a process of its own. */
static int fault_runs_shared(const struct fault_options &options)
{
    std::vector<std::vector<std::string>> jobs;
    ULONGLONG began = GetTickCount64();
    size_t parts = options.every > 1 ? 1 : 8;
    unsigned long long runs = 0, failed = 0, missed = 0, exits = 0, violations = 0, n[4];

    for (const std::string &file : options.files)
        for (size_t part = 0; part < parts; part++) {
            jobs.push_back({"faults", options.kind, file, "--plugin", options.plugin_path,
                            "--place", options.place, "--every", std::to_string(options.every),
                            "--part", std::to_string(part), "--parts", std::to_string(parts)});
            if (options.reload)
                jobs.back().push_back("--reload");
        }
    for (const std::string &line : jobs_run(jobs)) {
        if (sscanf(line.c_str(), "figures %llu %llu %llu %llu", &n[0], &n[1], &n[2], &n[3]) == 4) {
            runs += n[0];
            failed += n[1];
            missed += n[2];
            exits += n[3];
            continue;
        }
        violations += line.rfind("violation:", 0) == 0;
        printf("%s\n", line.c_str());
    }
    printf("%-12s %8s %10s %8s %12s %11s %8s\n%-12s %8llu %10llu %8llu %12llu %11llu %8.1f\n",
           "sweep", "runs", "failures", "missed", "guard exits", "violations", "seconds",
           options.kind.c_str(), runs, failed, missed, exits, violations,
           static_cast<double>(GetTickCount64() - began) / 1000.0);
    return violations == 0 ? EXIT_ALL_HOLD : EXIT_EXPECTATION_FAILED;
}

int fault_runs_of(const struct fault_options &options)
{
    struct fault_options all = options;
    struct view_options view = {};

    if (all.parts != 0 && all.part >= all.parts)
        throw devhost_error(EXIT_BAD_CALL, "--part: expected a number below that of --parts");
    if (all.plugin_path.empty())
        all.plugin_path = run_standard_plugin();
    view.log_level = OXNI_LOG_INFO;
    jobs_check(all.files, all.plugin_path);
    view_open(view);
    oxnih_log_set_level(OXNI_LOG_DEBUG);
    return all.parts != 0 || all.only >= 0 ? fault_runs_part(all) : fault_runs_shared(all);
}
