/* Sessions: a scenario that is played to its end, or by a person at the console. */
#include "commands.h"

#include <cstdio>
#include <cstring>
#include <windows.h>

#include "../../platform/liboxni_core/host.h"
#include "../../platform/liboxnibase/host.h"
#include "../agent/agent.h"
#include "../base/file.h"
#include "../base/text.h"
#include "../calls/calls.h"
#include "../participants/products.h"
#include "../play/agent_process.h"
#include "../play/load.h"
#include "../play/play.h"
#include "../scenario/journal.h"
#include "../scenario/timeline.h"
#include "../view/view.h"

static constexpr char CONSOLE_NAMESPACE[] = "oxni";
/* Of a boot: docs/scenarios.md and the console's help state it. */
static constexpr double LONGEST_SECONDS = 31622400.0;
#define LONGEST_TEXT "366 days"

/* Whether a scenario expects calls, so that they must be recorded. */
static bool wants_trace(const json_value &value)
{
    if (value.IsObject())
        for (const auto &member : value.GetObject())
            if (member.name == "calls" || member.name == "no_calls" || member.name == "sequence" ||
                strchr(member.name.GetString(), '(') != nullptr || wants_trace(member.value))
                return true;
    if (value.IsArray())
        for (const json_value &element : value.GetArray())
            if (wants_trace(element))
                return true;
    return false;
}

/* "[BOOT/]SECONDS:LINE" of an option. */
struct planned_command {
    unsigned long boot;
    double seconds;
    std::string line;
};

static planned_command parse_command(const std::string &text)
{
    planned_command command = {1, 0, ""};
    size_t colon = text.find(':'), slash = text.find('/');
    std::string seconds = text.substr(0, colon);
    char *end;

    if (colon != std::string::npos && slash < colon) {
        command.boot = strtoul(text.c_str(), nullptr, 10);
        seconds = text.substr(slash + 1, colon - slash - 1);
    }
    command.seconds = strtod(seconds.c_str(), &end);
    if (colon == std::string::npos || seconds.empty() || *end != '\0' || command.seconds < 0 ||
        command.seconds > LONGEST_SECONDS)
        throw devhost_error(EXIT_BAD_CALL, "--console " + text +
                                               ": expected [BOOT/]SECONDS:COMMAND, for example "
                                               "300:bypass -p");
    command.line = text.substr(colon + 1);
    return command;
}

static void plan_commands(const struct run_options &options, unsigned long boot)
{
    for (const std::string &text : options.commands) {
        planned_command command = parse_command(text);

        if (command.boot == boot)
            timeline_at(timeline_ms(command.seconds), [command] {
                if (agent_state_get() == AGENT_RUNNING)
                    oxnih_dbg_run(CONSOLE_NAMESPACE, command.line.c_str());
            });
    }
}

static void open_scenario(struct scenario &scenario, const std::string &file,
                          const struct run_options &options, const run_folder &folder)
{
    struct play_options play = {folder.path, options.plugin_path, options.real_time, false};

    const size_t boots = node_elements(&scenario.document, "boots").size();

    /* Reported before anything is played. */
    for (const std::string &text : options.commands)
        if (const unsigned long boot = parse_command(text).boot; boot == 0 || boot > boots)
            throw devhost_error(EXIT_BAD_CALL,
                                text_format("--console %s: there is no boot %lu, %s has %u",
                                            text.c_str(), boot, file.c_str(),
                                            static_cast<unsigned>(boots)));
    oxnih_memory_set_mode(options.guard_memory ? OXNIH_MEMORY_GUARD : OXNIH_MEMORY_PLAIN);
    /* With guards, a bad free names the allocating function. */
    oxnih_memory_find_sites(options.guard_memory);
    calls_set_trace(options.trace || wants_trace(scenario.document) ? explain_note_call : nullptr);
    view_start(file, node_text_of(&scenario.document, "name", ""));
    play_open(scenario, play);
}

static std::vector<std::string> summary(void)
{
    std::vector<std::string> lines;

    for (const std::string &key : product_keys())
        lines.push_back(text_format("%-11s ", key.c_str()) + product_summary(key));
    return lines;
}

static void play_all(const struct run_options &options)
{
    for (unsigned long boot = 1; play_begin_boot(); boot++) {
        plan_commands(options, boot);
        /* A boot without a bound would never end. */
        if (play_boot_end_ms() > timeline_ms(LONGEST_SECONDS))
            throw devhost_error(EXIT_BAD_CALL, "a boot is longer than the limit of " LONGEST_TEXT);
        play_run_until(play_boot_end_ms());
        play_end_boot();
    }
}

/* Prints the end of a run, and writes the page if there is to be one. */
static void end_run(const std::string &file, const struct scenario &scenario,
                    const struct run_options &options, const std::vector<std::string> &failures)
{
    if (!options.html.empty())
        evidence_write(options.html, page_of_run(file, node_text_of(&scenario.document, "name", ""),
                                                 summary(), failures, explain_decisions()));
    view_end(file, summary(), failures);
}

int session_run(const std::string &file, const struct run_options &options)
{
    struct scenario scenario;
    std::vector<std::string> failures;

    scenario_load(scenario, file, options.defines);
    run_folder folder(options.keep, options.place);
    try {
        open_scenario(scenario, file, options, folder);
        play_all(options);
    } catch (const devhost_error &error) {
        failures = play_close();
        if (failures.empty())
            throw;
        /* Failures before the error count too. */
        failures.push_back(file + ": " + error.what());
        end_run(file, scenario, options, failures);
        return EXIT_EXPECTATION_FAILED;
    } catch (...) {
        (void)play_close();
        throw;
    }
    failures = play_close();
    end_run(file, scenario, options, failures);
    return failures.empty() ? EXIT_ALL_HOLD : EXIT_EXPECTATION_FAILED;
}

static void console_help(void)
{
    const char *commands = oxnih_dbg_help(CONSOLE_NAMESPACE, "bypass");

    printf("  +90s +5m +2h +1d  lets that much time pass; a boot has at most " LONGEST_TEXT "\n"
           "  bypass -p         and any other command: runs it on the agent's debug console\n"
           "  status            prints the products\n"
           "  restart           restarts the agent\n"
           "  next              ends this boot as the scenario says, and starts the next one\n"
           "  help, quit\n");
    if (commands != nullptr) /* the agent runs */
        printf("The plug-in's own help:\n%s\n", commands);
}

/* "+90s" in milliseconds. Result: whether it is a time within the limit. */
static bool parse_span(const std::string &word, uint64_t *ms)
{
    static const struct {
        const char *unit;
        double seconds;
    } units[] = {
        {"",  1    },
        {"s", 1    },
        {"m", 60   },
        {"h", 3600 },
        {"d", 86400}
    };
    char *end;
    double number = strtod(word.c_str() + 1, &end);

    for (const auto &row : units)
        if (number >= 0 && number * row.seconds <= LONGEST_SECONDS && end != word.c_str() + 1 &&
            std::string(end) == row.unit) {
            *ms = timeline_ms(number * row.seconds);
            return true;
        }
    return false;
}

/* Result: false when there is no next boot. */
static bool next_boot(void)
{
    play_end_boot();
    if (play_begin_boot())
        return true;
    printf("The scenario has no further boot.\n");
    return false;
}

static void run_on_agent(const std::string &line)
{
    if (agent_state_get() != AGENT_RUNNING) {
        printf("The agent is not running; let time pass with +10s.\n");
        return;
    }
    oxnih_dbg_run(CONSOLE_NAMESPACE, line.c_str());
    play_run_until(timeline_now_ms());
}

/* Handles one line that a person typed. Result: whether to go on. */
static bool console_line(const std::string &line)
{
    uint64_t ms;

    if (line.empty())
        return true;
    if (line == "quit")
        return false;
    if (line == "next")
        return next_boot();
    if (line == "help") {
        console_help();
    } else if (line == "status") {
        for (const std::string &text : summary())
            printf("  %s\n", text.c_str());
    } else if (line == "restart") {
        agent_process_stop("stops to start again");
        agent_process_start();
        play_run_until(timeline_now_ms());
    } else if (line[0] == '+') {
        if (!parse_span(line, &ms) || timeline_now_ms() + ms > timeline_ms(LONGEST_SECONDS))
            printf("%s: expected a time such as +90s, +5m, +2h or +1d, at most " LONGEST_TEXT
                   " since Windows started\n",
                   line.c_str());
        else
            play_run_until(timeline_now_ms() + ms);
    } else {
        run_on_agent(line);
    }
    return true;
}

static void prompt(void)
{
    printf("%s> ", time_span(timeline_now_ms()).c_str());
    fflush(stdout);
}

int session_console(const std::string &file, const struct run_options &options)
{
    struct scenario scenario;
    char buffer[4096];
    bool going;

    scenario_load(scenario, file, options.defines);
    run_folder folder(options.keep);
    try {
        open_scenario(scenario, file, options, folder);
        console_help();
        for (going = play_begin_boot(), prompt();
             going && fgets(buffer, sizeof(buffer), stdin) != nullptr; prompt()) {
            std::string line = buffer;

            while (!line.empty() && (line.back() == '\n' || line.back() == '\r'))
                line.pop_back();
            going = console_line(line);
            if (!going)
                break;
        }
    } catch (...) {
        (void)play_close();
        throw;
    }
    (void)play_close(); /* expectations do not count at the console */
    printf("\n");
    return EXIT_ALL_HOLD;
}
