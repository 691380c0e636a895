/* What the evidence of a crash consists of. */
#ifndef CRASH_INFO_H
#define CRASH_INFO_H

#include <functional>
#include <set>
#include <string>

/* Module names as the engine prints them ("nt", "mydriver"), in ascending byte order. */
typedef std::set<std::string, std::less<>> crash_module_set;

#endif
