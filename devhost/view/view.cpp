/* The timeline on the console: time since Windows started, who, what. */
#include "view.h"

#include <stdio.h>

#include "../base/text.h"

/* Escape sequences by kind; none for the usual ones. */
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

std::string view_json(const happening &what)
{
    return text_format("{\"boot\": %d, \"ms\": %llu, \"time\": \"%s\", \"kind\": \"%s\", "
                       "\"who\": ",
                       what.boot, static_cast<unsigned long long>(what.ms),
                       time_iso(what.now, true).c_str(), journal_kind_name(what.kind)) +
           text_quoted(what.who) + ", \"text\": " +
           /* A line of the plug-in may be cut within a character; JSON is whole. */
           text_quoted(text_narrow(text_wide(what.text))) +
           (what.whom.empty() ? "" : ", \"whom\": " + text_quoted(what.whom)) +
           (what.json.empty() ? "" : ", \"message\": " + what.json) + "}";
}

/* "[warn] file.cpp:12 message" of a line of the plug-in: when, process and thread are the same on
 * every line, or stand in front of it already. */
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

void view_start(const std::string &file, const std::string &name)
{
    if (s_options.json)
        printf("{\"kind\": \"scenario\", \"file\": %s, \"name\": %s}\n", text_quoted(file).c_str(),
               text_quoted(name).c_str());
    else if (!s_options.quiet)
        printf("%s%s%s\n", file.c_str(), name.empty() ? "" : ": ", name.c_str());
}

void view_happening(const happening &what, void *user)
{
    (void)user;
    if (!is_shown(what))
        return;
    if (s_options.json)
        printf("%s\n", view_json(what).c_str());
    else
        show_text(what);
}

void view_end(const std::string &file, const std::vector<std::string> &summary,
              const std::vector<std::string> &failures)
{
    if (s_options.json) {
        printf("{\"kind\": \"result\", \"file\": %s, \"holds\": %s, \"failures\": [",
               text_quoted(file).c_str(), failures.empty() ? "true" : "false");
        for (size_t i = 0; i < failures.size(); i++)
            printf("%s%s", i == 0 ? "" : ", ", text_quoted(failures[i]).c_str());
        printf("]}\n");
        return;
    }
    if (!s_options.quiet) {
        printf("\nAt the end:\n");
        for (const std::string &line : summary)
            printf("  %s\n", line.c_str());
    }
    fflush(stdout);
    for (const std::string &failure : failures)
        fprintf(stderr, "%s\n", failure.c_str());
    if (!failures.empty())
        fprintf(stderr, "again, with the plug-in's lines: oxni_devhost run --log info %s\n",
                file.c_str());
    printf("%s: %s\n", file.c_str(),
           failures.empty()
               ? "everything holds"
               : text_format("%u expectations do not hold", static_cast<unsigned>(failures.size()))
                     .c_str());
    fflush(stdout); /* a crash in the next file must not take this line with it */
}
