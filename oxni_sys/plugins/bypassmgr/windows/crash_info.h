/* Shared types: the evidence of a crash, and the crash that was blamed. */
#ifndef CRASH_INFO_H
#define CRASH_INFO_H

#include <functional>
#include <set>
#include <string>

/* Module names as the engine prints them ("nt", "mydriver"), in ascending byte order. */
typedef std::set<std::string, std::less<>> crash_module_set;

#define CRASH_TEXT_CHARS 260

/* The crash of the last run, as a product's record keeps it; texts are empty without one. */
struct crash_info {
    char crash_path[CRASH_TEXT_CHARS];        /* of the dump that was analysed */
    char crash_create_time[CRASH_TEXT_CHARS]; /* of the dump, local date and time */
    char crash_module[CRASH_TEXT_CHARS];      /* the registered module; empty when none is blamed */
};

#endif
