/* What the command line says, handed to the rest of the room. */
#include "commands.h"

#include <fcntl.h>
#include <io.h>
#include <stdio.h>

#include <memory>

#include <CLI/CLI.hpp>

#include <oxni/base/log.h>

#include "../../platform/liboxnibase/host.h"
#include "../evidence/file.h"
#include "../text.h"
#include "../view/view.h"
#include "replay.h"

/* What the line can say; lives as long as the commands. */
struct replay_arguments {
    struct replay_options options = {};
    bool boots = false;
    bool strict = false;
    bool lenient = false;
    std::string memory = "plain";
    std::string first, second; /* names without an option */
    uint64_t from = 0, to = UINT64_MAX;
};

static const char s_events_footer[] =
    "The result is an array in the order of the log, oldest first, one record a line:\n"
    "  record   number in the log\n"
    "  source   name of the event's source\n"
    "  id       event id, qualifiers in the high 16 bits\n"
    "  time     written, ISO 8601 in UTC, whole seconds\n"
    "  type     1 error, 2 warning, 4 information\n"
    "  strings  insertion strings, without binary data\n"
    "\n"
    "Damage is never passed over in silence: each finding is a line on stderr. Damaged\n"
    "records are skipped and counted; a file that is cut off is refused. A log that was in\n"
    "use when it was copied does not say how long it is: a cut exactly between two of its\n"
    "chunks is not seen.";

static enum evidence_damage allowed(const replay_arguments &arguments)
{
    if (arguments.strict)
        return EVIDENCE_STRICT;
    return arguments.lenient ? EVIDENCE_LENIENT : EVIDENCE_STANDARD;
}

static void add_damage_options(CLI::App &command, replay_arguments &arguments)
{
    CLI::Option *strict =
        command.add_flag("--strict", arguments.strict, "Refuses a log with any damage");

    command.add_flag("--lenient", arguments.lenient, "Reads what is left of a log that is cut off")
        ->excludes(strict);
}

/* The options that name evidence. */
static void add_evidence_options(CLI::App &command, replay_arguments &arguments)
{
    struct replay_options &options = arguments.options;

    options.boot = "last";
    command.add_option("--events", options.events, "System log: .evtx, or JSON of \"events\"")
        ->required();
    command.add_option("--dump", options.dumps, "Crash dump; may stand several times")
        ->allow_extra_args(false);
    command.add_option("--boot", options.boot, "Which start of Windows in the log: N or last");
    command
        .add_option("--product", options.products,
                    "NAME:MODULE,MODULE[:COUNT[:STATUS]]; may stand several times")
        ->allow_extra_args(false);
    command.add_option("--registry", options.registry, "Registry export (.reg)");
    add_damage_options(command, arguments);
}

/* Nothing is shown while it is played: the result tells it. */
static void prepare(replay_arguments &arguments)
{
    struct view_options view = {};
    struct session_options &session = arguments.options.session;

    arguments.options.damage = allowed(arguments);
    session.guard_memory = arguments.memory == "guard";
    if (session.plugin_path.empty())
        session.plugin_path = session_standard_plugin();
    view.log_level = -1;
    view.quiet = true;
    view_open(view);
    oxnih_log_set_level(OXNI_LOG_DEBUG);
}

static void add_replay(CLI::App &app, const std::shared_ptr<replay_arguments> &arguments,
                       int *status)
{
    CLI::App *command = app.add_subcommand(
        "replay", "Tells what the plug-in decides on a machine's own evidence, and why");
    struct session_options &session = arguments->options.session;

    add_evidence_options(*command, *arguments);
    CLI::Option *boots = command->add_flag("--boots", arguments->boots,
                                           "Lists the boots of the log, and plays none");
    command->add_flag("--json", arguments->options.json, "The result as JSON");
    command->add_flag("--timing", arguments->options.timing, "Tells on stderr how long it took");
    command
        ->add_option("--html", arguments->options.html,
                     "Writes the result as one page, for a browser, to this file")
        ->excludes(boots);
    command->add_option("--plugin", session.plugin_path,
                        "The DLL; else the one beside this program");
    command->add_option("--keep", session.keep, "Folder for the run's files, kept");
    command->add_option("--memory", arguments->memory, "Allocator of the plug-in")
        ->check(CLI::IsMember({"plain", "guard"}));
    command->callback([arguments, status] {
        prepare(*arguments);
        *status = arguments->boots ? replay_list_boots(arguments->options)
                                   : replay_run(arguments->options);
    });
}

static void add_redact(CLI::App &app, const std::shared_ptr<replay_arguments> &arguments,
                       int *status)
{
    CLI::App *command = app.add_subcommand(
        "redact", "Copies evidence as a scenario without names of computers and people");

    add_evidence_options(*command, *arguments);
    command->add_option("FOLDER", arguments->first, "New folder for the scenario")->required();
    command->callback([arguments, status] {
        prepare(*arguments);
        *status = replay_redact(arguments->options, arguments->first);
    });
}

static void add_diff(CLI::App &app, const std::shared_ptr<replay_arguments> &arguments, int *status)
{
    CLI::App *command =
        app.add_subcommand("diff", "Tells what differs between two results of replay --json");

    command->add_option("OLD", arguments->first, "Result of replay --json")->required();
    command->add_option("NEW", arguments->second, "Another one")->required();
    command->footer(
        "Exit status: 0 nothing differs, 1 something does, 3 a file is no such result.");
    command->callback(
        [arguments, status] { *status = replay_diff(arguments->first, arguments->second); });
}

static int convert(const replay_arguments &arguments)
{
    const std::string &output = arguments.second;
    evidence_log log;

    if (arguments.from > arguments.to)
        throw devhost_error(EXIT_BAD_CALL, "--from is higher than --to");
    evidence_log_read(arguments.first, allowed(arguments), &log);
    for (const std::string &line : evidence_log_damage(log, SIZE_MAX))
        fprintf(stderr, "oxni_devhost: %s: %s\n", arguments.first.c_str(), line.c_str());
    const std::string text = evidence_log_json(log, arguments.from, arguments.to);

    _setmode(_fileno(stdout), _O_BINARY); /* the same bytes as in a file */
    if (!output.empty())
        evidence_write(output, text);
    else if (fwrite(text.data(), 1, text.size(), stdout) != text.size() || fflush(stdout) != 0)
        throw devhost_error(EXIT_BAD_CALL, "stdout: cannot be written");
    return EXIT_ALL_HOLD;
}

static void add_events(CLI::App &app, const std::shared_ptr<replay_arguments> &arguments,
                       int *status)
{
    CLI::App *command =
        app.add_subcommand("events", "Prints the records of a log as JSON, for a scenario");

    command->add_option("FILE", arguments->first, "System log: .evtx, or such JSON")->required();
    command->add_option("-o,--output", arguments->second, "File to write, instead of stdout");
    command->add_option("--from", arguments->from, "Lowest record number")->type_name("N");
    command->add_option("--to", arguments->to, "Highest record number")->type_name("N");
    add_damage_options(*command, *arguments);
    command->footer(s_events_footer);
    command->callback([arguments, status] { *status = convert(*arguments); });
}

void replay_add_commands(CLI::App &app, int *status)
{
    add_replay(app, std::make_shared<replay_arguments>(), status);
    add_diff(app, std::make_shared<replay_arguments>(), status);
    add_redact(app, std::make_shared<replay_arguments>(), status);
    add_events(app, std::make_shared<replay_arguments>(), status);
    app.add_subcommand("doctor", "Tells what this machine offers: engine, rights, dump settings")
        ->callback([status] { *status = replay_doctor(); });
}
