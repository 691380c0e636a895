/* What the programs of the host and of its tests do with their command lines. */
#ifndef DEVHOST_COMMAND_LINE_H
#define DEVHOST_COMMAND_LINE_H

#include <cstdio>
#include <windows.h>

#include <initializer_list>
#include <string>
#include <vector>

#include <CLI/CLI.hpp>

#include "../base/terminal.h"
#include "../base/text.h"

/* Adds a command, which sets the exit status when it runs. */
typedef void (*command_line_fn)(CLI::App &app, int *status);

/* Result: the exit status. */
inline int command_line_report(const char *program, const devhost_error &error)
{
    terminal_progress_end();
    fflush(stdout);
    fprintf(stderr, "%s: %s\n", program, error.what());
    return error.status;
}

/* Runs the command that the arguments name. footer: the meaning of the exit status. */
inline int command_line_run(const char *program, const char *description, const char *footer,
                            std::initializer_list<command_line_fn> commands, int argc,
                            wchar_t **argv)
{
    CLI::App app(description, program);
    std::vector<std::string> words;
    int status = EXIT_ALL_HOLD;

    terminal_open();
    terminal_watch_interrupt();
    for (int i = argc - 1; i > 0; i--) /* CLI11 takes them last first */
        words.push_back(text_narrow(argv[i]));
    app.allow_windows_style_options(false); /* a path may begin with a slash */
    for (const command_line_fn add : commands)
        add(app, &status);
    app.require_subcommand(1);
    app.footer(footer);
    try {
        app.parse(words); /* runs the command */
    } catch (const CLI::ParseError &error) {
        status = app.exit(error) == 0 ? EXIT_ALL_HOLD : EXIT_BAD_CALL;
    } catch (const devhost_error &error) {
        status = command_line_report(program, error);
    }
    const std::string reason = terminal_flush();

    /* An incomplete result is not a result. */
    if (!reason.empty() && status != EXIT_BAD_CALL)
        status = command_line_report(
            program,
            devhost_error(EXIT_BAD_CALL, "cannot write to the standard output: " + reason));
    return status;
}

#endif
