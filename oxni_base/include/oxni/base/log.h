/* The agent's log. One log a process; a line is written as it is formatted, nothing is added. */
#ifndef OXNI_BASE_LOG_H
#define OXNI_BASE_LOG_H

#include <oxni/base/api.h>

/* Levels: a line is wanted when oxni_log_level_get() is at least its level. */
enum oxni_log_level {
    OXNI_LOG_FATAL = 0, /* shared by the words "fatal" and "error" */
    OXNI_LOG_ERROR = 0,
    OXNI_LOG_WARN = 1,
    OXNI_LOG_INFO = 2,
    OXNI_LOG_DEBUG = 3,
};

/* The highest level that is written at present, one of enum oxni_log_level. */
OXNI_API int oxni_log_level_get(void);

/*
 * Formats one line and writes it to the log. The caller has asked oxni_log_level_get() before; the
 * line is written whatever its level. Lines before oxni_autolog_init reach the host's sink only.
 *
 * format   As for the Windows C runtime's printf, %I64d and %S (a wide text) included. The platform
 *          writes wide texts as UTF-8, whatever the machine's code page, so that a path in any
 *          language leaves the rest of its line intact. A line that does not end in a line feed
 *          gets one.
 */
OXNI_API void oxni_log_output(int level, const char *format, ...) OXNI_PRINTF(2, 3);

/* Nonzero when the process's log is open. (The name is the platform's.) */
OXNI_API int oxni_log_is_regestered(void);

/*
 * Opens the process's log.
 *
 * directory  Where the log files lie; a leading "@" is the installation folder. Made if missing.
 * files      How many files are kept at most, the one being written included; at least 1.
 * Result     0 opened, or open already; -1 the folder or file cannot be made: the log counts as
 *            open all the same, its lines reach the host's sink only.
 */
OXNI_API int oxni_autolog_init(const char *directory, int files);

/*
 * The platform's base folder for logs and configuration, without a trailing slash.
 *
 * Result   Nonzero on success. 0 when it is not available or does not fit: buffer is empty then.
 */
OXNI_API int oxni_log_dir(char *buffer, size_t size);

#endif
