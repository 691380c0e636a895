/*
 * oxni_devhost: plays whole boots through the real plug-in DLL. This file: the command line, the
 * folder of a run, and what the exit status says.
 */
#include <stdio.h>
#include <windows.h>
#include <io.h>

#include <map>
#include <string>
#include <vector>

#include <CLI/CLI.hpp>

#include "../oxni_base/include/oxni/base/log.h"
#include "../platform/liboxnibase/host.h"
#include "machine/calls.h"
#include "machine/machine.h"
#include "scenario/play.h"
#include "scenario/record.h"
#include "text.h"
#include "view/view.h"

struct run_arguments {
    std::vector<std::string> files;
    std::vector<std::string> defines; /* NAME=VALUE */
    std::string plugin;
    std::string keep; /* folder that is kept; empty: a temporary one */
    std::string log = "warn";
    std::string memory = "plain";
    bool real_time = false;
    bool json = false;
    bool trace = false;
    bool quiet = false;
};

static const std::map<std::string, int> s_levels = {
    {"none",  -1            },
    {"error", OXNI_LOG_ERROR},
    {"warn",  OXNI_LOG_WARN },
    {"info",  OXNI_LOG_INFO },
    {"debug", OXNI_LOG_DEBUG},
};

static std::string program_folder(void)
{
    wchar_t path[1024];
    DWORD chars = GetModuleFileNameW(NULL, path, ARRAYSIZE(path));
    std::string text = text_narrow(std::wstring(path, chars));

    return text.substr(0, text.find_last_of('\\'));
}

/* A new, empty folder below the temporary one, or the one that was asked for. */
static std::string make_run_folder(const std::string &keep)
{
    wchar_t temp[1024], full[1024];
    std::string folder = keep;

    if (folder.empty()) {
        GetTempPathW(ARRAYSIZE(temp), temp);
        folder = text_narrow(temp) +
                 text_format("oxni_devhost-%lu-%lu", GetCurrentProcessId(), GetTickCount());
    }
    GetFullPathNameW(text_wide(folder).c_str(), ARRAYSIZE(full), full, NULL);
    if (!CreateDirectoryW(full, NULL) && GetLastError() != ERROR_ALREADY_EXISTS)
        throw devhost_error(EXIT_BAD_CALL, text_format("%s: cannot be made, error %lu",
                                                       folder.c_str(), GetLastError()));
    return text_narrow(full);
}

static void remove_folder(const std::wstring &folder)
{
    WIN32_FIND_DATAW entry;
    HANDLE find = FindFirstFileW((folder + L"\\*").c_str(), &entry);

    if (find == INVALID_HANDLE_VALUE)
        return;
    do {
        std::wstring name = entry.cFileName, path = folder + L"\\" + name;

        if (name == L"." || name == L"..")
            continue;
        if ((entry.dwFileAttributes & FILE_ATTRIBUTE_DIRECTORY) != 0)
            remove_folder(path);
        else
            DeleteFileW(path.c_str());
    } while (FindNextFileW(find, &entry));
    FindClose(find);
    RemoveDirectoryW(folder.c_str());
}

static void trace_sink(const std::string &text, void *user)
{
    (void)user;
    record_add(HAPPENED_CALL, "plug-in", text);
}

/* Whether a scenario looks at calls, so that they have to be recorded. */
static bool wants_trace(const json_value &value)
{
    if (value.IsObject())
        for (const auto &member : value.GetObject())
            if (member.name == "calls" || member.name == "no_calls" || wants_trace(member.value))
                return true;
    if (value.IsArray())
        for (const json_value &element : value.GetArray())
            if (wants_trace(element))
                return true;
    return false;
}

/* Result: enum devhost_exit. */
static int run_file(const std::string &file, const std::map<std::string, std::string> &defines,
                    const run_arguments &arguments)
{
    struct scenario scenario;
    struct play_options options = {};
    std::vector<std::string> failures, summary;

    scenario_load(scenario, file, defines);
    view_start(file, node_text_of(&scenario.document, "name", ""));
    options.run_folder = make_run_folder(arguments.keep);
    options.plugin_path = arguments.plugin;
    options.real_time = arguments.real_time;
    calls_set_trace(arguments.trace || wants_trace(scenario.document) ? trace_sink : NULL, NULL);
    try {
        failures = play_scenario(scenario, options);
    } catch (...) {
        machine_close();
        if (arguments.keep.empty())
            remove_folder(text_wide(options.run_folder));
        throw;
    }
    for (const std::string &key : product_keys())
        summary.push_back(text_format("%-11s ", key.c_str()) + product_summary(key));
    view_end(file, summary, failures);
    if (arguments.keep.empty())
        remove_folder(text_wide(options.run_folder));
    return failures.empty() ? EXIT_ALL_HOLD : EXIT_EXPECTATION_FAILED;
}

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

/* Every file is played, whatever the one before it said; the worst status counts. */
static int run_files(const run_arguments &arguments)
{
    std::map<std::string, std::string> defines = split_defines(arguments.defines);
    int worst = EXIT_ALL_HOLD, skipped = 0;

    for (const std::string &file : arguments.files) {
        int status;

        try {
            status = run_file(file, defines, arguments);
        } catch (const devhost_error &error) {
            fflush(stdout);
            fprintf(stderr, "oxni_devhost: %s\n", error.what());
            status = error.status;
        }
        if (status == EXIT_SKIPPED)
            skipped++;
        else if (status > worst)
            worst = status;
    }
    if (worst == EXIT_ALL_HOLD && skipped != 0 &&
        skipped == static_cast<int>(arguments.files.size()))
        return EXIT_SKIPPED;
    return worst;
}

static int run(run_arguments &arguments)
{
    struct view_options view = {};
    int level = s_levels.at(arguments.log);
    bool colour = _isatty(_fileno(stdout)) && getenv("NO_COLOR") == NULL;

    if (arguments.plugin.empty())
        arguments.plugin = program_folder() + "\\libbypass_mgr.dll";
    view.log_level = level;
    view.json = arguments.json;
    view.trace = arguments.trace;
    view.colour = colour && !arguments.json;
    view.quiet = arguments.quiet;
    view_open(view);
    record_set_view(view_happening, NULL);
    oxnih_log_set_level(OXNI_LOG_DEBUG);
    oxnih_memory_set_mode(arguments.memory == "guard" ? OXNIH_MEMORY_GUARD : OXNIH_MEMORY_PLAIN);
    return run_files(arguments);
}

static void add_run(CLI::App &app, run_arguments &arguments)
{
    CLI::App *run_command = app.add_subcommand("run", "Plays scenario files");

    run_command->add_option("FILE", arguments.files, "Scenario files")->required();
    run_command->add_option("--define", arguments.defines,
                            "NAME=VALUE: what {NAME} in a path of a scenario stands for");
    run_command
        ->add_option("--log", arguments.log, "Lines of the plug-in that are shown, up to a level")
        ->check(CLI::IsMember({"none", "error", "warn", "info", "debug"}));
    run_command->add_option("--memory", arguments.memory, "Allocator of the plug-in")
        ->check(CLI::IsMember({"plain", "guard"}));
    run_command->add_option("--plugin", arguments.plugin,
                            "The DLL; else the one beside this program");
    run_command->add_option("--keep", arguments.keep, "Folder for the files of the run, kept");
    run_command->add_flag("--real-time", arguments.real_time, "Waits in real time");
    run_command->add_flag("--json", arguments.json, "One JSON object a line");
    run_command->add_flag("--trace", arguments.trace, "Shows every call of the plug-in");
    run_command->add_flag("--quiet", arguments.quiet, "Shows failures and results only");
}

int wmain(int argc, wchar_t **argv);

int wmain(int argc, wchar_t **argv)
{
    CLI::App app("Plays whole boots through the bypass plug-in.", "oxni_devhost");
    run_arguments arguments;
    std::vector<std::string> words;
    int status;

    SetConsoleOutputCP(CP_UTF8);
    for (int i = argc - 1; i > 0; i--) /* CLI11 takes them last first */
        words.push_back(text_narrow(argv[i]));
    add_run(app, arguments);
    app.require_subcommand(1);
    app.footer("Exit status: 0 every expectation holds, 1 one does not, 2 bad call or scenario,\n"
               "3 unreadable evidence, 4 the plug-in cannot be loaded, 77 skipped.");
    try {
        app.parse(words);
        status = run(arguments);
    } catch (const CLI::ParseError &error) {
        status = app.exit(error) == 0 ? EXIT_ALL_HOLD : EXIT_BAD_CALL;
    } catch (const devhost_error &error) {
        fprintf(stderr, "oxni_devhost: %s\n", error.what());
        status = error.status;
    }
    fflush(stdout);
    return status;
}
