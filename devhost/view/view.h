/* What a person, or a program, sees of a run while it is played. */
#ifndef DEVHOST_VIEW_H
#define DEVHOST_VIEW_H

#include <string>
#include <vector>

#include "../base/text.h"
#include "../base/text_json.h"
#include "../scenario/journal.h"

struct view_options {
    int log_level; /* log lines of the plug-in up to this enum oxni_log_level are shown; -1: none */
    bool json;     /* one JSON object a line instead of text */
    bool trace;    /* calls are shown */
    bool messages; /* the JSON of a message is printed below its line */
    bool colour;
    bool quiet; /* only failures and the last line */
};

void view_open(const struct view_options &options);

/* A scenario begins. */
void view_start(const std::string &file, const std::string &name);

/* A journal_view_fn. */
void view_happening(const happening &what, void *user);

/* The end of a scenario: the state of each product and its reason, and failed expectations. */
void view_end(const std::string &file, const std::vector<std::string> &summary,
              const std::vector<std::string> &failures);

/* The text of a happening as valid UTF-8. The ids of process and thread in a log line are 0, so that equal
 * runs give equal bytes. */
std::string view_text(const happening &what);

/* Writes a happening as a JSON object. */
template <class Writer> void view_put(Writer &writer, const happening &what)
{
    const json_scope object(writer);

    json_members(writer, "boot", what.boot, "ms", what.ms, "time", time_iso(what.now, true));
    json_members(writer, "kind", journal_kind_name(what.kind), "who", what.who, "text",
                 view_text(what));
    if (!what.whom.empty())
        json_member(writer, "whom", what.whom);
    if (!what.json.empty())
        json_member_as_is(writer, "message", what.json);
}

/*
 * page.cpp: a run as one page of HTML that needs nothing else: no network, no other file. The page contains
 * the run as JSON; page.html draws it.
 */

/* An entry of journal_all() that stands out, and its sentence. */
struct page_highlight {
    size_t index;
    std::string text;
};

/* The page of a result in JSON, of a replay or a run: docs/replay.md describes both. */
std::string page_of(const std::string &json);

/* Writes the members "decisions", "decision_texts" and "timeline": everything in journal_all(). */
void page_put_timeline(json_lines &writer, const std::vector<page_highlight> &highlights);

/* The page of a scenario that was just played, of everything in journal_all(). failures: expectations
 * that did not hold. */
std::string page_of_run(const std::string &file, const std::string &name,
                        const std::vector<std::string> &summary,
                        const std::vector<std::string> &failures,
                        const std::vector<page_highlight> &highlights);

#endif
