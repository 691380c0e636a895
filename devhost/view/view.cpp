/* The timeline on the console: time since Windows started, who, what. */
#include "view.h"

#include <cstdio>

#include "../base/terminal.h"
#include "../base/text.h"

/* Escape sequences by kind; other kinds have none. */
static const struct {
    enum happening_kind kind;
    const char *colour;
} s_colours[] = {
    {HAPPENED_BOOT,      "\x1b[1m"   },
    {HAPPENED_END,       "\x1b[1m"   },
    {HAPPENED_COMMAND,   "\x1b[1;31m"},
    {HAPPENED_UPLOAD,    "\x1b[35m"  },
    {HAPPENED_LOG,       "\x1b[2m"   },
    {HAPPENED_CALL,      "\x1b[2m"   },
    {HAPPENED_REFUSED,   "\x1b[33m"  },
    {HAPPENED_STATE,     "\x1b[36m"  },
    {HAPPENED_AGENT,     "\x1b[32m"  },
    {HAPPENED_COMPLAINT, "\x1b[33m"  },
    {HAPPENED_MESSAGE,   "\x1b[36m"  },
};

static struct view_options s_options;

static const char *colour_of(enum happening_kind kind)
{
    for (const auto &row : s_colours)
        if (row.kind == kind)
            return row.colour;
    return "";
}

static bool is_shown(const happening &what)
{
    if (what.kind == HAPPENED_LOG)
        return what.number <= s_options.log_level;
    if (what.kind == HAPPENED_CALL)
        return s_options.trace;
    return !s_options.quiet;
}

/* The number after a tag becomes 0. */
static std::string without_number(std::string text, const std::string &tag)
{
    const size_t at = text.find(tag), from = at + tag.size();

    if (at == std::string::npos)
        return text;
    return text.replace(from, text.find_first_not_of("0123456789", from) - from, "0");
}

std::string view_text(const happening &what)
{
    /* A line of the plug-in may end within a character. */
    const std::string text = text_narrow(text_wide(what.text));

    return what.kind == HAPPENED_LOG ? without_number(without_number(text, "[pid:"), "[tid:")
                                     : text;
}

/* "[warn] file.cpp:12 message" of a line of the plug-in: time, process and thread are the same on every
 * line, or printed before it. */
static std::string short_log_line(const std::string &line)
{
    const log_line parts = text_log_line(line);

    return parts.place.empty() ? line
                               : "[" + parts.level + "] " + parts.place + " " + parts.message;
}

static void show_text(const happening &what)
{
    std::string text = what.kind == HAPPENED_LOG ? short_log_line(what.text) : what.text;

    if (what.kind == HAPPENED_BOOT)
        printf("\n");
    if (!what.json.empty() && s_options.messages)
        text += "\n" + what.json;
    printf("%s%s  %-11s %s%s\n", s_options.colour ? colour_of(what.kind) : "",
           time_span(what.ms).c_str(), what.who.c_str(),
           text_replace(text, "\n", "\n              ").c_str(), s_options.colour ? "\x1b[0m" : "");
}

void view_open(const struct view_options &options)
{
    s_options = options;
}

template <typename... Members> static void show_json(const Members &...members)
{
    printf("%s\n", json_object_text<json_line>([&](json_line &writer) {
                       json_members(writer, members...);
                   }).c_str());
}

void view_start(const std::string &file, const std::string &name)
{
    terminal_reached(file);
    if (s_options.json)
        show_json("kind", "scenario", "file", file, "name", name);
    else if (!s_options.quiet)
        printf("%s%s%s\n", file.c_str(), name.empty() ? "" : ": ", name.c_str());
}

void view_happening(const happening &what, void *user)
{
    (void)user;
    terminal_reached(text_format("boot %d at ", what.boot) + time_span(what.ms));
    if (!is_shown(what))
        return;
    if (s_options.json)
        printf("%s\n",
               json_text<json_line>([&](json_line &writer) { view_put(writer, what); }).c_str());
    else
        show_text(what);
}

void view_end(const std::string &file, const std::vector<std::string> &summary,
              const std::vector<std::string> &failures)
{
    const char *red = s_options.colour ? "\x1b[1;31m" : "",
               *end = s_options.colour ? "\x1b[0m" : "";

    if (s_options.json) {
        show_json("kind", "result", "file", file, "holds", failures.empty(), "failures", failures);
        return;
    }
    if (!s_options.quiet) {
        printf("\nAt the end:\n");
        for (const std::string &line : summary)
            printf("  %s\n", line.c_str());
    }
    fflush(stdout);
    for (const std::string &failure : failures)
        fprintf(stderr, "%s%s%s\n", red, failure.c_str(), end);
    if (!failures.empty())
        fprintf(stderr, "with the plug-in's lines: %s\n",
                terminal_command("run --log info", file).c_str());
    printf("%s%s: %s%s\n", failures.empty() ? "" : red, file.c_str(),
           failures.empty() ? "everything holds"
           : failures.size() == 1
               ? "1 expectation does not hold"
               : (std::to_string(failures.size()) + " expectations do not hold").c_str(),
           failures.empty() ? "" : end);
    fflush(stdout); /* a crash in the next file must not lose this line */
}
