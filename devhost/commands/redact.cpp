/* Evidence that may leave a customer's site: of the log only the strings of records that the plug-in
 * queries, of dumps only the stacks, of the registry only the keys that it reads. */
#include "commands.h"

#include <cstring>

#include <algorithm>
#include <tuple>

#include "../base/file.h"
#include "../base/system_events.h"
#include "../base/terminal.h"
#include "../base/text.h"
#include "../base/text_json.h"
#include "../play/load.h"
#include "../play/play.h"
#include "../scenario/journal.h"

/* A check with the standard number of polls is over by then. */
static constexpr uint64_t USUAL_MS = 900ull * 1000;
static constexpr uint64_t AFTER_MS = 60ull * 1000;

static constexpr int STACK_FRAMES = 99;

/* The name of a dump whose own name Windows did not assign. */
static constexpr char OTHER_DUMP[] = "dump.dmp";

/* Records that keep their first strings, and how many: the ones that the plug-in queries, and changes of
 * the clock. The following strings contain programs and accounts. */
static const struct {
    event_kind kind;
    size_t strings;
} s_kept[] = {
    {RECORD_CLOCK_CHANGE, 2},
    {RECORD_START,        7},
    {RECORD_SHUTDOWN,     1},
    {RECORD_UNEXPECTED,   5},
    {RECORD_BUG_CHECK,    2},
};

/* Keys that the plug-in reads, and their values that are kept: the ones that it reads, and the ones that
 * every driver has. In lower case. */
static const wchar_t *const s_keys[] = {
    L"system\\currentcontrolset\\control\\crashcontrol",
    L"system\\currentcontrolset\\services\\load_driver",
    L"system\\currentcontrolset\\services\\oxnisp_driver",
};
static const wchar_t *const s_values[] = {
    L"dumpfile", L"minidumpdir", L"crashdumpenabled", L"timermaxcount", L"crashcount", L"imagepath",
    L"start",    L"type",
};

static bool is_slash(char c)
{
    return c == '\\' || c == '/';
}

/* Where the part of a path with that name begins; npos: nowhere. */
static size_t find_part(const std::string &text, const std::string &part)
{
    const std::string lower = text_lower(text);

    for (size_t at = lower.find(part); at != std::string::npos; at = lower.find(part, at + 1)) {
        const size_t end = at + part.size();

        if (at > 0 && is_slash(text[at - 1]) && end + 1 < text.size() && is_slash(text[end]))
            return at;
    }
    return std::string::npos;
}

/* Removes names of people and servers from a path: everything after a folder of users, everything from a
 * SID on, a whole path on a server. Equal paths stay equal, so that a setting and a file still
 * agree. */
static std::string without_names(const std::string &path)
{
    for (const char *folder : {"users", "documents and settings", "docume~1"}) {
        const size_t at = find_part(path, folder);

        if (at != std::string::npos)
            return path.substr(0, at + strlen(folder) + 1) + "user";
    }
    for (const char *account : {"s-1-5-21-", "s-1-12-1-"}) {
        const size_t at = text_lower(path).find(account);

        if (at != std::string::npos)
            return path.substr(0, at) + "account";
    }
    const bool remote = path.size() > 2 && is_slash(path[0]) && is_slash(path[1]) &&
                        (path[2] != '?' || find_part(path, "unc") != std::string::npos);

    return remote ? "\\\\server\\share" : path;
}

/* Times and numbers, which name no person: "0x0000007e (0x1, 0x2, 0x3, 0x4)". */
static bool is_numbers(const std::string &text)
{
    return text.find_first_not_of("0123456789abcdefABCDEFx(),.:TZ- ") == std::string::npos;
}

/* A name that Windows assigned, "MEMORY.DMP" or "030724-5437-01.dmp", is kept. */
static std::string dump_name(const std::string &name, const std::string &other)
{
    const std::string lower = text_lower(name);
    const size_t digits = lower.find_first_not_of("0123456789-");

    return lower == "memory.dmp" || (digits != std::string::npos && digits > 0 &&
                                     lower.compare(digits, lower.npos, ".dmp") == 0)
               ? name
               : other;
}

/* The path of a dump. other: its name if Windows did not assign one. */
static std::string redacted_file(const std::string &path, const std::string &other)
{
    const size_t slash = path.find_last_of("\\/");

    if (slash == std::string::npos)
        return dump_name(path, other);
    return without_names(path.substr(0, slash)) + path[slash] +
           dump_name(path.substr(slash + 1), other);
}

static event_record redacted(const event_record &event)
{
    event_record out = event;

    out.strings = {};
    out.source = text_wide(without_names(text_narrow(event.source)));
    for (const auto &kept : s_kept)
        if (event.is(kept.kind))
            for (size_t i = 0; i < event.strings.count() && i < kept.strings; i++) {
                const std::string text = text_narrow(event.strings.at(i));

                out.strings.add(
                    text_wide(is_numbers(text) ? text : redacted_file(text, OTHER_DUMP)));
            }
    return out;
}

/* A dump becomes its stack, as call sites. */
static void put_dump(json_lines &writer, const replay_dump &placed,
                     const std::vector<kernel_image> &images, const std::string &place)
{
    const kernel_dump facts = evidence_dump_facts(placed.dump.path);
    const std::string written = time_iso(placed.written_100ns, true);
    const json_scope file(writer);
    std::vector<std::string> frames;

    for (const kernel_dump_frame &frame : kernel_dump_walk(facts, STACK_FRAMES, images))
        frames.push_back(kernel_dump_call_site(facts, frame.instruction));
    json_members(writer, "path", place, "written", written, "created", written, "frames", frames);
}

static void put_dumps(json_lines &writer, const replay_evidence &evidence)
{
    const std::vector<kernel_image> none;
    size_t number = 0;

    writer.Key("files");
    writer.StartArray();
    for (const replay_dump &placed : evidence.dumps) {
        const std::string name = text_format("dump%u.dmp", static_cast<unsigned>(++number));

        /* The setting names the file of a complete dump, and the folder of small ones. */
        if (placed.there)
            put_dump(writer, placed, evidence.images != nullptr ? evidence.images->images : none,
                     redacted_file(placed.place, placed.dump.is_small() ? name : OTHER_DUMP));
    }
    writer.EndArray();
}

static std::string redacted_text(const evidence_value &value)
{
    return text_lower(value.name) == L"dumpfile" ? redacted_file(value.text(), OTHER_DUMP)
                                                 : without_names(value.text());
}

static void put_value(json_lines &writer, const evidence_value &value)
{
    const json_scope object(writer);
    uint64_t number = 0;

    json_members(writer, "key", text_narrow(value.key), "name", text_narrow(value.name));
    if (value.type == REG_SZ || value.type == REG_EXPAND_SZ) {
        json_members(writer, "type", value.type == REG_SZ ? "REG_SZ" : "REG_EXPAND_SZ", "data",
                     redacted_text(value));
    } else if ((value.type == REG_DWORD && value.data.size() == sizeof(uint32_t)) ||
               (value.type == REG_QWORD && value.data.size() == sizeof(uint64_t))) {
        memcpy(&number, value.data.data(), value.data.size());
        json_members(writer, "type", value.type == REG_DWORD ? "REG_DWORD" : "REG_QWORD", "data",
                     number);
    } else {
        /* Bytes may contain anything; the plug-in reads none. */
        json_members(writer, "type", "REG_BINARY", "data", "");
    }
}

template <size_t size>
static bool is_one_of(const std::wstring &name, const wchar_t *const (&names)[size])
{
    return std::find(names, names + size, text_lower(name)) != names + size;
}

static void put_registry(json_lines &writer, const evidence_registry &registry)
{
    writer.Key("registry");
    writer.StartArray();
    for (const evidence_value &value : registry.values)
        if (is_one_of(value.key, s_keys) && is_one_of(value.name, s_values))
            put_value(writer, value);
    writer.EndArray();
}

/* The boot's records as steps, each at its time. */
static void put_steps(json_lines &writer, const replay_evidence &evidence, uint64_t until_ms)
{
    uint64_t start = evidence.boot->started_100ns; /* as the clock stands at a record */

    writer.Key("steps");
    writer.StartArray();
    for (const replay_moment &moment : replay_moments(evidence, until_ms)) {
        const double at = static_cast<double>(moment.ms) / 1000.0;

        start += static_cast<uint64_t>(moment.clock_change_100ns);
        if (moment.clock_change_100ns != 0) {
            const json_scope step(writer);

            json_members(writer, "at", at, "clock",
                         time_iso(start + moment.ms * TICKS_PER_MS, true));
        }
        const json_scope step(writer);

        json_member(writer, "at", at);
        json_member_as_is(writer, "event",
                          evidence_record_json(redacted(evidence.log.events[moment.index])));
    }
    writer.EndArray();
}

static void put_boot(json_lines &writer, const replay_evidence &evidence)
{
    /* The registry may ask for more polls than usual. */
    const uint64_t until = std::max(USUAL_MS, journal_all().back().ms / 1000 * 1000 + AFTER_MS);

    json_members(writer, "at", time_iso(evidence.boot->started_100ns, true), "until", until / 1000);
    json_member_or_null(writer, "log", "");
    put_steps(writer, evidence, until);
}

static void put_machine(json_lines &writer, const replay_evidence &evidence)
{
    const json_scope machine(writer, "machine");

    zone_put(writer, evidence.zone);
    put_registry(writer, evidence.registry);
    put_dumps(writer, evidence);
    json_member(writer, "events_from", "events.json");
}

/* The scenario of the boot with the rest of the machine. */
static std::string scenario_json(const replay_evidence &evidence)
{
    rapidjson::Document base;

    base.Parse(replay_scenario(evidence).c_str());
    return json_file_text([&](json_lines &writer) {
        json_member(writer, "name",
                    text_format("Evidence of a machine, boot %u of its log",
                                static_cast<unsigned>(evidence.boot->number)));
        json_member_as_is(writer, "products", node_to_text(base["products"]));
        json_member_as_is(writer, "management", node_to_text(base["management"]));
        put_machine(writer, evidence);
        json_objects(writer, "boots", std::vector{evidence.boot},
                     [&](const evidence_run *) { put_boot(writer, evidence); });
    });
}

static std::string below(const std::string &folder, const std::string &name)
{
    return folder + (folder.find('\\') != std::string::npos ? "\\" : "/") + name;
}

/* A folder that cannot be written completely is removed, so that the next attempt can make it. */
static void write_scenario(const std::string &folder, const std::string &scenario,
                           const std::string &events)
{
    const std::string events_file = below(folder, "events.json");

    folder_make(folder);
    try {
        evidence_write(events_file, events);
        evidence_write(below(folder, "scenario.json"), scenario);
    } catch (const devhost_error &) {
        (void)DeleteFileW(text_wide(events_file).c_str());
        (void)RemoveDirectoryW(text_wide(folder).c_str());
        throw;
    }
}

/* What the plug-in decides on a boot that was played: verdict, blamed module, orders. */
typedef std::tuple<enum replay_verdict, std::string, std::vector<std::string>> decision;

static decision decision_of(const replay_story &story)
{
    return {story.verdict, story.blamed, replay_orders()};
}

static std::string decision_text(const decision &decided)
{
    const auto &[verdict, blamed, orders] = decided;

    return std::string(explain_verdict_name(verdict)) + ", blames " +
           (blamed.empty() ? "no module" : blamed) + ", " + text_count(orders.size(), "order");
}

/* The decision on the redacted boot. */
static decision play_redacted(const std::string &file, const struct run_options &session)
{
    const run_folder own("");
    const struct play_options options = {own.path, session.plugin_path, false, false};
    struct scenario scenario;

    scenario_load(scenario, file, {});
    try {
        play_open(scenario, options);
        explain_start();
        (void)play_begin_boot();
        play_run_until(play_boot_end_ms());
    } catch (...) {
        (void)play_close();
        throw;
    }
    (void)play_close();
    return decision_of(explain_story());
}

int replay_command_redact(struct replay_arguments &arguments)
{
    commands_prepare(arguments);
    const std::string &folder = arguments.folder;
    const struct replay_options &options = arguments.options;
    replay_evidence evidence = replay_read(options, true);
    const replay_story story = replay_play(&evidence, options.session);
    const decision original = decision_of(story);
    const replay_answer answer = replay_answer_of(evidence, story);
    evidence_log before;

    for (size_t i = 0; i <= evidence.boot->begin; i++)
        before.events.push_back(redacted(evidence.log.events[i]));
    const std::string scenario = scenario_json(evidence),
                      events = evidence_log_json(before, 0, UINT64_MAX),
                      file = below(folder, "scenario.json");

    write_scenario(folder, scenario, events);
    const decision redacted = play_redacted(file, arguments.options.session);
    const bool same = original == redacted;

    terminal_write(
        folder + ": " + text_count(evidence.log.events.size(), "record") + ", " +
        text_count(evidence.dumps.size(), "dump") + "; play it with\n  " +
        terminal_command("run", file) + "\n" +
        (same ? "The plug-in decides as on the original: " + decision_text(original) +
                    ". The answer is \"" + replay_answer_name(answer.kind) + "\"" +
                    (answer.doubts.empty() ? "" : "; its doubts are in the result of replay only") +
                    ".\n"
              : "The plug-in decides otherwise on it: " + decision_text(redacted) +
                    ". On the original: " + decision_text(original) + ".\n"));
    return same ? EXIT_ALL_HOLD : EXIT_EXPECTATION_FAILED;
}
