/*
 * The test harness: random machines against invariants, failing allocations and calls, and crash
 * points, all through the development host's library and the real plug-in DLL. This file: the
 * command line, and what the exit status means.
 */
#include <memory>
#include <string>
#include <vector>

#include "commands/command_line.h"
#include "faults/crash_points.h"
#include "faults/fault_runs.h"
#include "simulation/truth_runs.h"
#include "simulation/simulate.h"

static void add_plugin_option(CLI::App &command, std::string &path)
{
    command.add_option("--plugin", path, "The DLL; else the one beside this program");
}

static void add_reload_option(CLI::App &command, bool &reload)
{
    command.add_flag(
        "--reload", reload,
        "Loads the DLL from its file at each start of the agent; else it stays mapped");
}

static void add_simulate(CLI::App &app, int *status)
{
    auto options = std::make_shared<simulate_options>();
    CLI::App *command = app.add_subcommand(
        "simulate", "Plays random machines against invariants, see docs/simulation.md");

    command->add_option("--boots", options->boots, "Number of boots, at least")
        ->check(CLI::PositiveNumber);
    command->add_option("--seed", options->seed,
                        "Seed of the first machine; each further one adds 1");
    command->add_option("--folder", options->folder, "Folder for the run's files, a fast disk");
    command->add_option("--save", options->save, "Folder for the scenario of a failing machine");
    command->add_flag("!--no-shrink", options->shrink, "Does not shrink a failing machine");
    command->add_option("--file", options->file, "Plays this scenario instead of random machines");
    command->add_flag("--hash-calls", options->hash_calls,
                      "Prints a hash of each machine's calls with their arguments and results");
    command->add_flag("--trace", options->trace, "Prints each call");
    command->add_flag(
        "--odd", options->odd,
        "Plays machines without invariants: any call can fail, and messages, files and "
        "settings can be of any form");
    add_plugin_option(*command, options->plugin_path);
    add_reload_option(*command, options->reload);
    command->callback([options, status] { *status = simulate_run(*options); });
}

static void add_truth(CLI::App &app, int *status)
{
    auto options = std::make_shared<truth_options>();
    CLI::App *command = app.add_subcommand(
        "truth", "Makes the evidence of random machines, replays it and compares the answers with "
                 "the truth, see docs/synthesize.md");

    command->add_option("FILE", options->files, "Scenario files in place of random machines");
    command->add_option("--machines", options->machines, "Number of random machines")
        ->check(CLI::PositiveNumber);
    command->add_option("--seed", options->seed,
                        "Seed of the first machine; each further one adds 1");
    command->add_option("--save", options->keep, "Folder for the evidence of a machine that fails");
    add_plugin_option(*command, options->plugin_path);
    command->callback([options, status] { *status = truth_run(*options); });
}

static void add_synthesize(CLI::App &app, int *status)
{
    auto options = std::make_shared<truth_options>();
    CLI::App *command =
        app.add_subcommand("synthesize", "Writes the evidence of random machines, a folder each");

    command->add_option("FOLDER", options->folder, "Folder for the folders")->required();
    command->add_option("--random", options->seed, "Seed of the first machine")->required();
    command->add_option("--count", options->machines, "Number of machines")
        ->check(CLI::PositiveNumber)
        ->default_val(1);
    command->callback([options, status] { *status = truth_write_random(*options); });
}

/* Options of fault runs and crash points. */
static void add_job_options(CLI::App &command, struct job_options &job)
{
    command.add_option("FILE", job.files, "Scenario files")->required();
    add_plugin_option(command, job.plugin_path);
    command.add_option("--place", job.place,
                       "Folder for the runs' files, best in memory; else the temporary one");
    command.add_option("--every", job.every, "Only every Nth run or operation")
        ->check(CLI::PositiveNumber);
    command.add_option("--from", job.from, "From this run or operation on")->take_last();
    command.add_option("--part", job.part, "In this process, one run or operation in --parts");
    command.add_option("--parts", job.parts, "Number of processes that share the first file");
}

static void add_faults(CLI::App &app, int *status)
{
    auto options = std::make_shared<fault_options>();
    CLI::App *command = app.add_subcommand(
        "faults", "Makes every allocation or call of scenarios fail, see docs/faults.md");

    command->add_option("KIND", options->kind, "What fails")
        ->required()
        ->check(CLI::IsMember({"allocations", "calls"}));
    add_job_options(*command, options->job);
    command->add_option("--only", options->only, "Only this run, as a violation names it");
    add_reload_option(*command, options->reload);
    command->callback([options, status] { *status = fault_runs_main(*options); });
}

static void add_crash_points(CLI::App &app, int *status)
{
    auto options = std::make_shared<crash_point_options>();
    CLI::App *command =
        app.add_subcommand("crashpoints", "Ends the process at every file operation of scenarios");

    add_job_options(*command, options->job);
    command->add_option("--at", options->at, "Ends this process before that operation");
    command->add_flag("--torn", options->torn,
                      "In the middle of it, with half of the bytes written");
    command->add_option("--keep", options->keep, "With --at: folder of the run, there and empty");
    command->callback([options, status] { *status = crash_points_main(*options); });
}

int wmain(int argc, wchar_t **argv);

int wmain(int argc, wchar_t **argv)
{
    return command_line_run(
        "harness", "Looks for faults of the bypass plug-in.",
        "Exit status: 0 no violation, 1 a violation, 2 invalid call or scenario, 4 the plug-in\n"
        "cannot be loaded, 70 the program crashed, 71 it hung.",
        {add_simulate, add_truth, add_synthesize, add_faults, add_crash_points}, argc, argv);
}
