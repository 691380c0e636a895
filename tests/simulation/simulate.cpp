/* The loop of the simulation: plays machines, prints findings, and shrinks the scenario of a failing
 * machine. */
#include "simulate.h"

#include <inttypes.h>
#include <cstdio>
#include <windows.h>

#include <functional>
#include <vector>

#include <rapidjson/prettywriter.h>
#include <rapidjson/stringbuffer.h>

#include <oxni/base/log.h>

#include "agent/plugin_image.h"
#include "base/run_folder.h"
#include "base/terminal.h"
#include "base/text.h"
#include "calls/heap.h"
#include "disk/memory_disk.h"
#include "harness/call_hash.h"
#include "harness/watch.h"
#include "liboxnibase/host.h"
#include "machines.h"
#include "play/load.h"
#include "play/play.h"
#include "scenario/journal.h"

static constexpr int PROGRESS_MS = 10000;
/* A machine takes well under a second, one of ten days some; a busy computer makes it many. */
static constexpr int HANG_SECONDS = 600;
/* One machine in so many is played a second time with noise, and must end alike. */
static constexpr int TWIN_EVERY = 8;

/* One run of a machine. */
struct played {
    simulate_finding finding;
    std::vector<uint64_t> blocks;
    uint64_t boots;
};

/* A log line of the plug-in, without what differs between processes and builds: what is before the
 * source's name, its number in the source, and addresses. */
static void hash_line(int level, const char *line, void *)
{
    const char *file = strstr(line, "[vkl] [");

    if (file == nullptr)
        return; /* the platform's own */
    std::string text = file;

    for (const char *place : {".cpp:", "subscriber("}) {
        const size_t at = text.find(place);

        if (at != std::string::npos) {
            const size_t begin = at + strlen(place);
            text.erase(begin, text.find_first_not_of("0123456789ABCDEFabcdef", begin) - begin);
        }
    }
    text.pop_back(); /* the line feed */
    call_hash_add(std::to_string(level) + " " + text);
}

static played play_machine(const rapidjson::Document &document, const run_folder &folder,
                           const struct simulate_options &options)
{
    struct scenario scenario;
    struct play_options play = {folder.path, options.plugin_path, false, false};
    played played = {};

    scenario.file = "simulation";
    scenario.document.CopyFrom(document, scenario.document.GetAllocator());
    try {
        play_open(scenario, play);
        invariants_open();
        if (options.hash_calls || options.trace)
            oxnih_log_set_sink(hash_line, nullptr);
        while (invariants_finding().invariant.empty() && play_begin_boot()) {
            play_run_until(play_boot_end_ms());
            play_end_boot();
            played.boots++;
        }
        played.finding = invariants_finding();
    } catch (const devhost_error &error) {
        if (error.status != EXIT_EXPECTATION_FAILED) {
            invariants_close();
            (void)play_close();
            throw;
        }
        played.finding = {"no exception", error.what(), oxnih_clock_tick_ms(), journal_boot()};
    }
    played.blocks = invariants_blocks();
    invariants_close();
    (void)play_close();
    return played;
}

/* Plays a machine, and now and then its twin. */
static played play_pair(const rapidjson::Document &document, bool twin, const run_folder &folder,
                        const struct simulate_options &options)
{
    memory_disk_empty();
    played first = play_machine(document, folder, options), second;
    rapidjson::Document noisy;

    if (!twin || !first.finding.invariant.empty())
        return first;
    noisy.CopyFrom(document, noisy.GetAllocator());
    machine_add_noise(noisy, first.boots);
    memory_disk_empty();
    second = play_machine(noisy, folder, options);
    first.boots += second.boots;
    first.finding = second.finding;
    if (first.finding.invariant.empty() && first.blocks != second.blocks)
        first.finding = {"equal machines", "commands without effect leak memory", 0, 0};
    return first;
}

static void ignore_complaint(const char *, void *)
{
}

/* Its calls and log lines are compared with those of another plug-in, not with invariants. A step that
 * is not possible ends the machine. */
static played play_odd_machine(const rapidjson::Document &document, const run_folder &folder,
                               const struct simulate_options &options)
{
    struct scenario scenario;
    struct play_options play = {folder.path, options.plugin_path, false, false};
    played played = {};

    memory_disk_empty();
    scenario.file = "simulation";
    scenario.document.CopyFrom(document, scenario.document.GetAllocator());
    try {
        play_open(scenario, play);
        oxnih_set_complaint(ignore_complaint, nullptr);
        oxnih_log_set_sink(hash_line, nullptr);
        for (; play_begin_boot(); played.boots++) {
            play_run_until(play_boot_end_ms());
            play_end_boot();
        }
    } catch (const devhost_error &error) {
        call_hash_add(error.what());
    }
    (void)play_close();
    return played;
}

/* Whether a smaller machine still breaks the invariant. */
static bool still_breaks(const rapidjson::Document &document, const std::string &invariant,
                         const run_folder &folder, const struct simulate_options &options)
{
    struct scenario scenario;

    scenario.document.CopyFrom(document, scenario.document.GetAllocator());
    try {
        watch_try("a shrunk machine of the finding above", 0);
        scenario_check(scenario);
        return play_pair(document, invariant == "equal machines", folder, options)
                   .finding.invariant == invariant;
    } catch (const devhost_error &) {
        return false; /* it lacks something that another part of it needs */
    }
}

/* One round of leaving out, from a value downwards: each member and element that the failure does
 * not need goes. document is what value belongs to. Result: whether anything went. */
static bool shrink_value(rapidjson::Document &document, json_value &value,
                         const std::function<bool(const rapidjson::Document &)> &breaks)
{
    bool went = false;

    if (value.IsArray())
        for (rapidjson::SizeType i = value.Size(); i-- > 0;) {
            json_value kept(value, document.GetAllocator());

            value.Erase(value.Begin() + i);
            if (breaks(document)) {
                went = true;
                continue;
            }
            value = kept;
            went |= shrink_value(document, value[i], breaks);
        }
    if (value.IsObject()) {
        std::vector<std::string> names;

        for (const auto &member : value.GetObject())
            names.push_back(member.name.GetString());
        for (const std::string &name : names) {
            json_value kept(value, document.GetAllocator());

            value.RemoveMember(name.c_str());
            if (breaks(document)) {
                went = true;
                continue;
            }
            value = kept;
            went |= shrink_value(document, value[name.c_str()], breaks);
        }
    }
    return went;
}

static void save(const rapidjson::Document &document, const std::string &file)
{
    rapidjson::StringBuffer buffer;
    rapidjson::PrettyWriter<rapidjson::StringBuffer> writer(buffer);
    FILE *out = _wfopen(text_wide(file).c_str(), L"wb");

    writer.SetIndent(' ', 2);
    document.Accept(writer);
    if (out == nullptr ||
        fwrite(buffer.GetString(), 1, buffer.GetSize(), out) != buffer.GetSize() ||
        fclose(out) != 0)
        throw devhost_error(EXIT_BAD_CALL, file + ": cannot be written");
}

static void print_finding(const simulate_finding &finding, uint64_t seed)
{
    printf("\nbroken: %s: %s\n  at %s of boot %d of machine %" PRIu64
           "\n  reproduce: ./dev simulate --boots 1 --seed %" PRIu64 "\n",
           finding.invariant.c_str(), finding.what.c_str(), time_span(finding.ms).c_str(),
           finding.boot, seed, seed);
    fflush(stdout);
}

static void shrink(rapidjson::Document &document, const simulate_finding &finding, uint64_t seed,
                   const run_folder &folder, const struct simulate_options &options)
{
    std::string file = options.save + text_format("\\simulated-%" PRIu64 ".json", seed);
    auto breaks = [&](const rapidjson::Document &smaller) {
        return still_breaks(smaller, finding.invariant, folder, options);
    };

    while (shrink_value(document, document, breaks)) {
    }
    document.AddMember(
        "about",
        json_value((finding.invariant + ": " + finding.what).c_str(), document.GetAllocator()),
        document.GetAllocator());
    save(document, file);
    printf("  shrunk to %s: ./dev run shows it, ./dev simulate --file checks it\n", file.c_str());
}

/* The number of live blocks at each end of an agent is a part of a machine's hash. */
static void hash_print(uint64_t seed, const std::vector<uint64_t> &blocks)
{
    for (uint64_t count : blocks)
        call_hash_add(std::to_string(count));
    printf("machine %" PRIu64 " %016" PRIx64 "\n", seed, call_hash_value());
}

struct progress {
    uint64_t boots, machines, started_ms, printed_ms;
};

static void print_progress(progress &progress, uint64_t now, const char *what)
{
    double seconds = static_cast<double>(now - progress.started_ms) / 1000.0;

    terminal_progress_end();
    printf("%s%" PRIu64 " boots of %" PRIu64 " machines in %.1f s, %.0f boots/s\n", what,
           progress.boots, progress.machines, seconds,
           static_cast<double>(progress.boots) / (seconds > 0 ? seconds : 1));
    fflush(stdout);
    progress.printed_ms = now;
}

/* One machine in 16 has fenced or guarded blocks, of which none may be lost. */
static enum oxnih_memory_mode memory_mode(uint64_t seed)
{
    if (seed % 128 == 4)
        return OXNIH_MEMORY_GUARD;
    return seed % 16 == 4 ? OXNIH_MEMORY_FENCE : OXNIH_MEMORY_PLAIN;
}

/* One machine in 16 logs at each level. Log lines and guarded blocks take time. */
static int log_level(uint64_t seed)
{
    return seed % 16 <= OXNI_LOG_DEBUG ? OXNI_LOG_DEBUG - static_cast<int>(seed % 16) : -1;
}

static int play_random(const run_folder &folder, const struct simulate_options &options)
{
    progress progress = {0, 0, GetTickCount64(), GetTickCount64()};

    while (progress.boots < options.boots) {
        uint64_t seed = options.seed + progress.machines;
        rapidjson::Document document;

        if (options.hash_calls || options.trace)
            call_hash_begin(folder.path, options.trace);
        watch_try(text_format("./dev simulate --boots 1 --seed %" PRIu64, seed), seed);
        terminal_progress_whole(text_format("simulate: %" PRIu64 " of %s", progress.boots,
                                            text_count(options.boots, "boot").c_str()));
        machine_generate(document, seed, options.odd);
        oxnih_log_set_level(options.odd ? OXNI_LOG_DEBUG : log_level(seed));
        oxnih_memory_set_mode(memory_mode(seed));
        played played = options.odd ? play_odd_machine(document, folder, options)
                                    : play_pair(document, seed % TWIN_EVERY == 0, folder, options);
        progress.boots += played.boots;
        progress.machines++;
        if (options.hash_calls)
            hash_print(seed, played.blocks);
        if (!played.finding.invariant.empty()) {
            print_progress(progress, GetTickCount64(), "");
            print_finding(played.finding, seed);
            if (options.shrink)
                shrink(document, played.finding, seed, folder, options);
            return EXIT_EXPECTATION_FAILED;
        }
        if (GetTickCount64() - progress.printed_ms >= PROGRESS_MS)
            print_progress(progress, GetTickCount64(), "");
    }
    print_progress(progress, GetTickCount64(), options.odd ? "" : "no invariant is broken: ");
    return EXIT_ALL_HOLD;
}

static int play_file(const run_folder &folder, const struct simulate_options &options)
{
    struct scenario scenario;
    played played;

    scenario_load(scenario, options.file, {});
    played = play_pair(scenario.document, true, folder, options);
    if (played.finding.invariant.empty()) {
        printf("%s: no invariant is broken\n", options.file.c_str());
        return EXIT_ALL_HOLD;
    }
    printf("%s: broken: %s: %s\n  at %s of boot %d\n", options.file.c_str(),
           played.finding.invariant.c_str(), played.finding.what.c_str(),
           time_span(played.finding.ms).c_str(), played.finding.boot);
    return EXIT_EXPECTATION_FAILED;
}

int simulate_run(const struct simulate_options &options)
{
    struct simulate_options all = options;
    run_folder folder(options.folder.empty()
                          ? ""
                          : options.folder + text_format("\\simulated-%08lu-%010lu",
                                                         GetCurrentProcessId(), GetTickCount()));

    folder.kept = false;
    heap_open();
    image_keep_mapped(!options.reload);
    watch_open(HANG_SECONDS);
    memory_disk_open(text_wide(folder.path));
    if (all.plugin_path.empty())
        all.plugin_path = run_standard_plugin();
    oxnih_memory_set_mode(all.file.empty() ? OXNIH_MEMORY_PLAIN : OXNIH_MEMORY_GUARD);
    oxnih_memory_find_sites(!all.file.empty()); /* else their number is what counts */
    return all.file.empty() ? play_random(folder, all) : play_file(folder, all);
}
