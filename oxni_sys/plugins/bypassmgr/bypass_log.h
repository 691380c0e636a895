/*
 * Log lines of the plug-in: "[time] [word] [pid:n] [tid:n] [vkl] [file:line] message". A line is
 * formatted only when the log's level asks for it.
 */
#ifndef BYPASS_LOG_H
#define BYPASS_LOG_H

#include <windows.h>

#include <oxni/base/log.h>

#include "time_text.h"

/* Whether this source file has made sure that the log is open. */
[[maybe_unused]] static bool s_log_ready = false;

/* Opens the host's log unless it is open; sets *ready. */
void bypass_log_open(bool *ready);

/* The part of __FILE__ after its last slash or backslash. */
const char *bypass_log_base_name(const char *file);

#define BYPASS_LOG_LINE(level, word, format, ...)                                                  \
    do {                                                                                           \
        if (oxni_log_level_get() >= (level)) {                                                     \
            char log_time_[TIME_TEXT_CHARS];                                                       \
            bypass_log_open(&s_log_ready);                                                         \
            time_text_now(log_time_, sizeof(log_time_));                                           \
            oxni_log_output((level), "[%s] [" word "] [pid:%d] [tid:%d] %s [%s:%d] " format "\n",  \
                            log_time_, (int)GetCurrentProcessId(), (int)GetCurrentThreadId(),      \
                            "[vkl]", bypass_log_base_name(__FILE__), __LINE__, ##__VA_ARGS__);     \
        }                                                                                          \
    } while (0)

#define LOG_ERROR(...) BYPASS_LOG_LINE(OXNI_LOG_ERROR, "error", __VA_ARGS__)
#define LOG_WARN(...)  BYPASS_LOG_LINE(OXNI_LOG_WARN, "warn", __VA_ARGS__)
#define LOG_INFO(...)  BYPASS_LOG_LINE(OXNI_LOG_INFO, "info", __VA_ARGS__)
#define LOG_DEBUG(...) BYPASS_LOG_LINE(OXNI_LOG_DEBUG, "debug", __VA_ARGS__)

#endif
