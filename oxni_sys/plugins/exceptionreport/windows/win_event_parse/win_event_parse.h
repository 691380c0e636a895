/*
 * Reads the System event log from its newest record back to the first one that the caller expects.
 *
 * Everything here is stateless and runs on the caller's thread.
 */
#ifndef WIN_EVENT_PARSE_H
#define WIN_EVENT_PARSE_H

#include <string>
#include <vector>

#include <stddef.h>
#include <stdint.h>
#include <windows.h>

/* "12/31/2106 23:59:59" and its terminator, with room for any number that Windows may return. */
#define EVENT_TIME_TEXT_CHARS 24

/* Identifies an expected event. */
struct event_key {
    uint32_t event_id;       /* low 16 bits of a record's EventID; ordered as a signed number */
    const wchar_t *provider; /* its source name, borrowed; NULL in a map stands for any */
};

/*
 * Orders the entries of a map that has at most one entry per event id. Of two keys with one id,
 * differing provider texts make either less than the other: a look-up then finds an entry exactly
 * when its provider is NULL or equal in text.
 */
struct event_key_less {
    bool operator()(const event_key &a, const event_key &b) const;
};

/* The events that a search expects. A constant array: a look-up allocates nothing. */
struct expected_event_map {
    const event_key *keys; /* borrowed; ascending by event id, at most one entry per id */
    size_t count;
};

/* A record that was found. The caller passes it zeroed and empty for its first search. */
struct event_info {
    char time_text[EVENT_TIME_TEXT_CHARS]; /* TimeGenerated as local time, month/day/year */
    uint32_t time_generated;               /* seconds since 1970-01-01 00:00 UTC */
    uint32_t event_id;                     /* low 16 bits */
    std::vector<std::wstring> strings;     /* insertion strings, of a blue-screen record only */
};

class win_event_parse
{
  public:
    /*
     * Finds the newest record that the map expects. Enables "SeSecurityPrivilege" for the time of
     * the call, if the process has it.
     *
     * info      Filled when a record is found; strings are appended as far as memory goes. Otherwise
     *           untouched.
     * Result    0 found, or the log is empty: info is untouched then, too; 1 the log cannot be
     *           opened; 2 no memory for a record; 3 a read failed; ERROR_INVALID_DATA (13) the log
     *           was read to its end without a match.
     */
    uint32_t get_crash_info(event_info *info, const expected_event_map &expected) const;
};

/*
 * Scans log records as Windows delivers them, back to back, newest first.
 *
 * buffer       size valid bytes; need not be aligned. A record that does not end inside is the last
 *              one scanned; a name that does not end inside its record is skipped with a warning.
 * event_id, provider, record
 *              Written only on a match; the pointers point into buffer.
 * Result       0 matched; ERROR_INVALID_DATA (13) no match, or buffer is NULL.
 */
uint32_t find_expected_event(const uint8_t *buffer, uint32_t size, uint32_t *event_id,
                             const wchar_t **provider, const uint8_t **record,
                             const expected_event_map &expected);

/* Seconds since 1970-01-01 00:00 UTC as a UTC file time; a NULL filetime is harmless. */
void unix_time_to_filetime(uint32_t seconds, FILETIME *filetime);

/* The same seconds as local time, "%d/%d/%d %.2d:%.2d:%.2d" from the month on, by the bias in force
 * now. buffer: EVENT_TIME_TEXT_CHARS. Result: of the formatting, the number of characters. */
int format_event_time(uint32_t seconds, char *buffer);

#endif
