/* The agent's log, one per process. Lines are written exactly as formatted, without a prefix. */
#ifndef OXNI_BASE_LOG_H
#define OXNI_BASE_LOG_H

#include <oxni/base/api.h>

/* Levels. Write a line only when oxni_log_level_get() is at least its level. */
enum oxni_log_level {
    OXNI_LOG_FATAL = 0, /* the same level as "error" */
    OXNI_LOG_ERROR = 0,
    OXNI_LOG_WARN = 1,
    OXNI_LOG_INFO = 2,
    OXNI_LOG_DEBUG = 3,
};

/* Returns the highest level that is currently written, one of enum oxni_log_level. */
OXNI_API int oxni_log_level_get(void);

/*
 * Formats one line and writes it to the log. The function does not filter by level: the caller
 * checks oxni_log_level_get() first. Lines before oxni_autolog_init reach the host's sink only.
 *
 * format   As for the Windows C runtime's printf, including %I64d and %S (wide text). The platform
 *          writes wide text as UTF-8 on every code page, so that a path in any language leaves the
 *          rest of its line intact. A missing line feed at the end is added.
 */
OXNI_API void oxni_log_output(int level, const char *format, ...) OXNI_PRINTF(2, 3);

/* Returns nonzero when the process's log is open. (The platform spells the name this way.) */
OXNI_API int oxni_log_is_regestered(void);

/*
 * Opens the process's log.
 *
 * directory  Directory of the log files, created if missing. A leading "@" is the installation
 *            directory.
 * files      Maximum number of files kept, including the current one; at least 1.
 * Result     0 opened or already open; -1 when the directory or file cannot be created: the log
 *            still counts as open, and its lines reach the host's sink only.
 */
OXNI_API int oxni_autolog_init(const char *directory, int files);

/*
 * Writes the path of the platform's base directory for logs and configuration, without a trailing
 * slash.
 *
 * Result   Nonzero on success; 0 when it is unavailable or does not fit: buffer is then empty.
 */
OXNI_API int oxni_log_dir(char *buffer, size_t size);

#endif
