/* What a person, or a machine, is shown of a run while it goes. */
#ifndef DEVHOST_VIEW_H
#define DEVHOST_VIEW_H

#include <string>
#include <vector>

#include "../scenario/journal.h"

struct view_options {
    int log_level; /* plug-in lines up to this enum oxni_log_level are shown; -1: none */
    bool json;     /* one JSON object a line in place of text */
    bool trace;    /* calls are shown */
    bool messages; /* the JSON of messages stands below its line */
    bool colour;
    bool quiet; /* nothing but failures and the last line */
};

void view_open(const struct view_options &options);

/* A scenario begins. */
void view_start(const std::string &file, const std::string &name);

/* A happening as a JSON object on one line. */
std::string view_json(const happening &what);

/* A journal_view_fn. */
void view_happening(const happening &what, void *user);

/* The end of a scenario: who is in which state and why, and what did not hold. */
void view_end(const std::string &file, const std::vector<std::string> &summary,
              const std::vector<std::string> &failures);

#endif
