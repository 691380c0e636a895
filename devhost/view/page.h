/*
 * A run as one page of HTML that needs nothing else: no network, no other file. The page contains the
 * run as JSON; page.html draws it.
 */
#ifndef DEVHOST_VIEW_PAGE_H
#define DEVHOST_VIEW_PAGE_H

#include <cstddef>

#include <string>
#include <vector>

/* An entry of journal_all() that stands out, and its sentence. */
struct page_highlight {
    size_t index;
    std::string text;
};

/* The page of a result in JSON, of a replay or a run: docs/replay.md describes both. */
std::string page_of(const std::string &json);

/* The page of a scenario that was just played, of everything in journal_all(). failures: expectations
 * that did not hold. */
std::string page_of_run(const std::string &file, const std::string &name,
                        const std::vector<std::string> &summary,
                        const std::vector<std::string> &failures,
                        const std::vector<page_highlight> &highlights);

#endif
