/*
 * The reference platform's other side: what a host of plug-ins sets and sees of liboxnibase. A
 * plug-in never includes this.
 *
 * All state is the process's. Functions are called on the host's one thread, outside callbacks
 * unless said otherwise.
 */
#ifndef OXNIH_BASE_HOST_H
#define OXNIH_BASE_HOST_H

#include <windows.h>

#include <oxni/base/api.h>

/* Folders of the run. UTF-8, absolute; copied. */

/* "@": the installation folder. */
OXNI_API void oxnih_set_install_dir(const char *path);
/* What oxni_log_dir answers; NULL makes it fail. */
OXNI_API void oxnih_set_log_dir(const char *path);
/* What oxni_process_path answers; NULL goes back to the real executable. */
OXNI_API void oxnih_set_process_path(const char *path);

/* Clock. Real until oxnih_clock_simulate is called. */

/* Simulated from here on: UTC file time now, and milliseconds since Windows started. */
OXNI_API void oxnih_clock_simulate(uint64_t now_100ns, uint64_t tick_ms);
/* The machine's clock; the ticks count on from tick_base_ms. */
OXNI_API void oxnih_clock_real(uint64_t tick_base_ms);
/* Nonzero when simulated. */
OXNI_API int oxnih_clock_is_simulated(void);
/* UTC file time now. */
OXNI_API uint64_t oxnih_clock_now_100ns(void);
/* Milliseconds since Windows started. */
OXNI_API uint64_t oxnih_clock_tick_ms(void);
/* Simulated: moves both clocks on. Real: sleeps. */
OXNI_API void oxnih_clock_advance(uint64_t ms);
/* Simulated: sets the wall clock without touching the ticks, as a user or time service does. */
OXNI_API void oxnih_clock_set_wall(uint64_t now_100ns);
/* The time zone whose rules hold; copied. NULL: the process's own. Every conversion below and of
 * oxni/base/time.h follows it. */
OXNI_API void oxnih_clock_set_zone(const TIME_ZONE_INFORMATION *zone);
/* FileTimeToLocalFileTime and LocalFileTimeToFileTime in that zone: the bias in force *now*. Result
 * as theirs. */
OXNI_API BOOL oxnih_filetime_to_local(const FILETIME *utc, FILETIME *local);
OXNI_API BOOL oxnih_local_to_filetime(const FILETIME *local, FILETIME *utc);

/* Log. */

/* line: as formatted, with its line feed; borrowed for the call. */
typedef void (*oxnih_log_sink_fn)(int level, const char *line, void *user);
OXNI_API void oxnih_log_set_sink(oxnih_log_sink_fn sink, void *user);
/* What oxni_log_level_get answers; enum oxni_log_level. Info at start. */
OXNI_API void oxnih_log_set_level(int level);
/* Closes the log, so that the next agent opens its own. */
OXNI_API void oxnih_log_close(void);

/* Complaints: something broke the platform's rules. */

/* text: one sentence without a line feed. May be called from inside a callback. */
typedef void (*oxnih_complaint_fn)(const char *text, void *user);
OXNI_API void oxnih_set_complaint(oxnih_complaint_fn fn, void *user);
/* Reports one; for the platform's own libraries. Without a receiver it goes to stderr. */
OXNI_API void oxnih_complain(const char *format, ...) OXNI_PRINTF(1, 2);

/* End of the process by the allocation guard. */

/* Runs in place of ExitProcess(0), and after a bad free, which was complained about; it may throw
 * to leave the callback, and must not return. */
typedef void (*oxnih_exit_fn)(void *user);
OXNI_API void oxnih_set_exit(oxnih_exit_fn fn, void *user);
/* Nonzero when that function has been called since the last time this one was asked: what leaves a
 * callback then is the host's own way out. For the platform's own libraries. */
OXNI_API int oxnih_exit_taken(void);

/* Memory. */

enum oxnih_memory_mode {
    OXNIH_MEMORY_PLAIN = 0,
    /* Each block ends at an inaccessible page; freed ones stay so. Good for some ten thousand live
     * blocks: each one takes pages of its own. */
    OXNIH_MEMORY_GUARD = 1,
    /* The same without a call of Windows for a block, for hosts of many agents: a freed block can be
     * read, as a pattern, and writing to it is reported by oxnih_memory_drop_all. Blocks of more
     * than a page, and those beyond the 16,384th of an agent, are guarded. */
    OXNIH_MEMORY_FENCE = 2,
};

typedef struct oxnih_memory_stats {
    uint64_t live_blocks;
    uint64_t live_bytes;  /* as asked for */
    uint64_t allocations; /* ever, the failed ones included; growing counts as one */
    uint64_t failed;      /* of them, made to fail */
} oxnih_memory_stats;

/* site: "module+0xoffset" of the caller. */
typedef void (*oxnih_leak_fn)(const char *site, uint64_t blocks, uint64_t bytes, void *user);

/* For blocks made from here on; blocks of the other mode may still live. */
OXNI_API void oxnih_memory_set_mode(enum oxnih_memory_mode mode);
/* The nth allocation from here on fails (1 is the next), once or it and all later ones. 0: none. */
OXNI_API void oxnih_memory_fail(uint64_t nth, int forever);
/* That one too, once, until the next call of the function above. */
OXNI_API void oxnih_memory_fail_also(uint64_t nth);
OXNI_API void oxnih_memory_get_stats(oxnih_memory_stats *stats);
/* Calls fn for each place that live blocks came from, most bytes first. */
OXNI_API void oxnih_memory_leaks(oxnih_leak_fn fn, void *user);
/* The same for guarded blocks that nothing points to any more: no data of plugin (the address of
 * its module) or of the libraries seen through, no heap of the process, no block that is pointed to
 * itself. Outside callbacks; takes milliseconds. */
OXNI_API void oxnih_memory_lost(const void *plugin, oxnih_leak_fn fn, void *user);
/* A heap of the host in which such pointers are looked for, too: each_block calls fn for each block
 * that is given out. One heap a process; NULL: none. */
typedef void (*oxnih_range_fn)(const void *begin, size_t bytes, void *user);
OXNI_API void oxnih_memory_search_also(void (*each_block)(oxnih_range_fn fn, void *user));
/* Frees every live block, as the end of the agent's process does. Nothing may use one
 * afterwards. */
OXNI_API void oxnih_memory_drop_all(void);
/* Blocks asked for by the library that holds that address are booked on its caller instead; for the
 * platform's own libraries, once each. */
OXNI_API void oxnih_memory_see_through(const void *address);
/* Whether that caller is looked for, which is so at start: it walks the stack at each allocation of
 * such a library and takes most of its time. 0: they are booked on the library. */
OXNI_API void oxnih_memory_find_sites(int on);

/* Identifiers. */

/* From here on oxni_uuid_create counts up from a fixed start instead of asking Windows; 0 asks
 * Windows again. */
OXNI_API void oxnih_uuid_fix(uint32_t start);

#endif
