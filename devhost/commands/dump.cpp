/* Crash dumps: read by the engine's reader, and judged by the plug-in on a generated boot. */
#include "commands.h"

#include <cstdio>

#include <algorithm>

#include "../base/file.h"
#include "../base/system_events.h"
#include "../base/terminal.h"
#include "../base/text.h"
#include "../base/text_json.h"
#include "../evidence/zip.h"
#include "../kernel_dump/bug_check.h"
#include "../replay/replay.h"

static constexpr int STACK_FRAMES = 40;
/* From the crash to the start of Windows that reports it. */
static constexpr int REBOOT_SECONDS = 60;

namespace
{
struct shown_dump {
    evidence_dump file;
    kernel_dump facts; /* with the stack */
    std::vector<kernel_dump_frame> frames;
    std::vector<replay_image_use> images;
    std::string module, site; /* of the fault */
    uint64_t address;
    bool with_images; /* whether images were handed in */
    bool judged;      /* by the plug-in */
    replay_answer answer;
    std::string blamed;
};
} // namespace

/* Small dumps contain the address in a parameter: Rip may be in the handling of the crash. */
static uint64_t fault_address(const kernel_dump &facts)
{
    const bug_check *row = bug_check_find(facts.bug_check);

    return row != nullptr && row->address != 0 ? facts.parameters[row->address - 1] : facts.rip;
}

static shown_dump read_dump(const collected_file &from, const replay_images *images)
{
    shown_dump dump = {};

    dump.file = evidence_dump_read(from.path, from.shown);
    dump.facts = evidence_dump_facts(from.path);
    dump.with_images = images != nullptr;
    if (images != nullptr)
        images_add_uses(*images, dump.facts, &dump.images);
    dump.frames = images != nullptr ? kernel_dump_walk(dump.facts, STACK_FRAMES, images->images)
                                    : kernel_dump_walk(dump.facts, STACK_FRAMES);
    dump.address = fault_address(dump.facts);
    const kernel_dump_module *module = kernel_dump_module_at(dump.facts, dump.address);

    dump.module = module != nullptr ? module->name : "";
    dump.site = kernel_dump_call_site(dump.facts, dump.address);
    return dump;
}

/* The records of a boot that follows the crash. */
static void generate_log(const shown_dump &dump, evidence_log *log)
{
    const uint64_t start =
        (dump.facts.crash_time_100ns / TICKS_PER_SECOND + REBOOT_SECONDS) * TICKS_PER_SECOND;
    const uint32_t code = dump.facts.bug_check & ~KERNEL_DUMP_TRIAGE_FLAG;
    const auto add = [&](unsigned seconds, const wchar_t *source, uint32_t id,
                         event_strings strings) {
        log->events.push_back(event_at(start + seconds * TICKS_PER_SECOND, source, id,
                                       EVENTLOG_INFORMATION_TYPE, std::move(strings)));
        log->events.back().number = static_cast<uint32_t>(log->events.size());
    };

    add(0, SOURCE_KERNEL_GENERAL, EVENT_WINDOWS_START,
        {L"10", L"0", L"0", L"0", L"0", L"0", text_wide(time_iso(start, true))});
    add(3, SOURCE_KERNEL_POWER, EVENT_UNEXPECTED_SHUTDOWN, {std::to_wstring(code)});
    add(20, SOURCE_WINLOGON, EVENT_LOGON, {L"1"});
    add(25, SOURCE_BUG_CHECK, BUG_CHECK_EVENT_ID,
        {text_wide(bug_check_text(code, dump.facts.parameters)), L""});
}

/* Plays a boot after the crash. */
static void judge(const replay_options &options, const std::vector<replay_product> &products,
                  const std::shared_ptr<const replay_images> &images, shown_dump *dump)
{
    replay_evidence evidence = {};

    generate_log(*dump, &evidence.log);
    evidence.events_file = "generated log";
    evidence.products = products;
    evidence.images = images;
    evidence.dumps.push_back({dump->file});
    evidence.runs = evidence_runs(evidence.log);
    evidence.boot = &evidence.runs.front();
    const replay_story story = replay_play(&evidence, options.session);

    dump->answer = replay_answer_of(evidence, story);
    dump->blamed = story.blamed;
    dump->judged = true;
}

static std::string stamp_text(uint32_t stamp)
{
    return stamp == 0 ? "-" : text_format("%08x ", stamp) + time_iso(time_of_unix(stamp));
}

static std::string parameter_text(const kernel_dump &facts, size_t index)
{
    const bug_check *row = bug_check_find(facts.bug_check);
    const char *meaning = row != nullptr ? row->parameters[index] : nullptr;
    std::string text = text_format("0x%016llx", facts.parameters[index]);

    if (meaning == nullptr)
        return text;
    text += std::string("  ") + meaning;
    if (std::string(meaning) == "exception code")
        text += ": " + bug_check_exception(facts.parameters[index]);
    return text;
}

static std::string head_text(const shown_dump &dump)
{
    const kernel_dump &facts = dump.facts;
    std::string text = dump.file.shown + ": " + evidence_dump_kind(dump.file) + " dump, " +
                       text_count(dump.file.bytes, "byte") + "\n";

    for (const std::string &gap : facts.gaps)
        text += "  incomplete        " + gap + "\n";
    text += "  bug check         " + bug_check_title(facts.bug_check) + "\n";
    for (size_t i = 0; i < 4; i++)
        text += text_format("    parameter %u     ", static_cast<unsigned>(i + 1)) +
                parameter_text(facts, i) + "\n";
    text += "  crashed           " + time_iso(facts.crash_time_100ns, true) + ", " +
            time_span(facts.uptime_100ns / TICKS_PER_MS) + " after Windows started\n" +
            text_format("  Windows           build %u, ", facts.build) +
            text_count(facts.processors, "processor") + "\n";
    text += "  faulting module   " + (dump.module.empty() ? "none at that address" : dump.module) +
            "\n  faulting address  0x" + kernel_dump_address_text(dump.address) + "  " + dump.site +
            "\n";
    return text;
}

static std::string dump_text(const shown_dump &dump)
{
    std::string text = head_text(dump);

    if (dump.judged)
        text += "  products          " +
                (dump.blamed.empty() ? "none is blamed: " : dump.blamed + " is blamed: ") +
                dump.answer.sentence + "\n";
    text +=
        !dump.with_images
            ? "  stack, found without symbols: frames after the first may be wrong\n"
            : "  stack, found without symbols: scanned frames, and those after them, may be wrong\n";
    for (const kernel_dump_frame &frame : dump.frames)
        text +=
            "    " + kernel_dump_call_site(dump.facts, frame.instruction) +
            (!dump.with_images ? "" : std::string("  (") + images_found_name(frame.found) + ")") +
            "\n";
    text += images_text(dump.images);
    text += "  " + text_count(dump.facts.modules.size(), "driver") +
            "\n    base                    bytes  time stamp                     name\n";
    for (const kernel_dump_module &module : dump.facts.modules)
        text +=
            text_format("    %s  %10u  %-29s  %s\n", kernel_dump_address_text(module.base).c_str(),
                        module.bytes, stamp_text(module.time_stamp).c_str(), module.name.c_str());
    return text;
}

static void put_bug_check(json_lines &writer, const kernel_dump &facts)
{
    const bug_check *row = bug_check_find(facts.bug_check);

    json_member(writer, "bug_check",
                text_format("0x%x", facts.bug_check & ~KERNEL_DUMP_TRIAGE_FLAG));
    json_member_or_null(writer, "bug_check_name", bug_check_name(facts.bug_check));
    size_t i = 0;

    json_objects(writer, "parameters", facts.parameters, [&](uint64_t parameter) {
        const char *meaning = row != nullptr ? row->parameters[i++] : nullptr;

        json_member(writer, "value", text_format("0x%llx", parameter));
        json_member_or_null(writer, "meaning", meaning != nullptr ? meaning : "");
    });
}

static void put_dump(json_lines &writer, const shown_dump &dump)
{
    json_members(writer, "file", dump.file.shown, "kind", evidence_dump_kind(dump.file), "bytes",
                 dump.file.bytes, "gaps", dump.facts.gaps);
    put_bug_check(writer, dump.facts);
    json_members(writer, "crashed", time_iso(dump.facts.crash_time_100ns, true), "uptime_ms",
                 dump.facts.uptime_100ns / TICKS_PER_MS, "build", dump.facts.build, "processors",
                 dump.facts.processors);
    json_member_or_null(writer, "faulting_module", dump.module);
    json_members(writer, "faulting_address", text_format("0x%llx", dump.address), "faulting_site",
                 dump.site);
    json_list(writer, "stack", dump.frames, [&](const kernel_dump_frame &frame) {
        json_put(writer, kernel_dump_call_site(dump.facts, frame.instruction));
    });
    if (dump.with_images) {
        json_list(writer, "found", dump.frames, [&](const kernel_dump_frame &frame) {
            json_put(writer, std::string(images_found_name(frame.found)));
        });
        images_put(writer, dump.images);
    }
    json_objects(writer, "drivers", dump.facts.modules, [&](const kernel_dump_module &module) {
        json_members(writer, "name", module.name, "base", text_format("0x%llx", module.base),
                     "bytes", module.bytes);
        json_member_or_null(writer, "time_stamp",
                            module.time_stamp != 0 ? text_format("0x%08x", module.time_stamp) : "");
    });
    if (dump.judged) {
        json_members(writer, "answer", replay_answer_name(dump.answer.kind), "sentence",
                     dump.answer.sentence);
        json_member_or_null(writer, "blamed", dump.blamed);
    }
}

/* The dumps of a file, folder or archive; other files of the latter two are skipped. */
static std::vector<collected_file> files_of(const std::string &source,
                                            std::unique_ptr<run_folder> *extracted)
{
    std::vector<collected_file> dumps;
    std::vector<replay_ignored> ignored;

    if (!folder_exists(source) && !zip_is_archive(source))
        return {
            {source, source}
        };
    for (const collected_file &file : collect_files(source, extracted, &ignored))
        if (collect_kind(file.path) == COLLECTED_DUMP)
            dumps.push_back(file);
    if (dumps.empty())
        evidence_bad(source, "contains no crash dump");
    return dumps;
}

/* Result: whether all could be read. */
static bool read_source(const replay_options &options, const std::vector<replay_product> &products,
                        const std::shared_ptr<const replay_images> &images,
                        const std::string &source, std::vector<shown_dump> *dumps)
{
    std::unique_ptr<run_folder> extracted;
    bool sound = true;

    for (const collected_file &file : files_of(source, &extracted)) {
        terminal_progress("reading " + file.shown);
        try {
            shown_dump dump = read_dump(file, images.get());

            if (!products.empty())
                judge(options, products, images, &dump);
            dumps->push_back(std::move(dump));
        } catch (const devhost_error &error) {
            fprintf(stderr, "oxni_devhost: %s\n",
                    text_replace(error.what(), file.path, file.shown).c_str());
            sound = false;
        }
    }
    return sound;
}

int replay_command_dump(struct replay_arguments &arguments)
{
    replay_options &options = arguments.options;

    replay_prepare(&options.session);
    const std::vector<replay_product> products =
        products_read(options.products, options.products_file);
    const std::shared_ptr<const replay_images> images =
        options.images.empty() ? nullptr : images_read(options.images);
    std::vector<shown_dump> dumps;
    std::string text;
    bool sound = true;

    for (const std::string &source : arguments.sources)
        sound = read_source(options, products, images, source, &dumps) && sound;
    terminal_progress_end();
    if (options.json) {
        text = json_file_text([&](json_lines &writer) {
            json_members(writer, "schema", "bypass_mgr.dumps", "version", 1);
            json_objects(writer, "dumps", dumps,
                         [&](const shown_dump &dump) { put_dump(writer, dump); });
        });
    } else {
        for (const shown_dump &dump : dumps)
            text += (text.empty() ? "" : "\n") + dump_text(dump);
    }
    if (sound || !dumps.empty())
        terminal_write(text);
    return sound ? EXIT_ALL_HOLD : EXIT_BAD_EVIDENCE;
}
