/* The cuts: one process that is ended for good, and one that plays the same up to there, ends the
 * agent at the same place, takes the files of the dead one, and plays on. */
#include "crash_points.h"

#include <stdio.h>
#include <string.h>
#include <windows.h>

#include <algorithm>
#include <iterator>
#include <map>
#include <memory>
#include <sstream>
#include <string>
#include <vector>

#include <oxni/base/memory.h>

#include "liboxnibase/host.h"
#include "agent/agent.h"
#include "machine/imports.h"
#include "machine/machine.h"
#include "scenario/agent_process.h"
#include "scenario/play.h"
#include "scenario/products.h"
#include "scenario/timeline.h"
#include "scenario/journal.h"
#include "base/run_folder.h"
#include "base/text.h"
#include "harness/jobs.h"
#include "fault_scenario.h"
#include "harness/watch.h"

#define HANG_SECONDS 120
#define SLICE_MS     1000u
#define RESTART_MS   5000u
#define EXIT_CUT     99

/* Whether a name is a document's, of which there is no third state. */
static bool is_document(const std::string &name)
{
    return name.size() > 4 && name.compare(name.size() - 4, 4, ".ejs") == 0;
}

/* What happens at the operations of this process. */
static struct {
    uint64_t count; /* so far */
    uint64_t at;    /* 0: at none */
    bool torn;
    void (*end)(void);           /* ends the agent */
    void (*before)(bool writes); /* may be NULL */
    HANDLE held; /* what is open in this operation, which Windows closes with the process */
    FILE *stream;
    std::string deleted; /* a document that was deleted, so that for a while there is none */
} s_ops;

/* Result: whether this write is to be done by half first. */
static bool operation(bool writes)
{
    s_ops.count++;
    if (s_ops.before != NULL)
        s_ops.before(writes);
    if (s_ops.count != s_ops.at)
        return false;
    if (writes && s_ops.torn)
        return true;
    s_ops.end();
    return false;
}

/* Operations, each with the real function of its module behind it: those of the plug-in go on to
 * the machine. */
template <int module> struct operations {
    static inline decltype(&::CreateFileW) create_w;
    static inline decltype(&::CreateFileA) create_a;
    static inline decltype(&::WriteFile) write;
    static inline decltype(&::FlushFileBuffers) flush;
    static inline decltype(&::MoveFileExW) move;
    static inline decltype(&::DeleteFileW) remove;
    static inline decltype(&::SetFileTime) set_time;
    static inline decltype(&::fclose) close;

    static HANDLE WINAPI do_create_w(const wchar_t *path, DWORD access, DWORD share,
                                     SECURITY_ATTRIBUTES *security, DWORD disposition, DWORD flags,
                                     HANDLE other)
    {
        if ((access & GENERIC_WRITE) != 0)
            (void)operation(false);
        return create_w(path, access, share, security, disposition, flags, other);
    }
    static HANDLE WINAPI do_create_a(const char *path, DWORD access, DWORD share,
                                     SECURITY_ATTRIBUTES *security, DWORD disposition, DWORD flags,
                                     HANDLE other)
    {
        if ((access & GENERIC_WRITE) != 0)
            (void)operation(false);
        return create_a(path, access, share, security, disposition, flags, other);
    }
    static BOOL WINAPI do_write(HANDLE file, const void *bytes, DWORD count, DWORD *written,
                                OVERLAPPED *overlapped)
    {
        s_ops.held = module != 0 ? file : NULL;
        if (operation(true)) {
            (void)write(file, bytes, count / 2, written, overlapped);
            s_ops.end();
        }
        s_ops.held = NULL;
        return write(file, bytes, count, written, overlapped);
    }
    static BOOL WINAPI do_flush(HANDLE file)
    {
        s_ops.held = file;
        (void)operation(false);
        s_ops.held = NULL;
        return flush(file);
    }
    static BOOL WINAPI do_move(const wchar_t *from, const wchar_t *to, DWORD flags)
    {
        (void)operation(false);
        return move(from, to, flags);
    }
    static BOOL WINAPI do_remove(const wchar_t *path)
    {
        (void)operation(false);
        if (is_document(text_narrow(path)))
            s_ops.deleted = text_narrow(path);
        return remove(path);
    }
    static BOOL WINAPI do_set_time(HANDLE file, const FILETIME *created, const FILETIME *accessed,
                                   const FILETIME *written)
    {
        (void)operation(false);
        return set_time(file, created, accessed, written);
    }
    static int do_close(FILE *file)
    {
        s_ops.stream = file;
        (void)operation(false); /* what was written goes to the disk now */
        s_ops.stream = NULL;
        return close(file);
    }

    template <typename Function> static void lead(void **entry, Function *real, Function stand_in)
    {
        *real =
            reinterpret_cast<Function>(imports_redirect(entry, reinterpret_cast<void *>(stand_in)));
    }

    static void lead_name(const std::string &name, void **entry)
    {
        if (name == "CreateFileW")
            lead(entry, &create_w, &do_create_w);
        if (name == "CreateFileA")
            lead(entry, &create_a, &do_create_a);
        if (name == "WriteFile" && module != 2) /* there it is the log's */
            lead(entry, &write, &do_write);
        if (name == "FlushFileBuffers")
            lead(entry, &flush, &do_flush);
        if (name == "MoveFileExW")
            lead(entry, &move, &do_move);
        if (name == "DeleteFileW")
            lead(entry, &remove, &do_remove);
        if (name == "SetFileTime")
            lead(entry, &set_time, &do_set_time);
        if (name == "fclose")
            lead(entry, &close, &do_close);
    }

    static void lead_all(HMODULE of)
    {
        imports_each(of, [](const std::string &, const char *name, void **entry) {
            lead_name(name, entry);
        });
    }
};

/* The platform's libraries once, the plug-in at each start. */
static void lead_platform(void)
{
    operations<1>::lead_all(GetModuleHandleW(L"libwdu_ejs.dll"));
    operations<2>::lead_all(GetModuleHandleW(L"liboxnibase.dll"));
}

static void lead_plugin(HMODULE plugin)
{
    operations<0>::lead_all(plugin);
}

[[noreturn]] static void end_process(void)
{
    TerminateProcess(GetCurrentProcess(), EXIT_CUT);
    abort();
}

/* Leaves the plug-in's frames as the end of its process by the allocation guard does. */
static void end_agent(void)
{
    if (s_ops.held != NULL)
        CloseHandle(s_ops.held);
    if (s_ops.stream != NULL)
        fclose(s_ops.stream);
    s_ops.held = NULL;
    s_ops.stream = NULL;
    oxni_out_of_memory_("cut", 0);
}

typedef std::map<std::string, std::string> file_set; /* name to bytes; missing ones are not in it */

/* What the plug-in keeps: its documents, the tag, the drivers' crash record. */
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
            files[name] = "(held)"; /* being written just now */
        }
    }
    return files;
}

/* What the uncut run was like: before each operation the files, and whether it writes; at last the
 * files. */
struct plain_run {
    std::vector<file_set> files;
    std::vector<bool> writes;
};

/* A slice of time of a run; the agent ends in it, or at one of its ends. */
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
    ENDS_BEHIND_SLICE,
};

struct crash_point_run {
    const struct scenario &scenario; /* without expectations */
    const struct crash_point_options &options;
    const run_folder &folder, &dead; /* of the process that ends */
    plain_run plain;
    std::map<moment, std::string> stopped[ENDS_BEHIND_SLICE + 1]; /* products, by ending */
    uint64_t cuts, violations;
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

/* The files that the ended process left, in place of ours; those that are alike keep their times,
 * which a recovery tag is judged by. */
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

/* One slice; result: whether the agent ended in it or at its end. at: where it is to be. */
static bool play_slice(enum ending ending, moment *at)
{
    uint64_t begin = timeline_now_ms(), end = std::min(play_boot_end_ms(), begin + SLICE_MS);
    bool here = journal_boot() == at->boot && begin == at->begin_ms;

    if (here && ending == ENDS_BEFORE_SLICE)
        agent_process_stop("is ended");
    play_run_until(end);
    if (here && ending == ENDS_BEHIND_SLICE)
        agent_process_stop("is ended");
    if (ending != ENDS_AT_OPERATION)
        return here;
    if (s_ops.at == 0 || s_ops.count < s_ops.at)
        return false;
    *at = {journal_boot(), begin};
    take_over(*s_run);
    return true;
}

/* Plays all boots; an agent that was ended on the way starts again in the same boot. at: receives
 * the slice in which it ended, or says where it is to end. Result: the products at the end. */
static std::string play_all_boots(const struct scenario &scenario, const std::string &plugin_path,
                                  const std::string &folder, enum ending ending, moment *at)
{
    std::string products;
    bool ended = false;

    s_ops.count = 0;
    play_open(scenario, {folder, plugin_path, false, true});
    oxnih_log_set_sink(NULL, NULL);
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
    printf("violation: %s: cut %llu%s: %s\n", run.options.files.front().c_str(),
           static_cast<unsigned long long>(s_ops.at), s_ops.torn ? " in the middle" : "",
           what.c_str());
}

/* Each document is the old or the new one. */
static void check_files(crash_point_run &run)
{
    size_t at = static_cast<size_t>(s_ops.at);
    file_set left = files_of(run.dead.path);
    file_set old = run.plain.files[at - 1], fresh = run.plain.files[at];

    for (const std::string &name : s_names) {
        bool same = left[name] == old[name] || left[name] == fresh[name];

        if (is_document(name) && !same)
            violation(run, name + " is neither the old nor the new one");
    }
}

static std::string play_here(const crash_point_run &run, enum ending ending, moment *at)
{
    run.folder.empty();
    return play_all_boots(run.scenario, run.options.plugin_path, run.folder.path, ending, at);
}

/* The products at the end when the agent is stopped at that moment; played once. */
static const std::string &play_stopped(crash_point_run &run, enum ending ending, moment when)
{
    std::string &products = run.stopped[ending][when];
    uint64_t at = s_ops.at;

    s_ops.at = 0;
    if (products.empty())
        products = play_here(run, ending, &when);
    s_ops.at = at;
    return products;
}

static std::vector<std::string> words(const std::string &text)
{
    std::istringstream stream(text);

    return {std::istream_iterator<std::string>(stream), {}};
}

/* Each product ends as it does when the agent is stopped between two callbacks, right before that
 * moment or right behind it: several may be told in one moment, and the cut lie between two. */
static void check_products(crash_point_run &run)
{
    moment when = {};
    std::string cut = play_here(run, ENDS_AT_OPERATION, &when);
    std::vector<std::string> found = words(cut),
                             before = words(play_stopped(run, ENDS_BEFORE_SLICE, when)),
                             behind = words(play_stopped(run, ENDS_BEHIND_SLICE, when));

    if (found.size() != before.size() || found.size() != behind.size())
        return violation(run, "at the end " + cut + "are not all products");
    for (size_t i = 0; i < found.size(); i++)
        if (found[i] != before[i] && found[i] != behind[i])
            violation(run,
                      "at the end " + found[i] + " in place of " + before[i] + " or " + behind[i]);
}

static void crash_point_once(crash_point_run &run, uint64_t at, bool torn)
{
    std::vector<std::string> arguments = {"crashpoints", run.options.files.front(),
                                          "--at",        std::to_string(at),
                                          "--keep",      run.dead.path,
                                          "--plugin",    run.options.plugin_path};
    std::string output;

    if (torn)
        arguments.push_back("--torn");
    run.dead.empty();
    watch_try("harness crashpoints " + run.options.files.front() + " --from " + std::to_string(at),
              at);
    unsigned status = jobs_run_process(arguments, &output);
    s_ops = {0, at, torn, end_agent, NULL, NULL, NULL, ""};
    run.cuts++;
    if (status != EXIT_CUT)
        violation(run, text_format("the process ended with status %u", status));
    check_files(run);
    check_products(run);
}

static void crash_point_file(crash_point_run &run)
{
    s_ops = {0, 0, false, end_agent, note_operation, NULL, NULL, ""};
    s_run = &run;
    watch_try("oxni_devhost run " + run.options.files.front(), 0);
    moment nowhere = {};
    (void)play_here(run, ENDS_AT_OPERATION, &nowhere);
    run.plain.files.push_back(files_of(run.folder.path));
    if (!s_ops.deleted.empty())
        violation(run, s_ops.deleted + " is deleted, and a cut behind it finds none");
    for (uint64_t at = 1; at <= run.plain.writes.size(); at++) {
        if (at < run.options.from || at % run.options.every != 0)
            continue;
        crash_point_once(run, at, false);
        if (run.plain.writes[static_cast<size_t>(at - 1)])
            crash_point_once(run, at, true);
    }
}

/* This process is the one that ends. */
static int crash_point_here(const struct scenario &scenario,
                            const struct crash_point_options &options)
{
    s_ops = {0, options.at, options.torn, end_process, NULL, NULL, NULL, ""};
    moment nowhere = {};
    (void)play_all_boots(scenario, options.plugin_path, options.keep, ENDS_AT_OPERATION, &nowhere);
    return EXIT_EXPECTATION_FAILED; /* there is no such operation */
}

static int crash_point_part(const struct crash_point_options &options)
{
    struct scenario scenario;

    watch_open(HANG_SECONDS);
    lead_platform();
    agent_watch_load(lead_plugin);
    scenario_load(scenario, options.files.front(), {});
    fault_scenario_strip(scenario);
    if (options.at != 0)
        return crash_point_here(scenario, options);
    run_folder folder("", options.place), dead(folder.path + "-dead");
    crash_point_run run = {scenario, options, folder, dead, {}, {}, 0, 0};
    dead.kept = false;
    crash_point_file(run);
    printf("figures %llu %llu\n", static_cast<unsigned long long>(run.cuts),
           static_cast<unsigned long long>(run.violations));
    fflush(stdout);
    return run.violations == 0 ? EXIT_ALL_HOLD : EXIT_EXPECTATION_FAILED;
}

static int crash_point_shared(const struct crash_point_options &options)
{
    std::vector<std::vector<std::string>> jobs;
    ULONGLONG began = GetTickCount64();
    unsigned long long cuts = 0, violations = 0, n[2];

    for (const std::string &file : options.files)
        jobs.push_back({"crashpoints", file, "--worker", "--plugin", options.plugin_path, "--place",
                        options.place, "--every", std::to_string(options.every)});
    for (const std::string &line : jobs_run(jobs)) {
        if (sscanf(line.c_str(), "figures %llu %llu", &n[0], &n[1]) == 2) {
            cuts += n[0];
            continue;
        }
        violations += line.rfind("violation:", 0) == 0;
        printf("%s\n", line.c_str());
    }
    printf("%-12s %8s %11s %8s\n%-12s %8llu %11llu %8.1f\n", "", "number", "violations", "seconds",
           "cuts", cuts, violations, static_cast<double>(GetTickCount64() - began) / 1000.0);
    return violations == 0 ? EXIT_ALL_HOLD : EXIT_EXPECTATION_FAILED;
}

int crash_points_of(const struct crash_point_options &options)
{
    struct crash_point_options all = options;

    if (all.plugin_path.empty())
        all.plugin_path = run_standard_plugin();
    jobs_check(all.files, all.plugin_path);
    return all.worker || all.at != 0 || all.from != 0 ? crash_point_part(all)
                                                      : crash_point_shared(all);
}
