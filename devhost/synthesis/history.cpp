/* Plays a scenario without its agent, and takes what Windows leaves. */
#include "history.h"

#include <cstring>

#include <algorithm>
#include <tuple>

#include "../../platform/liboxnibase/host.h"
#include "../base/system_events.h"
#include "../base/text.h"
#include "../disk/files.h"
#include "../kernel_dump/bug_check.h"
#include "../machine/event_log.h"
#include "../machine/machine.h"
#include "../machine/modules.h"
#include "../participants/machine_setup.h"
#include "../play/play.h"
#include "../scenario/timeline.h"

static constexpr char FIRST_START[] = "2024-03-07T09:00:00Z"; /* where the scenario names none */
static constexpr uint64_t REBOOT = 60 * TICKS_PER_SECOND;
static constexpr uint32_t FIRST_RECORD = 4711u;
static constexpr uint32_t USUAL_CODE = 0x7Eu;
static constexpr uint64_t USUAL_FAULT = 0xFFFFFFFFC0000005ull;
static constexpr uint64_t USUAL_RECORD = 0xFFFF850429891EE8ull;
static constexpr uint64_t USUAL_CONTEXT = 0xFFFF850429891720ull;
static constexpr wchar_t CLOCK_REASON[] = L"3"; /* another program set it */

/* Steps that change the machine; all others need the agent, or make it fail. */
static const char *const s_machine_steps[] = {
    "event", "file", "delete_file", "registry", "delete_value", "delete_key", "machine", "clock"};

bool history_order::operator<(const history_order &other) const
{
    return std::tie(to, type, reason, count) <
           std::tie(other.to, other.type, other.reason, other.count);
}

bool history_order::operator==(const history_order &other) const
{
    return !(*this < other) && !(other < *this);
}

/* A blue screen. The members of its node are set when it is known when it happened. */
struct crash_sketch {
    json_value *node; /* of the played scenario; nullptr: the run ended otherwise */
    bool names_dump;  /* its dump needs a name */
    uint32_t code;
    uint64_t parameters[4];
};

/* The scenario that is played, and what is known of the run before the boot. */
struct player {
    struct scenario scenario;
    history_options options;
    history *made;
    crash_sketch crash;
    uint64_t crashed_100ns, ran_100ns;
    unsigned crashes;
};

static json_value *member(json_value *object, const char *name)
{
    return object->HasMember(name) ? &(*object)[name] : nullptr;
}

static void set_member(player &player, json_value *object, const char *name, json_value value)
{
    auto &allocator = player.scenario.document.GetAllocator();

    object->RemoveMember(name);
    object->AddMember(json_value(name, allocator), value, allocator);
}

static void set_text(player &player, json_value *object, const char *name, const std::string &text)
{
    set_member(player, object, name,
               json_value(text.c_str(), player.scenario.document.GetAllocator()));
}

/* Windows writes a small dump for each crash that has a stack, unless the scenario names its own. */
static bool names_dump(const json_value &crash)
{
    const json_value *said = node_member(&crash, "minidump");
    const bool has_stack =
        node_member(&crash, "frames") != nullptr || node_member(&crash, "stack") != nullptr;

    return said == nullptr ? has_stack : said->IsTrue();
}

/* The crash at the end of a run, with all members that the play needs. */
static crash_sketch sketch_crash(player &player, json_value *run)
{
    crash_sketch sketch = {};

    if (run == nullptr || node_text_of(run, "ends", "") != "blue_screen")
        return sketch;
    if (!run->HasMember("crash"))
        set_member(player, run, "crash", json_value(rapidjson::kObjectType));
    sketch.node = &(*run)["crash"];
    sketch.names_dump = names_dump(*sketch.node);
    return sketch;
}

static std::vector<std::string> frames_of(const json_value &crash)
{
    std::vector<std::string> frames;

    for (const json_value *frame : node_elements(&crash, "frames"))
        frames.push_back(frame->GetString());
    return frames;
}

/* Real crashes differ in their addresses, so that each dump belongs to one of them. */
static void choose_bug_check(player &player, crash_sketch *sketch)
{
    const std::string said = node_text_of(sketch->node, "bug_check", "");
    uint32_t code;
    uint64_t parameters[4];

    sketch->code = USUAL_CODE;
    if (bug_check_parse(said, &code, parameters)) {
        sketch->code = code;
        std::copy(std::begin(parameters), std::end(parameters), sketch->parameters);
    }
    if (!said.empty())
        return;
    const uint64_t step = 0x1000ull * player.crashes;
    const uint64_t usual[] = {USUAL_FAULT, crash_dump_fault(frames_of(*sketch->node)),
                              USUAL_RECORD + step, USUAL_CONTEXT + step};

    std::copy(std::begin(usual), std::end(usual), sketch->parameters);
    set_text(player, sketch->node, "bug_check", bug_check_text(sketch->code, usual));
}

/* A run ends with a blue screen: its record and its dump get their text and their name. */
static void end_with_crash(player &player, const crash_sketch &sketch, uint64_t now, uint64_t start)
{
    player.crash = sketch;
    player.crashed_100ns = now;
    player.ran_100ns = now > start ? now - start : 0;
    if (sketch.node == nullptr)
        return;
    const std::string date = time_iso(now); /* YYYY-MM-DD... */

    player.crashes++;
    choose_bug_check(player, &player.crash);
    if (sketch.names_dump)
        set_text(player, sketch.node, "minidump",
                 "C:\\Windows\\Minidump\\" + date.substr(5, 2) + date.substr(8, 2) +
                     date.substr(2, 2) + text_format("-%u-01.dmp", 5437 + 16 * player.crashes));
}

/* What needs the agent goes; the clock is set between parts of the play. */
static std::vector<uint64_t> keep_machine_steps(player &player, json_value *boot)
{
    auto &allocator = player.scenario.document.GetAllocator();
    json_value kept(rapidjson::kArrayType);
    std::vector<uint64_t> clocks;

    for (const json_value *step : node_elements(boot, "steps")) {
        if (step->HasMember("clock"))
            clocks.push_back(timeline_ms(node_number_of(step, "at", 0)));
        for (const char *name : s_machine_steps)
            if (step->HasMember(name))
                kept.PushBack(json_value(*step, allocator), allocator);
    }
    set_member(player, boot, "steps", json_value(kept, allocator));
    set_member(player, boot, "agent_start", json_value(rapidjson::kNullType));
    boot->RemoveMember("expect");
    std::sort(clocks.begin(), clocks.end());
    return clocks;
}

/* Windows logs that the clock was set. */
static void log_clock_change(uint64_t old)
{
    const uint64_t now = oxnih_clock_now_100ns();

    machine_log(
        event_at(now, SOURCE_KERNEL_GENERAL, EVENT_CLOCK_CHANGE, EVENTLOG_INFORMATION_TYPE,
                 {text_wide(time_iso(now, true)), text_wide(time_iso(old, true)), CLOCK_REASON}));
}

static void play_to_end(const std::vector<uint64_t> &clocks)
{
    for (const uint64_t ms : clocks) {
        if (ms > play_boot_end_ms())
            continue;
        uint64_t waited = 0;

        if (ms > timeline_now_ms()) {
            play_run_until(ms - 1);
            waited = TICKS_PER_MS;
        }
        const uint64_t old = oxnih_clock_now_100ns() + waited;

        play_run_until(std::max(ms, timeline_now_ms()));
        if (oxnih_clock_now_100ns() != old) /* as an earlier step of the same moment has done */
            log_clock_change(old);
    }
    play_run_until(play_boot_end_ms());
}

[[noreturn]] static void cannot(const player &player, const std::string &why)
{
    throw devhost_error(EXIT_BAD_CALL, player.scenario.file + ": cannot be evidence: " + why);
}

static bool is_taken(const history &made, const std::string &path, uint64_t written)
{
    for (const history_boot &boot : made.boots)
        for (const crash_dump &dump : boot.dumps)
            if (dump.path == path && dump.written_100ns == written)
                return true;
    return false;
}

/* The dumps that this boot wrote. */
static void take_dumps(player &player, history_boot *boot)
{
    for (const auto &[path, stack] : machine_get_engine().stacks) {
        if (!machine_file_exists(path))
            continue;
        const uint64_t written = machine_file_times(path).written_100ns;
        crash_dump dump = {};

        dump.path = text_narrow(path);
        if (is_taken(*player.made, dump.path, written))
            continue;
        if (!crash_dump_frames(stack, &dump.frames))
            cannot(player,
                   "the stack of " + dump.path + " is text of the engine that no dump contains");
        dump.complete = text_lower(dump.path).find("memory.dmp") != std::string::npos;
        dump.code = player.crash.node != nullptr ? player.crash.code : USUAL_CODE;
        std::copy(std::begin(player.crash.parameters), std::end(player.crash.parameters),
                  dump.parameters);
        dump.crashed_100ns = player.crashed_100ns;
        dump.uptime_100ns = player.ran_100ns;
        dump.written_100ns = written;
        for (history_boot &earlier : player.made->boots)
            for (crash_dump &other : earlier.dumps)
                other.replaced |= text_lower(other.path) == text_lower(dump.path);
        boot->dumps.push_back(dump);
    }
}

/* The record of an unexpected shutdown contains the bug check. */
static void put_code(const crash_sketch &crash, event_record *event)
{
    if (!event->is(RECORD_UNEXPECTED) || crash.node == nullptr || event->strings.count() != 7 ||
        event->strings.at(0) != L"0")
        return;
    event_strings strings = {std::to_wstring(crash.code)};

    for (const uint64_t parameter : crash.parameters)
        strings.add(text_wide(text_format("0x%llx", parameter)));
    strings.add(event->strings.at(5));
    strings.add(event->strings.at(6));
    event->strings = strings;
}

static void add_records(const std::vector<event_record> &events, history *made)
{
    for (const event_record &event : events) {
        made->records.push_back(event);
        made->records.back().number =
            static_cast<uint32_t>(FIRST_RECORD + made->records.size() - 1);
    }
}

static void take_records(player &player, size_t from, const std::string &ended,
                         const crash_sketch &crash, history_boot *boot)
{
    history &made = *player.made;
    std::vector<event_record> events(machine_get().events.begin() + static_cast<ptrdiff_t>(from),
                                     machine_get().events.end());

    for (event_record &event : events)
        put_code(crash, &event);
    accompany_boot({boot->started_100ns, oxnih_clock_now_100ns(), ended, boot->ended,
                    player.options.noise, player.options.seed + made.boots.size()},
                   &events);
    boot->records = made.records.size();
    add_records(events, &made);
    boot->end = made.records.size();
    for (size_t i = boot->records; i < boot->end; i++)
        if (made.records[i].is(RECORD_START))
            boot->start_record = made.records[i].number;
}

/* The end of the run before the log, in the log's first records. */
static void play_before(player &player, uint64_t start)
{
    history &made = *player.made;
    std::vector<event_record> events;

    accompany_boot({start - 3600 * TICKS_PER_SECOND, start - REBOOT, "", made.ended_before,
                    player.options.noise / 4 + 1, player.options.seed},
                   &events);
    if (made.ended_before == "clean")
        events.push_back(event_at(start - REBOOT, SOURCE_KERNEL_GENERAL, EVENT_CLEAN_SHUTDOWN,
                                  EVENTLOG_INFORMATION_TYPE,
                                  {text_wide(time_iso(start - REBOOT))}));
    add_records(events, &made);
}

static void play_boot(player &player, json_value *node, const std::string &ended, bool last)
{
    history_boot boot = {};
    const std::vector<uint64_t> clocks = keep_machine_steps(player, node);
    const crash_sketch before = player.crash,
                       crash = last ? crash_sketch{} : sketch_crash(player, node);
    const size_t from = machine_get().events.size();

    (void)play_begin_boot();
    boot.started_100ns = machine_get().boot_100ns;
    play_to_end(clocks);
    take_dumps(player, &boot);
    const uint64_t now = oxnih_clock_now_100ns();

    if (!last) {
        boot.ended = node_text_of(node, "ends", "clean");
        end_with_crash(player, crash, now, boot.started_100ns);
        play_end_boot();
    }
    take_records(player, from, ended, before, &boot);
    player.made->boots.push_back(boot);
}

/* The dump of the last crash that has a small one is written as a memory dump, too. */
static void ask_for_memory_dump(player &player)
{
    json_value *last = nullptr, *before = member(&player.scenario.document, "before");
    std::vector<json_value *> runs = {before};

    for (json_value &boot : player.scenario.document["boots"].GetArray())
        runs.push_back(&boot);
    runs.pop_back(); /* the last one goes on */
    for (json_value *run : runs)
        if (run != nullptr && run->HasMember("crash") && names_dump((*run)["crash"]))
            last = &(*run)["crash"];
    if (last == nullptr)
        cannot(player, "no crash leaves a dump, so there is no memory dump (--memory-dump)");
    set_member(player, last, "complete", json_value(true));
}

/* The run before the first boot; the play looks for its crash when it is opened. */
static void prepare(player &player)
{
    auto &document = player.scenario.document;
    json_value *before = member(&document, "before");
    uint64_t start = 0;

    if (player.options.memory_dump)
        ask_for_memory_dump(player);
    if (!time_parse(node_text_of(&document["boots"][0], "at", FIRST_START), &start))
        cannot(player, "its first boot has no time");
    player.made->ended_before = node_text_of(before, "ends", "clean");
    end_with_crash(player, sketch_crash(player, before), start - REBOOT,
                   start - REBOOT - 3600 * TICKS_PER_SECOND);
    play_before(player, start);
}

static void play_all(player &player)
{
    auto &document = player.scenario.document;
    std::string ended = player.made->ended_before;
    const rapidjson::SizeType count = document["boots"].Size();

    for (rapidjson::SizeType i = 0; i < count; i++) {
        play_boot(player, &document["boots"][i], ended, i + 1 == count);
        ended = player.made->boots.back().ended;
    }
}

static void take_products(const node &root, history *made)
{
    for (const auto &[key, product] : root["products"].members()) {
        history_product taken = {
            key, {}, product.integer("count", 1), product.text("status", "working")};

        if (product.is_null("registers"))
            continue; /* it registers by a step only */
        for (const node &module : product["modules"].elements())
            taken.modules.push_back(module->GetString());
        made->products.push_back(taken);
    }
}

/* The zone that the registry export contains: the machine's last one. */
static void take_zone(const node &root, history *made)
{
    node zone = root["machine"]["time_zone"];
    const auto take = [&zone](const node &machine) {
        if (machine["time_zone"])
            zone = machine["time_zone"];
    };

    for (const node &boot : root["boots"].elements()) {
        take(boot["machine"]);
        for (const node &step : boot["steps"].elements())
            take(step["machine"]);
    }
    made->zone = {};
    made->time_zone = zone ? "" : "UTC";
    if (zone && machine_setup_zone(zone, &made->zone) && zone->IsString() &&
        strchr("+-", zone->GetString()[0]) == nullptr)
        made->time_zone = zone->GetString();
}

static void check_shown(const struct scenario &scenario, const player &player)
{
    std::string first;

    for (size_t i = 0; i < player.made->boots.size(); i++) {
        double from = 0;
        const bool starts = player.made->boots[i].start_record != 0;
        const std::string why = starts ? history_unshown(scenario, i, &from)
                                       : "its start (record 12) is not in the log";

        if (why.empty() || from > 0)
            return;
        if (first.empty())
            first = text_format("boot %u: ", static_cast<unsigned>(i + 1)) + why;
    }
    cannot(player, "no boot has what evidence shows; " + first);
}

history history_of(const struct scenario &scenario, const std::string &run_folder,
                   const history_options &options)
{
    history made;
    player player = {{}, options, &made, {}, 0, 0, 0};
    struct play_options play = {};

    made.name = node(scenario).text("name", scenario.file);
    player.scenario.file = scenario.file;
    player.scenario.folder = scenario.folder;
    player.scenario.defines = scenario.defines;
    player.scenario.document.CopyFrom(scenario.document, player.scenario.document.GetAllocator());
    play.run_folder = run_folder;
    play.skip_impossible = true;
    prepare(player);
    try {
        play_open(player.scenario, play);
        play_all(player);
    } catch (...) {
        (void)play_close();
        throw;
    }
    (void)play_close();
    take_products(node(scenario), &made);
    take_zone(node(scenario), &made);
    check_shown(scenario, player);
    return made;
}
