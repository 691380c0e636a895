/*
 * Fault runs. The fault model:
 *
 * A run plays a scenario up to one of its boots, in which one failure occurs and which ends with a
 * power loss; then two undisturbed boots, the second one after a blue screen. The runs of a boot are
 * its failures in order, each once and then each persistently, as many as the same boot without a
 * failure has. All is equal up to the failure, so each one fires; one that does not is a violation.
 *
 * What fails:
 * - allocations: the nth of the platform's allocator, which is the plug-in's C++ heap, too;
 * - calls: the nth call of a name of calls_table.h, with its documented errors. The first two fail
 *   with each error, later ones with one in turn; after the 128th only the 256th, 512th and so on,
 *   where the polls of a driver or of ten days repeat;
 * - the delivery of the nth command, as to an unreachable product, with two errors;
 * - the calls of the debugger engine, one name a run, in the whole boot, with three results each.
 *
 * What must hold; what the same run without a failure shows as well does not count:
 * - no crash, no exception that reaches the host, no hang. The allocation guard may end the agent,
 *   but only where allocations fail;
 * - no block, handle or engine reference is leaked by any of the agent's processes;
 * - the platform has no further complaint;
 * - after each boot the documents load; after the last one no half-written ".tmp" remains;
 * - no state of the previous boot is in force after the agent's initialisation (previous_boot.h);
 * - messages, commands and uploads of the undisturbed boots are equal, with their times.
 *
 * Exempt:
 * - a damaged document of the scenario that the failure kept the plug-in from replacing;
 * - one excess delete for each product that leaves, of its own handle: unsubscribing releases a
 *   reference even when a dropped registration holds none;
 * - the product's name, leaked with each upload that fails in transport;
 * - the crash count of the platform's own drivers and their "set_count": their files keep it, and
 *   failures keep the plug-in from resetting them.
 */
#include "fault_runs.h"

#include <cstdio>

#include <algorithm>
#include <map>

#include <oxni/base/ejs.h>
#include <oxni/base/log.h>

#include "agent/agent.h"
#include "agent/plugin_image.h"
#include "base/run_folder.h"
#include "base/text.h"
#include "calls/calls.h"
#include "calls/heap.h"
#include "disk/files.h"
#include "disk/memory_disk.h"
#include "failures.h"
#include "fault_scenario.h"
#include "harness/leaks.h"
#include "harness/previous_boot.h"
#include "harness/watch.h"
#include "liboxnibase/host.h"
#include "play/load.h"
#include "play/play.h"
#include "scenario/journal.h"
#include "scenario/timeline.h"
#include "view/view.h"

static constexpr int HANG_SECONDS = 120;
/* The boot of an allocation or call that fails persistently ends 60 to 120 s after the first failure:
 * ten days of nothing but failures show nothing new. */
static constexpr uint32_t SETTLE_MS = 60000u;

/* What a run showed. */
struct course {
    boot_counts counts;                   /* of the disturbed boot */
    bool fired;                           /* the failure occurred in it */
    std::vector<std::string> undisturbed; /* what happened in the boots after it */
    std::vector<std::string> complaints;  /* of the platform */
    std::vector<std::string> problems;    /* violations by themselves */
    uint64_t exits;                       /* of the agent by the allocation guard */
};

/* The part of a file that this process does. */
struct file_runs {
    const struct fault_options &options;
    const run_folder &folder;
    uint64_t index;                   /* of the next run */
    uint64_t runs, exits, violations; /* exits: runs in which the failure ended the agent */
};

static std::vector<std::string> s_leaks; /* of the run's processes */
static uint64_t s_failed_replies;        /* of uploads, of earlier processes */

/* Uploads of the present process that failed in transport. */
static uint64_t failed_uploads(void)
{
    uint64_t replies = calls_failed("oxnir_rsp_get_errno"), failed = 0;

    for (const happening &what : journal_all()) {
        if (what.kind == HAPPENED_AGENT && what.text.rfind("starts", 0) == 0)
            failed = 0;
        failed += what.kind == HAPPENED_RESPONSE && what.number != 0;
    }
    failed += replies - s_failed_replies;
    s_failed_replies = replies;
    return failed;
}

static void look_for_leaks(const void *plugin)
{
    for (const std::string &leak : leaks_of_agent(plugin, failed_uploads()))
        s_leaks.push_back(leak);
}

static void on_happening(const happening &what, void *user)
{
    previous_boot_note(what);
    if (*static_cast<const bool *>(user))
        view_happening(what, nullptr);
}

/* Whether it complains about a delete for a handle that left, each of which excuses one. */
static bool is_excess_delete(const std::string &complaint, std::map<std::string, size_t> &left)
{
    for (auto &leaving : left)
        if (leaving.second > 0 && complaint.find("no reference of subscriber " + leaving.first +
                                                 " is left to give") != std::string::npos) {
            leaving.second--;
            return true;
        }
    return false;
}

static void note_complaints(course &course)
{
    std::map<std::string, size_t> left;

    for (const happening &what : journal_all()) {
        if (what.kind == HAPPENED_AGENT)
            left.clear();
        if (what.kind == HAPPENED_LEFT)
            left[what.who]++;
        if (what.kind == HAPPENED_COMPLAINT && !is_excess_delete(what.text, left))
            course.complaints.push_back(what.text);
    }
}

static std::string without_crash_count(const happening &what)
{
    size_t at = what.text.find(", count ");

    if (what.kind != HAPPENED_MESSAGE || what.who != "XNI/BYPASS" || at == std::string::npos)
        return what.text;
    return what.text.substr(0, at) + what.text.substr(what.text.find(',', at + 1));
}

static bool is_compared(const happening &what)
{
    if (what.kind == HAPPENED_COMMAND)
        return what.whom != "XNI/BYPASS" || what.text.find(": set_count") == std::string::npos;
    return what.kind == HAPPENED_MESSAGE || what.kind == HAPPENED_UPLOAD;
}

static void note_undisturbed(course &course)
{
    for (const happening &what : journal_all())
        if (what.boot == journal_boot() && is_compared(what))
            course.undisturbed.push_back(time_span(what.ms) + " " + what.who + " " + what.whom +
                                         without_crash_count(what));
    if (agent_state_get() != AGENT_RUNNING)
        course.problems.push_back("the agent does not run in an undisturbed boot");
}

static const char *const s_documents[] = {"bypass_mgr_persistence.ejs", "bypass_mgr_upload.ejs",
                                          "bypass_mgr_dumprecord.ejs"};

/* Whether value writes a file that damages a document: other bytes of that length, or a torn one. */
static bool writes_damage(const json_value &value, const std::string &content)
{
    const bool other = node_member(&value, "bytes") != nullptr;
    const bool torn = node_member(&value, "document") != nullptr;

    return (other && node_text_of(&value, "bytes", "").size() == 2 * content.size()) ||
           (torn && node_integer_of(&value, "size", -1) == static_cast<int64_t>(content.size()));
}

/* Whether a scenario writes a file with that content, somewhere in value. */
static bool writes_text(const json_value &value, const std::string &content)
{
    auto writes = [&content](const json_value &inner) { return writes_text(inner, content); };

    if (value.IsArray())
        return std::any_of(value.Begin(), value.End(), writes);
    if (!value.IsObject())
        return false;
    return (node_member(&value, "text") != nullptr &&
            node_text_of(&value, "text", "") == content) ||
           writes_damage(value, content) ||
           std::any_of(value.MemberBegin(), value.MemberEnd(),
                       [&writes](const auto &member) { return writes(member.value); });
}

static void check_documents(course &course, const struct scenario &scenario)
{
    for (const char *name : s_documents) {
        std::string path = agent_data_path(name);

        if (!machine_file_exists(text_wide(path)))
            continue;
        json_t *document = wdu_json_load_file_ejs(path.c_str());
        if (document == nullptr &&
            !writes_text(scenario.document,
                         machine_read_real_file(text_wide(path), EXIT_EXPECTATION_FAILED)))
            course.problems.push_back(std::string(name) + " does not load");
        wdu_json_delete_ejs(document);
    }
}

static void check_end(course &course)
{
    for (const char *name : s_documents)
        if (machine_file_exists(text_wide(agent_data_path(name) + ".tmp")))
            course.problems.push_back(std::string(name) + ".tmp remains");
    for (const happening &what : journal_all())
        course.exits +=
            what.kind == HAPPENED_AGENT && what.text.rfind("was ended by the plug-in", 0) == 0;
    course.problems.insert(course.problems.end(), s_leaks.begin(), s_leaks.end());
}

/* A freed block faults in the disturbed boot; in those after it, only writing to it is reported,
 * which takes less than half the time. The boots before it have runs of their own. */
static enum oxnih_memory_mode memory_mode(size_t boot, size_t disturbed)
{
    if (boot < disturbed)
        return OXNIH_MEMORY_PLAIN;
    return boot == disturbed ? OXNIH_MEMORY_GUARD : OXNIH_MEMORY_FENCE;
}

static void run_boot(const failure *failure)
{
    bool settles = failure != nullptr && failure->persistent &&
                   (failure->kind == FAILS_ALLOCATION || failure->kind == FAILS_CALL);

    while (settles && timeline_now_ms() + SETTLE_MS < play_boot_end_ms()) {
        bool fired = failure_fired(*failure);

        play_run_until(timeline_now_ms() + SETTLE_MS);
        if (fired)
            return;
    }
    play_run_until(play_boot_end_ms());
}

/* shown: all boots write log lines; else the disturbed one alone, since they take time. */
static void play_boots(course &course, const struct scenario &scenario, size_t disturbed,
                       const failure *failure, bool shown)
{
    for (size_t boot = 0; play_begin_boot(); boot++) {
        oxnih_memory_set_mode(memory_mode(boot, disturbed));
        oxnih_log_set_level(shown || boot == disturbed ? OXNI_LOG_DEBUG : -1);
        failure_arm(boot == disturbed ? failure : nullptr);
        run_boot(boot == disturbed ? failure : nullptr);
        if (boot == disturbed) {
            course.fired = failure == nullptr || failure_fired(*failure);
            course.counts = failure_disarm(failure);
        }
        if (boot > disturbed)
            note_undisturbed(course);
        play_end_boot();
        if (boot >= disturbed)
            check_documents(course, scenario);
        for (const std::string &found : previous_boot_violations())
            course.problems.push_back(found);
    }
}

/* Plays one run; failure: NULL for none. */
static course play(const file_runs &file, const struct scenario &scenario, size_t disturbed,
                   const failure *failure)
{
    bool shown = file.options.only >= 0 && failure != nullptr;
    course course = {};

    file.folder.empty();
    s_leaks.clear();
    previous_boot_open();
    journal_set_view(on_happening, &shown);
    try {
        play_open(scenario, {file.folder.path, file.options.job.plugin_path, false, true});
        if (!shown)
            oxnih_log_set_sink(nullptr, nullptr);
        play_boots(course, scenario, disturbed, failure, shown);
    } catch (const devhost_error &error) {
        course.problems.push_back(error.what());
    }
    (void)play_close();
    journal_set_view(nullptr, nullptr);
    note_complaints(course);
    check_end(course);
    return course;
}

/* What a run shows beyond the one without a failure. */
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
    if (disturbed.undisturbed != plain.undisturbed) {
        found.push_back("the undisturbed boots differ; after the failure:");
        for (const std::string &line : disturbed.undisturbed)
            found.push_back("  " + line);
        found.push_back("without it:");
        for (const std::string &line : plain.undisturbed)
            found.push_back("  " + line);
    }
    return found;
}

static void run_failure(file_runs &file, const struct scenario &scenario, size_t boot,
                        const course &plain, const failure &failure)
{
    const struct fault_options &options = file.options;
    std::string again =
        text_format("./dev faults %s --only %llu %s", options.kind.c_str(),
                    static_cast<unsigned long long>(file.index), scenario.file.c_str());

    watch_try(again, file.index);
    course disturbed = play(file, scenario, boot, &failure);
    std::vector<std::string> found = violations(plain, disturbed);

    if (disturbed.problems.empty() && !disturbed.fired)
        found.push_back("the failure did not fire: the boot differs before it");
    if (options.kind == "calls" && disturbed.exits > plain.exits)
        found.push_back("the allocation guard ended the agent, and no allocation failed");
    file.runs++;
    file.exits += disturbed.exits > plain.exits;
    if (found.empty())
        return;
    file.violations++;
    printf("violation: %s: boot %u: %s\n  reproduce: %s\n", scenario.file.c_str(),
           static_cast<unsigned>(boot + 1), failure_text(failure).c_str(), again.c_str());
    for (const std::string &line : found)
        printf("  %s\n", line.c_str());
}

static void run_file(file_runs &file, const struct scenario &whole)
{
    for (size_t boot = 0; boot < node_elements(&whole.document, "boots").size(); boot++) {
        struct scenario scenario;

        fault_scenario_prepare(whole, boot, scenario);
        watch_try("./dev run " + whole.file, file.index);
        const course plain = play(file, scenario, boot, nullptr);
        for (const std::string &problem : plain.problems) {
            file.violations++;
            printf("violation: %s: boot %u, no failure: %s\n", whole.file.c_str(),
                   static_cast<unsigned>(boot + 1), problem.c_str());
        }
        if (plain.counts.calls.empty())
            return; /* the boot was not played to its end */
        for (const failure &failure : failures_of(file.options.kind, plain.counts)) {
            if (file.options.only >= 0 ? file.index == static_cast<uint64_t>(file.options.only)
                                       : jobs_is_mine(file.options.job, file.index))
                run_failure(file, scenario, boot, plain, failure);
            file.index++;
        }
    }
}

/* This process's part of a file. */
static int run_part(const struct fault_options &options)
{
    run_folder folder("", options.job.place);
    struct scenario scenario;
    struct view_options view = {};

    view.log_level = OXNI_LOG_INFO;
    view_open(view);
    heap_open();
    image_keep_mapped(!options.reload);
    watch_open(HANG_SECONDS);
    agent_watch_end(look_for_leaks);
    memory_disk_open(text_wide(folder.path));
    scenario_load(scenario, options.job.files.front(), {});
    file_runs file = {options, folder, 0, 0, 0, 0};
    run_file(file, scenario);
    return jobs_end({file.runs, file.exits}, file.violations);
}

int fault_runs_main(struct fault_options options)
{
    std::vector<std::string> command = {"faults"};

    if (options.job.plugin_path.empty())
        options.job.plugin_path = run_standard_plugin();
    if (options.job.parts != 0 || options.only >= 0)
        return run_part(options);
    if (options.reload)
        command.push_back("--reload");
    command.push_back(options.kind);
    return jobs_run(options.job, command, {"runs", "guard exits"});
}
