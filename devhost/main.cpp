/*
 * oxni_devhost: plays whole boots through the real plug-in DLL. This file: the command line and the
 * exit status.
 */
#include <map>
#include <memory>
#include <string>
#include <vector>

#include <oxni/base/log.h>

#include "../platform/liboxnibase/host.h"
#include "commands/command_line.h"
#include "commands/commands.h"
#include "scenario/journal.h"
#include "synthesis/synthesis.h"
#include "view/view.h"

static constexpr char PROGRAM[] = "oxni_devhost";

struct arguments {
    std::vector<std::string> files;
    std::vector<std::string> defines; /* NAME=VALUE */
    std::string log = "none";
    std::string memory = BYPASS_USUAL_MEMORY;
    bool json = false;
    bool quiet = false;
    bool messages = false;
    bool stop = false;
    struct run_options session = {};
};

static const std::map<std::string, int> s_levels = {
    {"none",  -1            },
    {"error", OXNI_LOG_ERROR},
    {"warn",  OXNI_LOG_WARN },
    {"info",  OXNI_LOG_INFO },
    {"debug", OXNI_LOG_DEBUG},
};

static std::map<std::string, std::string> split_defines(const std::vector<std::string> &defines)
{
    std::map<std::string, std::string> map;

    for (const std::string &define : defines) {
        size_t equals = define.find('=');

        if (equals == std::string::npos)
            throw devhost_error(EXIT_BAD_CALL, "--define " + define + ": expected NAME=VALUE");
        map[define.substr(0, equals)] = define.substr(equals + 1);
    }
    return map;
}

/* Plays every file, with --stop up to the first failure. Result: the highest status. */
static int run_files(const arguments &arguments)
{
    if (!arguments.session.html.empty() && arguments.files.size() > 1)
        throw devhost_error(EXIT_BAD_CALL,
                            "--html: expected one scenario file, since a page shows one run");
    int worst = EXIT_ALL_HOLD;
    size_t skipped = 0;

    for (const std::string &file : arguments.files) {
        int status;

        try {
            status = session_run(file, arguments.session);
        } catch (const devhost_error &error) {
            status = command_line_report(PROGRAM, error);
        } catch (const std::exception &error) {
            status = command_line_report(PROGRAM,
                                         devhost_error(EXIT_BAD_CALL, file + ": " + error.what()));
        }
        if (status == EXIT_SKIPPED)
            skipped++;
        else if (status > worst)
            worst = status;
        if (arguments.stop && worst != EXIT_ALL_HOLD)
            break;
    }
    return worst == EXIT_ALL_HOLD && skipped == arguments.files.size() ? EXIT_SKIPPED : worst;
}

static void prepare(arguments &arguments)
{
    struct view_options view = {};

    arguments.session.defines = split_defines(arguments.defines);
    arguments.session.guard_memory = arguments.memory == "guard";
    if (arguments.session.plugin_path.empty())
        arguments.session.plugin_path = run_standard_plugin();
    view.log_level = s_levels.at(arguments.log);
    view.json = arguments.json;
    view.trace = arguments.session.trace;
    view.colour = !arguments.json && terminal_has_colours();
    view.messages = arguments.messages;
    view.quiet = arguments.quiet;
    view_open(view);
    journal_set_view(view_happening, nullptr);
    oxnih_log_set_level(OXNI_LOG_DEBUG);
}

static void add_plugin_option(CLI::App &command, std::string &path)
{
    command.add_option("--plugin", path, "The DLL; default: libbypass_mgr.dll beside this program");
}

static void add_memory_option(CLI::App &command, std::string &mode)
{
    command.add_option("--memory", mode, "Allocator of the plug-in")
        ->check(CLI::IsMember({"plain", "guard"}));
}

static void add_common_options(CLI::App &command, arguments &arguments)
{
    command
        .add_option("--define", arguments.defines,
                    "NAME=VALUE: replaces {NAME} in paths of a scenario")
        ->allow_extra_args(false);
    command.add_option("--log", arguments.log, "Shows log lines of the plug-in up to this level")
        ->check(CLI::IsMember({"none", "error", "warn", "info", "debug"}));
    add_memory_option(command, arguments.memory);
    add_plugin_option(command, arguments.session.plugin_path);
    command.add_option("--keep", arguments.session.keep,
                       "New folder for the run's files, which is kept");
    command.add_flag("--messages", arguments.messages, "Shows messages as JSON");
    command.add_flag("--trace", arguments.session.trace,
                     "Shows the plug-in's calls of Windows and the platform");
}

static void add_run(CLI::App &app, int *status)
{
    auto options = std::make_shared<arguments>();
    CLI::App *command = app.add_subcommand("run", "Plays scenario files");

    command->add_option("FILE", options->files, "Scenario files")->required();
    add_common_options(*command, *options);
    command
        ->add_option("--console", options->session.commands,
                     "[BOOT/]SECONDS:COMMAND: types a debug command at that time")
        ->allow_extra_args(false);
    command->add_option("--html", options->session.html, "Writes the run as a page for a browser");
    command->add_option("--place", options->session.place,
                        "Folder for the run's temporary files; best in memory");
    command->add_flag("--real-time", options->session.real_time, "Plays in real time");
    command->add_flag("--json", options->json, "Prints one JSON object a line");
    command->add_flag("--quiet", options->quiet, "Prints only failures and results");
    command->add_flag("--stop", options->stop, "Stops after the first file that fails");
    command->callback([options, status] {
        prepare(*options);
        *status = run_files(*options);
    });
}

static void add_console(CLI::App &app, int *status)
{
    auto options = std::make_shared<arguments>();
    CLI::App *command = app.add_subcommand(
        "console", "Plays a scenario interactively: type commands, advance the time");

    command->add_option("FILE", options->files, "Scenario file")->required()->expected(1);
    add_common_options(*command, *options);
    command->callback([options, status] {
        prepare(*options);
        *status = session_console(options->files.front(), options->session);
    });
}

static void add_damage_options(CLI::App &command, replay_arguments &arguments)
{
    CLI::Option *strict =
        command.add_flag("--strict", arguments.strict, "Rejects a log with any damage");

    command
        .add_flag("--lenient", arguments.lenient, "Reads the remaining records of a truncated log")
        ->excludes(strict);
}

static void add_product_options(CLI::App &command, replay_options &options)
{
    command
        .add_option("--product", options.products,
                    "NAME:MODULE,MODULE[:COUNT[:STATUS]]: a registered product; can be repeated")
        ->allow_extra_args(false);
    command.add_option("--products", options.products_file,
                       "Products as JSON: {\"NAME\": {\"modules\": [...], \"count\": 3}}");
}

/* The options that name evidence. */
static void add_evidence_options(CLI::App &command, replay_arguments &arguments)
{
    struct replay_options &options = arguments.options;

    options.boot = "last";
    command.add_option("--events", options.events, "System log: .evtx, or JSON records");
    command.add_option("--dump", options.dumps, "Crash dump; can be repeated")
        ->allow_extra_args(false);
    command.add_option("--boot", options.boot, "Start of Windows in the log: N or last");
    add_product_options(command, options);
    command.add_option("--registry", options.registries, "Registry export (.reg); can be repeated")
        ->allow_extra_args(false);
    command.add_option("--time-zone", options.time_zone,
                       "Zone of the machine: UTC, +09:00, \"Tokyo Standard Time\"; default: of the "
                       "evidence");
    add_damage_options(command, arguments);
}

static void add_images_option(CLI::App &command, std::string &folder)
{
    command.add_option(
        "--images", folder,
        "Folder with the drivers and kernel files of the machine: stacks are unwound "
        "by them, not scanned");
}

static void add_replay(CLI::App &app, int *status)
{
    auto arguments = std::make_shared<replay_arguments>();
    struct replay_options &options = arguments->options;
    CLI::App *command = app.add_subcommand(
        "replay", "Prints what the plug-in decides on a machine's own evidence, and why");

    command->add_option("EVIDENCE", options.source,
                        "Folder or .zip with logs, dumps and registry exports; plays every boot");
    add_evidence_options(*command, *arguments);
    CLI::Option *boots = command->add_flag("--boots", arguments->boots,
                                           "Lists the boots of the log, and plays none");
    command->add_flag("--json", options.json, "Prints the result as JSON");
    command->add_flag("--timing", options.timing, "Prints the elapsed time to stderr");
    command->add_option("--html", options.html, "Writes the result as a page for a browser")
        ->excludes(boots);
    add_images_option(*command, options.images);
    add_plugin_option(*command, options.session.plugin_path);
    command->add_option("--keep", options.session.keep,
                        "New folder for the run's files, which is kept");
    add_memory_option(*command, arguments->memory);
    command->footer("The first line is the answer: bypass, no bypass or cannot tell.\n"
                    "Exit status: 0 an answer was found, 2 invalid call, 3 unreadable evidence.");
    command->callback([arguments, status] { *status = replay_command(*arguments); });
}

static void add_serve(CLI::App &app, int *status)
{
    auto arguments = std::make_shared<replay_arguments>();
    CLI::App *command = app.add_subcommand(
        "serve", "Reads one case per line from stdin and prints one result per line");

    add_plugin_option(*command, arguments->options.session.plugin_path);
    add_memory_option(*command, arguments->memory);
    command->footer(
        "A case is a JSON object; docs/corpus.md describes it. The end of the input ends\n"
        "the program. A bad case has an error as its result.");
    command->callback([arguments, status] { *status = replay_command_serve(*arguments); });
}

static void add_dump(CLI::App &app, int *status)
{
    auto arguments = std::make_shared<replay_arguments>();
    replay_options &options = arguments->options;
    CLI::App *command = app.add_subcommand(
        "dump", "Prints the bug check, stack and drivers of crash dumps; needs no log");

    command->add_option("DUMP", arguments->sources, "Crash dumps, folders or .zip files")
        ->required();
    add_product_options(*command, options);
    command->add_flag("--json", options.json, "Prints the result as JSON");
    add_images_option(*command, options.images);
    add_plugin_option(*command, options.session.plugin_path);
    command->callback([arguments, status] { *status = replay_command_dump(*arguments); });
}

static void add_redact(CLI::App &app, int *status)
{
    auto arguments = std::make_shared<replay_arguments>();
    CLI::App *command = app.add_subcommand(
        "redact", "Copies evidence as a scenario without names of computers and people");

    add_evidence_options(*command, *arguments);
    command->get_option("--events")->required();
    add_images_option(*command, arguments->options.images);
    add_plugin_option(*command, arguments->options.session.plugin_path);
    command->add_option("FOLDER", arguments->folder, "New folder for the scenario")->required();
    command->callback([arguments, status] { *status = replay_command_redact(*arguments); });
}

static void add_diff(CLI::App &app, int *status)
{
    auto files = std::make_shared<std::pair<std::string, std::string>>();
    CLI::App *command =
        app.add_subcommand("diff", "Prints the differences of two results of replay --json");

    command->add_option("OLD", files->first, "Result of replay --json")->required();
    command->add_option("NEW", files->second, "Another result")->required();
    command->footer("Exit status: 0 equal, 1 different, 3 a file is not such a result.");
    command->callback([files, status] { *status = replay_diff(files->first, files->second); });
}

static const char s_events_footer[] =
    "The result is an array in the order of the log, oldest first, one record a line:\n"
    "  record   record number\n"
    "  source   source of the event\n"
    "  id       event id, qualifiers in the high 16 bits\n"
    "  time     time written, ISO 8601 in UTC, whole seconds\n"
    "  type     1 error, 2 warning, 4 information\n"
    "  strings  insertion strings, without binary data\n"
    "\n"
    "Each damage of the log is a line on stderr. Damaged records are skipped and counted; a\n"
    "truncated file is rejected. A log that was in use when it was copied does not contain its\n"
    "own length: a truncation exactly between two chunks cannot be detected.";

static void add_events(CLI::App &app, int *status)
{
    auto arguments = std::make_shared<replay_arguments>();
    CLI::App *command =
        app.add_subcommand("events", "Prints the records of a log as JSON, for a scenario");

    command->add_option("FILE", arguments->log, "System log: .evtx, or JSON records")->required();
    command->add_option("-o,--output", arguments->output, "File to write; default: stdout");
    command->add_option("--from", arguments->from, "Lowest record number")->type_name("N");
    command->add_option("--to", arguments->to, "Highest record number")->type_name("N");
    add_damage_options(*command, *arguments);
    command->add_flag("--evtx", arguments->evtx,
                      "Writes an .evtx log of Windows into the output file, not JSON");
    command->footer(s_events_footer);
    command->callback([arguments, status] { *status = replay_command_events(*arguments); });
}

static const char s_synthesize_footer[] =
    "Writes System.evtx, Minidump, machine.reg, products.json and truth.json: what replay must\n"
    "answer for each boot, and which records the log has lost. Rejects a scenario whose decisions\n"
    "depend on facts that evidence cannot contain. --random SEED --count N in place of SCENARIO\n"
    "writes random machines, one folder each.";

static void add_synthesize(CLI::App &app, int *status)
{
    auto arguments = std::make_shared<synthesize_arguments>();
    CLI::App *command = app.add_subcommand(
        "synthesize", "Writes what a customer would send of a scenario's machine");

    command->add_option("SCENARIO", arguments->scenario, "Scenario file")->required();
    command->add_option("FOLDER", arguments->folder, "New or empty folder")->required();
    command->add_option("--damage", arguments->damage, "Damages the log")
        ->check(CLI::IsMember(damage_kinds()));
    command->add_option("--noise", arguments->options.noise, "Records of services in each boot")
        ->check(CLI::Range(0u, 100000u))
        ->capture_default_str();
    command->add_option("--seed", arguments->options.seed, "Seed of noise and damage")
        ->capture_default_str();
    command->add_flag("--memory-dump", arguments->options.memory_dump,
                      "Writes the last dump as MEMORY.DMP, too, a kernel dump with bitmap");
    command->footer(s_synthesize_footer);
    command->callback([arguments, status] { *status = synthesize_command(*arguments); });
}

static void add_doctor(CLI::App &app, int *status)
{
    app.add_subcommand("doctor",
                       "Prints what this computer offers: engine, privileges, dump settings")
        ->callback([status] { *status = replay_doctor(); });
}

int wmain(int argc, wchar_t **argv);

int wmain(int argc, wchar_t **argv)
{
    return command_line_run(
        PROGRAM, "Plays whole boots through the bypass plug-in.",
        "Exit status: 0 every expectation holds, 1 one does not, 2 invalid call or scenario,\n"
        "3 unreadable evidence, 4 the plug-in cannot be loaded, 77 skipped, 130 interrupted.",
        {add_run, add_console, add_replay, add_serve, add_dump, add_diff, add_redact, add_events,
         add_synthesize, add_doctor},
        argc, argv);
}
