/*
 * oxni_devhost: plays whole boots through the real plug-in DLL. This file: the command line, and
 * what the exit status says.
 */
#include <stdio.h>
#include <windows.h>
#include <io.h>

#include <map>
#include <string>
#include <vector>

#include <CLI/CLI.hpp>

#include <oxni/base/log.h>

#include "../platform/liboxnibase/host.h"
#include "replay/commands.h"
#include "scenario/record.h"
#include "session.h"
#include "soak/soak.h"
#include "sweep/cut.h"
#include "sweep/sweep.h"
#include "text.h"
#include "view/view.h"

struct arguments {
    std::vector<std::string> files;
    std::vector<std::string> defines; /* NAME=VALUE */
    std::string log = "none";
    std::string memory = "plain";
    bool json = false;
    bool quiet = false;
    bool messages = false;
    struct session_options session = {};
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

static int report_error(const devhost_error &error)
{
    fflush(stdout);
    fprintf(stderr, "oxni_devhost: %s\n", error.what());
    return error.status;
}

/* Every file is played, whatever the one before it said; the worst status counts. */
static int run_files(const arguments &arguments)
{
    if (!arguments.session.html.empty() && arguments.files.size() > 1)
        throw devhost_error(EXIT_BAD_CALL,
                            "--html: expected one scenario file, a page shows one run");
    int worst = EXIT_ALL_HOLD;
    size_t skipped = 0;

    for (const std::string &file : arguments.files) {
        int status;

        try {
            status = session_run(file, arguments.session);
        } catch (const devhost_error &error) {
            status = report_error(error);
        } catch (const std::exception &error) {
            status = report_error(devhost_error(EXIT_BAD_CALL, file + ": " + error.what()));
        }
        if (status == EXIT_SKIPPED)
            skipped++;
        else if (status > worst)
            worst = status;
    }
    return worst == EXIT_ALL_HOLD && skipped == arguments.files.size() ? EXIT_SKIPPED : worst;
}

static void prepare(arguments &arguments)
{
    struct view_options view = {};

    arguments.session.defines = split_defines(arguments.defines);
    arguments.session.guard_memory = arguments.memory == "guard";
    if (arguments.session.plugin_path.empty())
        arguments.session.plugin_path = session_standard_plugin();
    view.log_level = s_levels.at(arguments.log);
    view.json = arguments.json;
    view.trace = arguments.session.trace;
    view.colour = !arguments.json && _isatty(_fileno(stdout)) && getenv("NO_COLOR") == NULL;
    view.messages = arguments.messages;
    view.quiet = arguments.quiet;
    view_open(view);
    record_set_view(view_happening, NULL);
    oxnih_log_set_level(OXNI_LOG_DEBUG);
}

static void add_common_options(CLI::App &command, arguments &arguments)
{
    command
        .add_option("--define", arguments.defines,
                    "NAME=VALUE: what {NAME} in a path of a scenario stands for")
        ->allow_extra_args(false);
    command
        .add_option("--log", arguments.log, "Lines of the plug-in that are shown, up to a level")
        ->check(CLI::IsMember({"none", "error", "warn", "info", "debug"}));
    command.add_option("--memory", arguments.memory, "Allocator of the plug-in")
        ->check(CLI::IsMember({"plain", "guard"}));
    command.add_option("--plugin", arguments.session.plugin_path,
                       "The DLL; else the one beside this program");
    command.add_option("--keep", arguments.session.keep, "Folder for the run's files, kept");
    command.add_flag("--messages", arguments.messages, "Shows messages as they stand");
    command.add_flag("--trace", arguments.session.trace, "Shows every call of the plug-in");
}

static CLI::App *add_run(CLI::App &app, arguments &arguments)
{
    CLI::App *command = app.add_subcommand("run", "Plays scenario files");

    command->add_option("FILE", arguments.files, "Scenario files")->required();
    add_common_options(*command, arguments);
    command
        ->add_option("--console", arguments.session.commands,
                     "[BOOT/]SECONDS:COMMAND: types a debug command at that moment")
        ->allow_extra_args(false);
    command->add_option("--html", arguments.session.html,
                        "Writes the run as one page, for a browser, to this file");
    command->add_flag("--real-time", arguments.session.real_time, "Waits in real time");
    command->add_flag("--json", arguments.json, "One JSON object a line");
    command->add_flag("--quiet", arguments.quiet, "Shows failures and results only");
    return command;
}

static CLI::App *add_console(CLI::App &app, arguments &arguments)
{
    CLI::App *command = app.add_subcommand(
        "console", "Lets a person type debug commands while time runs on request");

    command->add_option("FILE", arguments.files, "Scenario file")->required()->expected(1);
    add_common_options(*command, arguments);
    return command;
}

int wmain(int argc, wchar_t **argv);

int wmain(int argc, wchar_t **argv)
{
    CLI::App app("Plays whole boots through the bypass plug-in.", "oxni_devhost");
    arguments arguments;
    std::vector<std::string> words;
    struct soak_options soak;
    const CLI::App *run, *console, *soaking;
    int status = EXIT_ALL_HOLD;

    SetConsoleOutputCP(CP_UTF8);
    for (int i = argc - 1; i > 0; i--) /* CLI11 takes them last first */
        words.push_back(text_narrow(argv[i]));
    app.allow_windows_style_options(false); /* a path may begin with a slash */
    run = add_run(app, arguments);
    console = add_console(app, arguments);
    replay_add_commands(app, &status);
    soaking = add_soak(app, soak);
    sweep_add_commands(app, &status);
    cut_add_command(app, &status);
    app.require_subcommand(1);
    app.footer("Exit status: 0 every expectation holds, 1 one does not, 2 bad call or scenario,\n"
               "3 unreadable evidence, 4 the plug-in cannot be loaded, 77 skipped.");
    try {
        app.parse(words); /* runs the commands of the other rooms */
        if (run->parsed() || console->parsed())
            prepare(arguments);
        if (run->parsed())
            status = run_files(arguments);
        else if (console->parsed())
            status = session_console(arguments.files.front(), arguments.session);
        else if (soaking->parsed())
            status = soak_run(soak);
    } catch (const CLI::ParseError &error) {
        status = app.exit(error) == 0 ? EXIT_ALL_HOLD : EXIT_BAD_CALL;
    } catch (const devhost_error &error) {
        status = report_error(error);
    }
    /* A result that is not whole is none, whatever it says. */
    if ((fflush(stdout) != 0 || ferror(stdout) != 0) && status != EXIT_BAD_CALL) {
        fprintf(stderr, "oxni_devhost: stdout: cannot be written\n");
        status = EXIT_BAD_CALL;
    }
    return status;
}
