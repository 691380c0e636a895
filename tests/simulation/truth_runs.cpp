/* The loop of truth runs, the comparison, and what of a random machine evidence can show. */
#include "truth_runs.h"

#include <inttypes.h>
#include <cmath>
#include <cstdio>
#include <windows.h>

#include <algorithm>
#include <random>

#include "agent/plugin_image.h"
#include "base/run_folder.h"
#include "base/terminal.h"
#include "base/text.h"
#include "commands/commands.h"
#include "disk/memory_disk.h"
#include "harness/watch.h"
#include "machines.h"
#include "play/load.h"
#include "scenario/journal.h"

static constexpr int HANG_SECONDS = 300;
static constexpr int DAMAGE_EVERY = 3;       /* machines */
static constexpr int CLOCK_EVERY = 8;        /* boots */
static constexpr uint32_t LONG_NOISE = 250u; /* records a boot: several chunks */
static constexpr uint32_t USUAL_NOISE = 12u;

/* What replay decided in a boot. */
struct replayed_boot {
    const evidence_run *run;
    std::string answer, sentence, verdict, blamed;
    uint64_t blamed_ms, decided_ms;
    std::set<history_order> orders;
};

static void remove_all_but(json_value &object, const std::vector<std::string> &kept)
{
    std::vector<std::string> names;

    for (const auto &member : object.GetObject())
        if (std::find(kept.begin(), kept.end(), member.name.GetString()) == kept.end())
            names.push_back(member.name.GetString());
    for (const std::string &name : names)
        object.RemoveMember(name.c_str());
}

static void set_number(rapidjson::Document &document, json_value &object, const char *name,
                       double value)
{
    object.RemoveMember(name);
    object.AddMember(json_value(name, document.GetAllocator()), json_value(value),
                     document.GetAllocator());
}

/* Windows names a dump when it is written, and takes some time to write it. */
static void order_crash(rapidjson::Document &document, json_value &run)
{
    if (!run.HasMember("crash"))
        return;
    const double recorded = node_is_null(&run["crash"], "recorded")
                                ? 1e9
                                : node_number_of(&run["crash"], "recorded", 25);

    set_number(document, run["crash"], "written",
               std::max(std::min(node_number_of(&run["crash"], "written", 6), recorded), 1.0));
}

/* The clock is set while the plug-in searches the log. */
static void add_clock(rapidjson::Document &document, json_value &boot, std::mt19937_64 &random)
{
    auto &allocator = document.GetAllocator();
    json_value step(rapidjson::kObjectType);
    const auto at = static_cast<unsigned>(1 + random() % 300),
               day = static_cast<unsigned>(6 + random() % 4),
               minute = static_cast<unsigned>(random() % 1440);

    if (random() % CLOCK_EVERY != 0 || at >= boot["until"].GetDouble())
        return;
    step.AddMember("at", at, allocator);
    step.AddMember(
        "clock",
        json_value(text_format("2024-03-%02uT%02u:%02u:00Z", day, minute / 60, minute % 60).c_str(),
                   allocator),
        allocator);
    boot["steps"].PushBack(step, allocator);
}

/* Evidence shows neither what products and agent do nor fractions of seconds; the clock's changes it
 * shows. */
static void keep_shown_boot(rapidjson::Document &document, json_value &boot, json_value *registry)
{
    const double uptime = node_number_of(&boot, "uptime", 0);
    json_value clocks(rapidjson::kArrayType);

    for (json_value &step : boot["steps"].GetArray()) {
        if (!step.HasMember("clock"))
            continue;
        set_number(document, step, "at", ceil(step["at"].GetDouble() - uptime));
        clocks.PushBack(json_value(step, document.GetAllocator()), document.GetAllocator());
    }
    boot["steps"] = clocks;
    set_number(document, boot, "until", ceil(boot["until"].GetDouble() - uptime));
    if (boot["machine"].HasMember("registry"))
        *registry = json_value(boot["machine"]["registry"], document.GetAllocator());
    remove_all_but(boot["machine"], {"time_zone"});
    remove_all_but(boot, {"at", "until", "log", "machine", "ends", "crash", "steps"});
    order_crash(document, boot);
}

static void keep_shown(rapidjson::Document &document, uint64_t seed)
{
    std::mt19937_64 random(seed);
    auto &allocator = document.GetAllocator();
    json_value registry(rapidjson::kArrayType), machine(rapidjson::kObjectType);

    remove_all_but(document, {"products", "before", "boots"});
    for (auto &product : document["products"].GetObject())
        remove_all_but(product.value, {"modules", "count", "status"});
    for (json_value &boot : document["boots"].GetArray()) {
        keep_shown_boot(document, boot, &registry);
        add_clock(document, boot, random);
    }
    order_crash(document, document["before"]);
    machine.AddMember("registry", registry, allocator);
    document.AddMember("machine", machine, allocator);
}

/* The evidence of a random machine. Damage that the log is too short for is left out. */
static synthesis make_random(uint64_t seed)
{
    struct scenario scenario;
    history_options options = {seed % 4 == 0 ? LONG_NOISE : USUAL_NOISE, seed, false};
    const std::vector<std::string> &kinds = damage_kinds();
    const std::string damage =
        seed % DAMAGE_EVERY == 0 ? kinds[seed / DAMAGE_EVERY % kinds.size()] : "";

    scenario.file = text_format("machine %" PRIu64, seed);
    machine_generate(scenario.document, seed, false);
    keep_shown(scenario.document, seed);
    scenario_check(scenario);
    if (damage == "wrapped" || damage == "missing-chunk")
        options.noise = LONG_NOISE * 2;
    synthesis made = synthesis_make(scenario, options, damage);

    truth_predict(scenario, &made);
    synthesis_finish(&made);
    return made;
}

static std::set<history_order> orders_now(void)
{
    std::set<history_order> orders;

    for (const happening &what : journal_all()) {
        rapidjson::Document message;

        if (what.kind != HAPPENED_COMMAND)
            continue;
        message.Parse(what.json.c_str());
        orders.insert({what.whom, node_text_of(&message, "type", ""),
                       node_text_of(&message, "reason", ""),
                       node_integer_of(&message, "count", 0)});
    }
    return orders;
}

static std::vector<replayed_boot> replay_all(const replay_options &options,
                                             replay_evidence *evidence)
{
    std::vector<replayed_boot> boots;

    *evidence = replay_read(options, true);
    for (const evidence_run &run : evidence->runs) {
        if (run.number == 0)
            continue;
        replay_choose(options, run, evidence);
        const replay_story story = replay_play(evidence, options.session);
        const replay_answer answer = replay_answer_of(*evidence, story);

        boots.push_back({&run, replay_answer_name(answer.kind), answer.sentence,
                         explain_verdict_name(story.verdict), story.blamed, story.blamed_ms,
                         story.last_query_ms, orders_now()});
    }
    return boots;
}

namespace
{
/* Compares, and counts the differences. */
class comparison
{
  public:
    explicit comparison(const std::string &name) : name_(name)
    {
    }
    template <typename Value>
    void same(const std::string &what, const Value &got, const Value &expected)
    {
        if (got == expected)
            return;
        differences++;
        printf("%s: %s: replay has %s, the truth is %s\n", name_.c_str(), what.c_str(),
               text(got).c_str(), text(expected).c_str());
    }

    unsigned differences = 0;

  private:
    static std::string text(const std::string &text)
    {
        return "\"" + text + "\"";
    }
    static std::string text(uint64_t number)
    {
        return std::to_string(number);
    }
    static std::string text(const std::set<history_order> &orders)
    {
        std::string text;

        for (const history_order &order : orders)
            text += (text.empty() ? "" : ", ") + order.to + " " + order.type + " " + order.reason +
                    " " + std::to_string(order.count);
        return "[" + text + "]";
    }

    std::string name_;
};
} // namespace

static std::set<history_order> bypasses(const std::set<history_order> &orders)
{
    std::set<history_order> found;

    for (const history_order &order : orders)
        if (order.type == "bypass")
            found.insert(order);
    return found;
}

/* truth: by the model, or as a scenario expects it, which may not state everything. */
static void compare_boot(comparison &compare, const std::string &place, const replayed_boot &got,
                         const history_truth &truth)
{
    if (!truth.why.empty())
        return;
    compare.same(place + "blamed", got.blamed, truth.blamed);
    if (!truth.verdict.empty())
        compare.same(place + "verdict", got.verdict, truth.verdict);
    if (truth.blamed_ms != 0)
        compare.same(place + "ms of the blame", got.blamed_ms, truth.blamed_ms);
    if (truth.decided_ms != 0)
        compare.same(place + "ms of the last verdict", got.decided_ms, truth.decided_ms);
    if (!truth.answer.empty())
        compare.same(place + "answer (" + got.sentence + ")", got.answer, truth.answer);
    if (truth.all_orders)
        compare.same(place + "orders", truth.verdict.empty() ? bypasses(got.orders) : got.orders,
                     truth.verdict.empty() ? bypasses(truth.orders) : truth.orders);
}

static void compare_log(comparison &compare, const replay_evidence &evidence, const synthesis &made)
{
    const evidence_log &log = evidence.log;

    compare.same<uint64_t>("records", log.records,
                           made.history.records.size() - made.damage.gone.size());
    compare.same<uint64_t>("lost records", log.lost_records, made.damage.lost);
    compare.same<uint64_t>("truncated", !log.cut_off.empty(), made.damage.cut_off);
    compare.same<uint64_t>("damaged", !log.damage.empty() || !log.cut_off.empty(),
                           made.damage.damaged);
}

/* expected: the truths of the scenario's own expectations; empty: there are none. */
static unsigned compare_all(const std::string &name, const synthesis &made,
                            const std::vector<history_truth> &expected,
                            const std::vector<replayed_boot> &boots,
                            const replay_evidence &evidence)
{
    comparison compare(name);
    size_t number = 0;

    compare_log(compare, evidence, made);
    for (size_t i = 0; i < made.history.boots.size(); i++) {
        const history_boot &boot = made.history.boots[i];

        if (!made.shows(boot))
            continue;
        const std::string place = text_format("boot %u: ", static_cast<unsigned>(number + 1));
        if (number == boots.size())
            break;
        const replayed_boot &got = boots[number++];

        compare.same(place + "start", time_iso(got.run->started_100ns),
                     time_iso(boot.started_100ns));
        if (!boot.truth.ended.empty())
            compare.same<std::string>(place + "its run ended",
                                      evidence_ending_name(got.run->ending), boot.truth.ended);
        compare_boot(compare, place, got, boot.truth);
        if (!expected.empty())
            compare_boot(compare, place + "expectation: ", got, expected[i]);
    }
    compare.same<uint64_t>("boots", boots.size(), number);
    return compare.differences;
}

/* Whether the log shows no start: then replay has nothing to play. */
static bool shows_nothing(const synthesis &made)
{
    return std::none_of(made.history.boots.begin(), made.history.boots.end(),
                        [&](const history_boot &boot) { return made.shows(boot); });
}

/* Replay must reject such a log. Result: the number of differences. */
static unsigned check_rejected(const std::string &name, const replay_options &options)
{
    try {
        (void)replay_read(options, true);
    } catch (const devhost_error &error) {
        if (std::string(error.what()).find("no System log with a start") != std::string::npos)
            return 0;
    }
    printf("%s: the log shows no start, and replay does not reject it\n", name.c_str());
    return 1;
}

/* Result: the number of differences. */
static unsigned check(const std::string &name, const synthesis &made,
                      const std::vector<history_truth> &expected, const run_folder &folder,
                      const struct truth_options &options, uint64_t *boots)
{
    replay_options replay = {};
    replay_evidence evidence;

    synthesis_write(made, folder.path);
    replay.source = folder.path;
    replay.boot = "last";
    replay.damage = EVIDENCE_STANDARD;
    replay.session.plugin_path = options.plugin_path;
    replay_prepare(&replay.session);
    if (shows_nothing(made)) {
        const unsigned differences = check_rejected(name, replay);

        folder.empty();
        return differences;
    }
    const std::vector<replayed_boot> played = replay_all(replay, &evidence);

    folder.empty();
    *boots += played.size();
    const unsigned differences = compare_all(name, made, expected, played, evidence);

    if (differences != 0 && !options.keep.empty())
        synthesis_write(made, options.keep + "\\" + text_replace(name, " ", "-"));
    return differences;
}

/* Runs something for a machine, and says that a machine is left out which no evidence shows. */
template <typename work> static void unless_unshown(work run)
{
    try {
        run();
    } catch (const devhost_error &error) {
        if (std::string(error.what()).find("cannot be evidence") == std::string::npos)
            throw;
        printf("left out: %s\n", error.what());
    }
}

static unsigned check_random(uint64_t seed, const run_folder &folder,
                             const struct truth_options &options, uint64_t *boots)
{
    return check(text_format("machine %" PRIu64, seed), make_random(seed), {}, folder, options,
                 boots);
}

static unsigned check_file(const std::string &file, const run_folder &folder,
                           const struct truth_options &options, uint64_t *boots)
{
    struct scenario scenario;
    std::vector<history_truth> expected;

    scenario_load(scenario, file, {});
    synthesis made = synthesis_make(scenario, {}, "");

    history_expect(scenario, &made.history);
    for (const history_boot &boot : made.history.boots)
        expected.push_back(boot.truth);
    truth_predict(scenario, &made);
    synthesis_finish(&made);
    return check(file, made, expected, folder, options, boots);
}

/* The runs' folders lie in one that exists in the memory of this process only; evidence is mapped, so it
 * lies on the disk. */
static void keep_in_memory(const run_folder &folder)
{
    SetEnvironmentVariableW(L"BYPASS_PLACE", text_wide(folder.path).c_str());
    memory_disk_open(text_wide(folder.path));
}

static void show_progress(const char *command, uint64_t done, uint64_t count)
{
    terminal_progress_whole(
        text_format("%s: %" PRIu64 " of %s", command, done, text_count(count, "machine").c_str()));
}

int truth_run(const struct truth_options &options)
{
    const run_folder base(""), evidence(base.path + "\\evidence"), runs(base.path + "\\runs");
    uint64_t boots = 0, differences = 0;
    const uint64_t count = options.files.empty() ? options.machines : options.files.size();

    image_keep_mapped(true);
    watch_open(HANG_SECONDS);
    keep_in_memory(runs);
    for (uint64_t i = 0; i < count; i++) {
        const uint64_t seed = options.seed + i;
        const std::string command =
            options.files.empty() ? text_format("./dev truth --machines 1 --seed %" PRIu64, seed)
                                  : "./dev truth " + options.files[i];

        watch_try(command, seed);
        show_progress("truth", i, count);
        unsigned found = 0;

        unless_unshown([&] {
            found = options.files.empty() ? check_random(seed, evidence, options, &boots)
                                          : check_file(options.files[i], evidence, options, &boots);
        });
        if (found != 0)
            printf("  reproduce: %s\n", command.c_str());
        differences += found;
    }
    terminal_progress_end();
    printf("%s of %s: %s\n", text_count(boots, "boot").c_str(),
           text_count(count, options.files.empty() ? "machine" : "scenario").c_str(),
           text_count(differences, "difference").c_str());
    return differences == 0 ? EXIT_ALL_HOLD : EXIT_EXPECTATION_FAILED;
}

int truth_write_random(const struct truth_options &options)
{
    const run_folder runs("");
    uint64_t written = 0;

    if (!CreateDirectoryW(text_wide(options.folder).c_str(), nullptr) &&
        GetLastError() != ERROR_ALREADY_EXISTS)
        throw devhost_error(EXIT_BAD_CALL, "cannot make the folder '" + options.folder +
                                               "': " + text_error(GetLastError()));
    keep_in_memory(runs);
    for (uint64_t i = 0; i < options.machines; i++) {
        show_progress("synthesize", i, options.machines);
        unless_unshown([&] {
            synthesis_write(make_random(options.seed + i),
                            options.folder + text_format("\\%06" PRIu64, options.seed + i));
            written++;
        });
    }
    terminal_progress_end();
    printf("%s: %s; ./dev replay plays one of them\n", options.folder.c_str(),
           text_count(written, "machine").c_str());
    return EXIT_ALL_HOLD;
}
