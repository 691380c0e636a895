/*
 * Crash points. A process plays a scenario and ends itself before one of its file operations, or in
 * the middle of a write. This process plays the same up to there, ends its agent at the same
 * operation, takes over the files that the dead process left, and starts the agent again in the same
 * boot. Registry and machine are equal, since both play the same.
 *
 * What must hold:
 * - each document is the one before the operation or the one after it;
 * - no document is deleted: a crash point after that would find none;
 * - each product ends in the state in which it ends when the agent is stopped and started between
 *   two callbacks, right before or right after that moment. Several products may get orders in one
 *   moment: a crash point between two of them leaves one as before and one as after.
 */
#include "crash_points.h"

#include <cstdio>
#include <windows.h>

#include <algorithm>
#include <iterator>
#include <map>
#include <sstream>
#include <string>
#include <vector>

#include <oxni/base/memory.h>

#include "base/run_folder.h"
#include "base/text.h"
#include "disk/files.h"
#include "fault_scenario.h"
#include "file_operations.h"
#include "harness/watch.h"
#include "liboxnibase/host.h"
#include "participants/products.h"
#include "play/agent_process.h"
#include "play/load.h"
#include "play/play.h"
#include "scenario/journal.h"
#include "scenario/timeline.h"

static constexpr int HANG_SECONDS = 120;
static constexpr uint32_t SLICE_MS = 1000u;
static constexpr uint32_t RESTART_MS = 5000u;
static constexpr int EXIT_CRASH_POINT = 99;

[[noreturn]] static void end_process(void)
{
    TerminateProcess(GetCurrentProcess(), EXIT_CRASH_POINT);
    abort();
}

/* Leaves the plug-in's frames as the allocation guard does. */
static void end_agent(void)
{
    file_operations_close_files();
    oxni_out_of_memory_("crash point", 0);
}

typedef std::map<std::string, std::string> file_set; /* name to bytes, without missing files */

/* The plug-in's documents, the recovery tag and the drivers' crash records. */
static const std::string s_names[] = {
    "agent\\var\\bypass_mgr\\bypass_mgr_persistence.ejs",
    "agent\\var\\bypass_mgr\\bypass_mgr_upload.ejs",
    "agent\\var\\bypass_mgr\\bypass_mgr_dumprecord.ejs",
    "base\\Quorvel\\OXNI3_CFG\\driver\\oxni_driver_recover",
    "agent\\bin\\crash_config.cfg",
    "base\\Quorvel\\OXNI3_CFG\\oxnisp_driver\\crash_config.cfg",
};

static file_set files_of(const std::string &folder)
{
    file_set files;

    for (const std::string &name : s_names) {
        std::wstring path = text_wide(folder + "\\" + name);

        if (GetFileAttributesW(path.c_str()) == INVALID_FILE_ATTRIBUTES)
            continue;
        try {
            files[name] = machine_read_real_file(path, EXIT_BAD_CALL);
        } catch (const devhost_error &) {
            files[name] = "(locked)"; /* the operation is part of its writing */
        }
    }
    return files;
}

/* The run without a crash point. */
struct plain_run {
    std::vector<file_set> files; /* before each operation, and at the end */
    std::vector<bool> writes;    /* whether an operation writes */
};

/* The slice of time of a run in which the agent ends. */
struct moment {
    int boot;
    uint64_t begin_ms;

    bool operator<(const moment &other) const
    {
        return boot != other.boot ? boot < other.boot : begin_ms < other.begin_ms;
    }
};

enum ending {
    ENDS_AT_OPERATION,
    ENDS_BEFORE_SLICE, /* between two callbacks, as when it is stopped */
    ENDS_AFTER_SLICE,
};

struct crash_point_run {
    const struct scenario &scenario; /* without expectations */
    const struct crash_point_options &options;
    const run_folder &folder, &dead; /* dead: of the process that ends */
    plain_run plain;
    std::map<moment, std::string> stopped[ENDS_AFTER_SLICE + 1]; /* products, by ending */
    uint64_t points, violations;
};

static crash_point_run *s_run;

static void note_operation(bool writes)
{
    s_run->plain.files.push_back(files_of(s_run->folder.path));
    s_run->plain.writes.push_back(writes);
}

static std::string products_now(void)
{
    std::string all;

    for (const std::string &key : product_keys()) {
        std::string state = product_state_text(key);

        all += key + state.substr(0, state.find(",\"commands\"")) + "} ";
    }
    return all;
}

/* Replaces our files by those of the dead process. Equal files keep their times: the time of the
 * recovery tag matters. */
static void take_over(const crash_point_run &run)
{
    file_set left = files_of(run.dead.path), ours = files_of(run.folder.path);

    for (const auto &file : ours)
        if (left.count(file.first) == 0)
            DeleteFileW(text_wide(run.folder.path + "\\" + file.first).c_str());
    for (const auto &file : left)
        if (ours.count(file.first) == 0 || ours[file.first] != file.second)
            machine_write_file(text_wide(run.folder.path + "\\" + file.first), file.second,
                               oxnih_clock_now_100ns(), oxnih_clock_now_100ns());
}

/* Plays one slice. at: where the agent ends; set when it ends at an operation. Result: whether it
 * ended. */
static bool play_slice(enum ending ending, moment *at)
{
    uint64_t begin = timeline_now_ms(), end = std::min(play_boot_end_ms(), begin + SLICE_MS);
    bool here = journal_boot() == at->boot && begin == at->begin_ms;

    if (here && ending == ENDS_BEFORE_SLICE)
        agent_process_stop("ends");
    play_run_until(end);
    if (here && ending == ENDS_AFTER_SLICE)
        agent_process_stop("ends");
    if (ending != ENDS_AT_OPERATION)
        return here;
    if (file_operations.at == 0 || file_operations.count < file_operations.at)
        return false;
    *at = {journal_boot(), begin};
    take_over(*s_run);
    return true;
}

/* Plays all boots; an agent that ends by the crash point starts again in the same boot. at: as for
 * play_slice. Result: the products at the end. */
static std::string play_all_boots(const struct scenario &scenario, const std::string &plugin_path,
                                  const std::string &folder, enum ending ending, moment *at)
{
    std::string products;
    bool ended = false;

    file_operations.count = 0;
    play_open(scenario, {folder, plugin_path, false, true});
    oxnih_log_set_sink(nullptr, nullptr);
    while (play_begin_boot()) {
        while (timeline_now_ms() < play_boot_end_ms()) {
            if (ended) {
                play_run_until(play_boot_end_ms());
            } else if (play_slice(ending, at)) {
                ended = true;
                timeline_at(timeline_now_ms() + RESTART_MS, agent_process_start);
            }
        }
        play_end_boot();
    }
    products = products_now();
    (void)play_close();
    return products;
}

static void violation(crash_point_run &run, const std::string &what)
{
    run.violations++;
    printf("violation: %s: crash point %llu%s: %s\n", run.scenario.file.c_str(),
           static_cast<unsigned long long>(file_operations.at),
           file_operations.torn ? ", torn write" : "", what.c_str());
}

static void check_files(crash_point_run &run)
{
    size_t at = static_cast<size_t>(file_operations.at);
    file_set left = files_of(run.dead.path);
    file_set old = run.plain.files[at - 1], fresh = run.plain.files[at];

    for (const std::string &name : s_names) {
        bool same = left[name] == old[name] || left[name] == fresh[name];

        if (file_operations_document(name) && !same)
            violation(run, name + " is neither the old nor the new one");
    }
}

static std::string play_here(const crash_point_run &run, enum ending ending, moment *at)
{
    run.folder.empty();
    return play_all_boots(run.scenario, run.options.job.plugin_path, run.folder.path, ending, at);
}

/* The products at the end when the agent is stopped at that moment; played once. */
static const std::string &play_stopped(crash_point_run &run, enum ending ending, moment when)
{
    std::string &products = run.stopped[ending][when];
    uint64_t at = file_operations.at;

    file_operations.at = 0;
    if (products.empty())
        products = play_here(run, ending, &when);
    file_operations.at = at;
    return products;
}

static std::vector<std::string> words(const std::string &text)
{
    std::istringstream stream(text);

    return {std::istream_iterator<std::string>(stream), {}};
}

static void check_products(crash_point_run &run)
{
    moment when = {};
    std::string all = play_here(run, ENDS_AT_OPERATION, &when);
    std::vector<std::string> found = words(all),
                             before = words(play_stopped(run, ENDS_BEFORE_SLICE, when)),
                             after = words(play_stopped(run, ENDS_AFTER_SLICE, when));

    if (found.size() != before.size() || found.size() != after.size())
        return violation(run, "at the end " + all + "are not all products");
    for (size_t i = 0; i < found.size(); i++)
        if (found[i] != before[i] && found[i] != after[i])
            violation(run,
                      "at the end " + found[i] + ", expected " + before[i] + " or " + after[i]);
}

static void crash_at(crash_point_run &run, uint64_t at, bool torn)
{
    std::vector<std::string> arguments = {
        "crashpoints", run.scenario.file, "--at",     std::to_string(at),
        "--keep",      run.dead.path,     "--plugin", run.options.job.plugin_path};
    std::string output;

    if (torn)
        arguments.push_back("--torn");
    run.dead.empty();
    watch_try("./dev crashpoints " + run.scenario.file + " --parts 1 --from " + std::to_string(at),
              at);
    unsigned status = jobs_run_process(arguments, &output);
    file_operations = {0, at, torn, end_agent, nullptr, ""};
    run.points++;
    if (status != EXIT_CRASH_POINT)
        violation(run, text_format("the process ended with status %u", status));
    check_files(run);
    check_products(run);
}

static void run_file(crash_point_run &run)
{
    moment nowhere = {};

    file_operations = {0, 0, false, end_agent, note_operation, ""};
    s_run = &run;
    watch_try("./dev run " + run.scenario.file, 0);
    (void)play_here(run, ENDS_AT_OPERATION, &nowhere);
    run.plain.files.push_back(files_of(run.folder.path));
    if (!file_operations.deleted.empty())
        violation(run, file_operations.deleted + " is deleted");
    for (uint64_t at = 1; at <= run.plain.writes.size(); at++) {
        if (!jobs_is_mine(run.options.job, at))
            continue;
        crash_at(run, at, false);
        if (run.plain.writes[static_cast<size_t>(at - 1)])
            crash_at(run, at, true);
    }
}

/* This process is the one that ends. */
static int run_dead(const struct scenario &scenario, const struct crash_point_options &options)
{
    moment nowhere = {};

    file_operations = {0, options.at, options.torn, end_process, nullptr, ""};
    (void)play_all_boots(scenario, options.job.plugin_path, options.keep, ENDS_AT_OPERATION,
                         &nowhere);
    return EXIT_EXPECTATION_FAILED; /* there is no such operation */
}

static int run_part(const struct crash_point_options &options)
{
    struct scenario scenario;

    watch_open(HANG_SECONDS);
    file_operations_open();
    scenario_load(scenario, options.job.files.front(), {});
    fault_scenario_strip(scenario);
    if (options.at != 0)
        return run_dead(scenario, options);
    run_folder folder("", options.job.place), dead(folder.path + "-dead");
    crash_point_run run = {scenario, options, folder, dead, {}, {}, 0, 0};
    dead.kept = false;
    run_file(run);
    return jobs_end({run.points}, run.violations);
}

int crash_points_main(struct crash_point_options options)
{
    if (options.job.plugin_path.empty())
        options.job.plugin_path = run_standard_plugin();
    if (options.job.parts != 0 || options.at != 0)
        return run_part(options);
    return jobs_run(options.job, {"crashpoints"}, {"crash points"});
}
