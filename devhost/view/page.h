/*
 * A run as one page of HTML that needs nothing else: no network, no other file. What it shows is
 * the JSON in it; page.html draws it.
 */
#ifndef DEVHOST_VIEW_PAGE_H
#define DEVHOST_VIEW_PAGE_H

#include <stddef.h>

#include <string>
#include <vector>

/* The page of a replay. json: what replay_json gives. */
std::string page_of_replay(const std::string &json);

/* The page of a scenario that was just played, of everything in journal_all(). failures: what did
 * not hold. highlighted: indexes in journal_all() of the entries that stand out. */
std::string page_of_run(const std::string &file, const std::string &name,
                        const std::vector<std::string> &summary,
                        const std::vector<std::string> &failures,
                        const std::vector<size_t> &highlighted);

#endif
