/* The program at a terminal. */
#include "terminal.h"

#include <cerrno>
#include <fcntl.h>
#include <io.h>
#include <cstdio>
#include <cstdlib>
#include <windows.h>

#include "exit_status.h"
#include "run_folder.h"
#include "text.h"

static constexpr double PROGRESS_AFTER_S = 2.0;
static constexpr double PROGRESS_EVERY_MS = 200.0;
#define CLEAR_LINE "\r\x1b[K"

static bool s_colours;
static bool s_shows_progress;
static double s_shows_after_s = PROGRESS_AFTER_S;
static double s_began_ms, s_shown_ms;
static bool s_line_is_shown, s_shows_whole;
static std::mutex s_interrupt;
static std::string s_reached;

static bool is_set(const char *name)
{
    const char *value = getenv(name);

    return value != nullptr && value[0] != '\0';
}

/* A console of Windows interprets escape sequences only when it is asked to. */
static bool console_takes_escapes(DWORD which)
{
    const HANDLE console = GetStdHandle(which);
    DWORD mode;

    return GetConsoleMode(console, &mode) &&
           SetConsoleMode(console, mode | ENABLE_VIRTUAL_TERMINAL_PROCESSING);
}

void terminal_open(void)
{
    SetConsoleOutputCP(CP_UTF8);
    (void)_setmode(_fileno(stdout), _O_BINARY);
    (void)_setmode(_fileno(stderr), _O_BINARY);
    s_colours = !is_set("NO_COLOR") &&
                (is_set("BYPASS_COLOUR") || console_takes_escapes(STD_OUTPUT_HANDLE));
    s_shows_progress = is_set("BYPASS_PROGRESS") || console_takes_escapes(STD_ERROR_HANDLE);
    if (is_set("BYPASS_PROGRESS"))
        s_shows_after_s = strtod(getenv("BYPASS_PROGRESS"), nullptr);
    s_began_ms = time_real_ms();
}

bool terminal_has_colours(void)
{
    return s_colours;
}

void terminal_progress(const std::string &text)
{
    const double now = time_real_ms();

    if (s_shows_whole)
        return;
    terminal_reached(text);
    if (!s_shows_progress || now - s_began_ms < 1000.0 * s_shows_after_s ||
        now - s_shown_ms < PROGRESS_EVERY_MS)
        return;
    fprintf(stderr, CLEAR_LINE "%s ...", text.c_str());
    fflush(stderr);
    s_shown_ms = now;
    s_line_is_shown = true;
}

void terminal_progress_whole(const std::string &text)
{
    s_shows_whole = false;
    terminal_progress(text);
    s_shows_whole = true;
}

void terminal_progress_end(void)
{
    s_shows_whole = false;
    if (!s_line_is_shown)
        return;
    fprintf(stderr, CLEAR_LINE);
    fflush(stderr);
    s_line_is_shown = false;
}

/* Runs on a thread of its own, while the program goes on. */
static BOOL WINAPI interrupted(DWORD)
{
    const std::lock_guard<std::mutex> lock(s_interrupt);

    fflush(stdout);
    fprintf(stderr, "%sinterrupted%s%s\n", s_line_is_shown ? CLEAR_LINE : "",
            s_reached.empty() ? "" : ": ", s_reached.c_str());
    fflush(stderr);
    run_folder_remove_all();
    TerminateProcess(GetCurrentProcess(), EXIT_INTERRUPTED);
    return TRUE;
}

std::mutex &terminal_interrupt_mutex(void)
{
    return s_interrupt;
}

void terminal_watch_interrupt(void)
{
    static bool s_watched;

    if (!s_watched)
        s_watched = SetConsoleCtrlHandler(interrupted, TRUE) != 0;
}

void terminal_reached(const std::string &what)
{
    const std::lock_guard<std::mutex> lock(s_interrupt);

    s_reached = what;
}

std::string terminal_flush(void)
{
    if (fflush(stdout) == 0 && ferror(stdout) == 0)
        return "";
    /* The error may be an earlier one, so its code is lost. A pipe fails only without a reader. */
    if (GetFileType(GetStdHandle(STD_OUTPUT_HANDLE)) == FILE_TYPE_PIPE)
        return "";
    return text_error(errno == ENOSPC || errno == 0 ? ERROR_DISK_FULL : GetLastError());
}

void terminal_write(const std::string &text)
{
    (void)fwrite(text.data(), 1, text.size(), stdout);

    const std::string reason = terminal_flush();

    if (!reason.empty())
        throw devhost_error(EXIT_BAD_CALL, "cannot write to the standard output: " + reason);
}

/* For a POSIX shell when the script is the caller, else for Windows. */
static std::string quoted(const std::string &argument, bool posix)
{
    static const char *const plain =
        "abcdefghijklmnopqrstuvwxyzABCDEFGHIJKLMNOPQRSTUVWXYZ0123456789"
        "_-./:,=+@";

    if (!argument.empty() &&
        argument.find_first_not_of(posix ? plain : (std::string(plain) + "\\").c_str()) ==
            std::string::npos)
        return argument;
    return posix ? "'" + text_replace(argument, "'", "'\\''") + "'" : "\"" + argument + "\"";
}

std::string terminal_command(const std::string &command, const std::string &argument)
{
    const bool script = is_set("BYPASS_COMMAND");

    return (script ? quoted(getenv("BYPASS_COMMAND"), true) : "oxni_devhost") + " " + command +
           " " + quoted(argument, script);
}
