/* Compares, counts and prints. */
#include "conformance.h"

#include <cstdio>

#include <algorithm>

void conformance::compare(const char *call, const char *when, uint64_t answer, numbers permitted,
                          enum promise source)
{
    const bool fits = std::find(permitted.begin(), permitted.end(), answer) != permitted.end();
    char line[512];
    int length;

    checks++;
    if (source != OPEN && !fits)
        differences++;
    length = snprintf(line, sizeof(line), "%s %s: %s: %llu",
                      source == OPEN ? "open" : (fits ? "ok" : "DIFFERS"), call, when,
                      static_cast<unsigned long long>(answer));
    for (const uint64_t one : permitted)
        if (!fits && length > 0 && static_cast<size_t>(length) < sizeof(line))
            length += snprintf(line + length, sizeof(line) - static_cast<size_t>(length), "%s%llu",
                               one == *permitted.begin() ? ", expected " : " or ",
                               static_cast<unsigned long long>(one));
    print(line, user);
}

DWORD error_if(bool failed)
{
    return failed ? GetLastError() : ERROR_SUCCESS;
}

void check_all(conformance &run)
{
    check_event_log(run);
    check_processes(run);
    check_token(run);
    check_services(run);
    check_registry(run);
    check_files(run);
    check_searches(run);
    check_streams(run);
    check_texts_and_times(run);
    check_modules(run);
    check_engine(run);
}
