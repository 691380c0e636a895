/*
 * Host interface of liboxnibase: directories, clock, log, complaints and the allocator. Plug-ins
 * never include this header.
 *
 * All state is process-wide. Call the functions on the host's thread, outside callbacks unless a
 * declaration states otherwise.
 */
#ifndef OXNIH_BASE_HOST_H
#define OXNIH_BASE_HOST_H

#include <windows.h>

#include <oxni/base/api.h>

/* Directories of the run. Paths are UTF-8, absolute and copied. */

/* Sets the installation directory, "@". */
OXNI_API void oxnih_set_install_dir(const char *path);
/* Sets the result of oxni_log_dir; NULL makes it fail. */
OXNI_API void oxnih_set_log_dir(const char *path);
/* Sets the result of oxni_process_path; NULL restores the real executable. */
OXNI_API void oxnih_set_process_path(const char *path);

/* Clock. Real until oxnih_clock_simulate is called. */

/* Switches to simulated time and sets the UTC file time and the milliseconds since Windows
 * started. */
OXNI_API void oxnih_clock_simulate(uint64_t now_100ns, uint64_t tick_ms);
/* Switches to the machine's clock; ticks start at tick_base_ms. */
OXNI_API void oxnih_clock_real(uint64_t tick_base_ms);
/* Returns nonzero when time is simulated. */
OXNI_API int oxnih_clock_is_simulated(void);
/* Returns the current UTC file time. */
OXNI_API uint64_t oxnih_clock_now_100ns(void);
/* Returns the milliseconds since Windows started. */
OXNI_API uint64_t oxnih_clock_tick_ms(void);
/* Simulated: advances the wall clock and the ticks. Real: sleeps. */
OXNI_API void oxnih_clock_advance(uint64_t ms);
/* Simulated: sets the wall clock and keeps the ticks, as a user or a time service does. Real: does
 * nothing. */
OXNI_API void oxnih_clock_set_wall(uint64_t now_100ns);
/* Sets the time zone of the conversions below and in oxni/base/time.h; copied. NULL restores the
 * process's own. */
OXNI_API void oxnih_clock_set_zone(const TIME_ZONE_INFORMATION *zone);
/* FileTimeToLocalFileTime and LocalFileTimeToFileTime in that zone, with the current bias. Same
 * result as those functions. */
OXNI_API BOOL oxnih_filetime_to_local(const FILETIME *utc, FILETIME *local);
OXNI_API BOOL oxnih_local_to_filetime(const FILETIME *local, FILETIME *utc);

/* Log. */

/* line is the formatted line with its line feed, borrowed for the call. */
typedef void (*oxnih_log_sink_fn)(int level, const char *line, void *user);
OXNI_API void oxnih_log_set_sink(oxnih_log_sink_fn sink, void *user);
/* Sets the result of oxni_log_level_get, one of enum oxni_log_level. Initially info. */
OXNI_API void oxnih_log_set_level(int level);
/* Closes the log, so that the next agent process opens its own. */
OXNI_API void oxnih_log_close(void);

/* Complaints report violations of the platform's contract. */

/* text is one sentence without a line feed. May be called from inside a callback. */
typedef void (*oxnih_complaint_fn)(const char *text, void *user);
OXNI_API void oxnih_set_complaint(oxnih_complaint_fn fn, void *user);
/* Reports a complaint; for the platform's libraries. Prints to stderr when no function is set. */
OXNI_API void oxnih_complain(const char *format, ...) OXNI_PRINTF(1, 2);

/* End of the agent's process. */

/* Called instead of ExitProcess by the allocation guard and after the complaint about a bad free.
 * It may throw to leave the callback and must not return. */
typedef void (*oxnih_exit_fn)(void *user);
OXNI_API void oxnih_set_exit(oxnih_exit_fn fn, void *user);
/* Returns nonzero when that function was called since the previous call of this one: an exception
 * that leaves a callback is then the host's. For the platform's libraries. */
OXNI_API int oxnih_exit_taken(void);

/* Memory. */

enum oxnih_memory_mode {
    OXNIH_MEMORY_PLAIN = 0,
    /* Each block ends at an inaccessible page, and freed blocks become inaccessible. Each block
     * uses pages of its own: suitable for about ten thousand live blocks. */
    OXNIH_MEMORY_GUARD = 1,
    /* The same without a Windows call per block, for hosts that run many agents. A freed block
     * stays readable, filled with a pattern; oxnih_memory_drop_all reports writes to it. Blocks
     * larger than a page, and those after the 16,384th of an agent, are guarded. */
    OXNIH_MEMORY_FENCE = 2,
};

typedef struct oxnih_memory_stats {
    uint64_t live_blocks;
    uint64_t live_bytes;  /* as requested */
    uint64_t allocations; /* since the start, including failed ones; a resize counts as one */
    uint64_t failed;      /* allocations that failed by fault injection */
} oxnih_memory_stats;

/* site is "module+0xoffset" of the caller. */
typedef void (*oxnih_leak_fn)(const char *site, uint64_t blocks, uint64_t bytes, void *user);

/* Sets the mode of new blocks. Live blocks keep the mode in which they were allocated. */
OXNI_API void oxnih_memory_set_mode(enum oxnih_memory_mode mode);
/* Makes the nth allocation from now on fail (1 is the next one); forever nonzero: that one and all
 * later ones. 0: none. */
OXNI_API void oxnih_memory_fail(uint64_t nth, int forever);
OXNI_API void oxnih_memory_get_stats(oxnih_memory_stats *stats);
/* Calls fn for each site that allocated live blocks, most bytes first. */
OXNI_API void oxnih_memory_leaks(oxnih_leak_fn fn, void *user);
/* The same for unreachable guarded blocks. A block is reachable when the data of plugin (the
 * address of its module), the data of a transparent library (oxnih_memory_see_through), a heap of
 * the process or a reachable block points into it. Outside callbacks; takes milliseconds. */
OXNI_API void oxnih_memory_lost(const void *plugin, oxnih_leak_fn fn, void *user);
/* Adds a heap of the host to that search: each_block calls fn for each allocated block. One heap
 * per process; NULL: none. */
typedef void (*oxnih_range_fn)(const void *begin, size_t bytes, void *user);
OXNI_API void oxnih_memory_search_also(void (*each_block)(oxnih_range_fn fn, void *user));
/* Frees all live blocks, as the end of the agent's process does. They must not be used
 * afterwards. */
OXNI_API void oxnih_memory_drop_all(void);
/* Makes the library that contains address transparent: its allocations are attributed to its
 * caller. Each of the platform's libraries calls it once. */
OXNI_API void oxnih_memory_see_through(const void *address);
/* Enables or disables the search for that caller; initially enabled. The search walks the stack at
 * each allocation of a transparent library and takes most of its time. 0: attributes those
 * allocations to the library. */
OXNI_API void oxnih_memory_find_sites(int on);

/* Identifiers. */

/* Makes oxni_uuid_create count up from start instead of calling Windows; 0 restores Windows. */
OXNI_API void oxnih_uuid_fix(uint32_t start);

#endif
