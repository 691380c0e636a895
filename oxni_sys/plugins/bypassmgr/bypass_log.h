/*
 * Log lines of the plug-in, and the small steps that several of its files need: time text, JSON
 * text, and the path of a file in the data folder.
 *
 * A line is "[time] [word] [pid:n] [tid:n] [vkl] [file:line] message". It is formatted only when
 * the log's level asks for it.
 */
#ifndef BYPASS_LOG_H
#define BYPASS_LOG_H

#include <windows.h>

#include <oxni/base/json.h>
#include <oxni/base/log.h>

/* "%d-%02d-%02d %02d:%02d:%02d" fits for any year. */
#define BYPASS_TIME_TEXT_CHARS 32
/* A path of the platform, terminator included. */
#define BYPASS_PATH_CHARS 260

/* The file of the core's state, the dump record and the upload history lie here. */
#define BYPASS_DATA_FOLDER "@/../var/bypass_mgr/"
/* drwxrwxr-x */
#define BYPASS_FOLDER_MODE 0775

/* Whether this source file has made sure already that the log is open. */
[[maybe_unused]] static bool s_log_ready = false;

/* Opens the host's log if nobody has; sets *ready. */
void bypass_log_open(bool *ready);

/* The part of __FILE__ behind its last slash or backslash. */
const char *bypass_log_base_name(const char *file);

/*
 * Local date and time of a moment, or "1970-01-01 00:00:00" when it cannot be converted.
 *
 * seconds  Since 1970-01-01 00:00 UTC.
 * buffer   At least BYPASS_TIME_TEXT_CHARS; cut and terminated if it is smaller.
 */
void bypass_time_text(int64_t seconds, char *buffer, size_t size);

/* The same for now. */
void bypass_log_now(char *buffer, size_t size);

/* A JSON value on one line, separators ", " and ": "; new, freed with bypass_json_text_free. NULL
 * when memory runs out or json is NULL. */
char *bypass_json_text(const json_t *json);

/* NULL is harmless. */
void bypass_json_text_free(char *text);

/*
 * Makes the data folder if it is missing and resolves the path of a file in it.
 *
 * relative  The file's path, beginning with BYPASS_DATA_FOLDER.
 * buffer    BYPASS_PATH_CHARS; empty when the path cannot be resolved.
 */
void bypass_data_path(const char *relative, char *buffer, size_t size);

#define BYPASS_LOG_LINE(level, word, format, ...)                                                  \
    do {                                                                                           \
        if (oxni_log_level_get() >= (level)) {                                                     \
            char log_time_[BYPASS_TIME_TEXT_CHARS];                                                \
            bypass_log_open(&s_log_ready);                                                         \
            bypass_log_now(log_time_, sizeof(log_time_));                                          \
            oxni_log_output((level), "[%s] [" word "] [pid:%d] [tid:%d] %s [%s:%d] " format "\n",  \
                            log_time_, (int)GetCurrentProcessId(), (int)GetCurrentThreadId(),      \
                            "[vkl]", bypass_log_base_name(__FILE__), __LINE__, ##__VA_ARGS__);     \
        }                                                                                          \
    } while (0)

#define LOG_ERROR(...) BYPASS_LOG_LINE(OXNI_LOG_ERROR, "error", __VA_ARGS__)
#define LOG_WARN(...)  BYPASS_LOG_LINE(OXNI_LOG_WARN, "warn", __VA_ARGS__)
#define LOG_INFO(...)  BYPASS_LOG_LINE(OXNI_LOG_INFO, "info", __VA_ARGS__)
#define LOG_DEBUG(...) BYPASS_LOG_LINE(OXNI_LOG_DEBUG, "debug", __VA_ARGS__)

/* A JSON value on one line as the whole message. */
#define BYPASS_LOG_JSON(log_line, level, json)                                                     \
    do {                                                                                           \
        if (oxni_log_level_get() >= (level)) {                                                     \
            char *json_text_ = bypass_json_text(json);                                             \
            if (json_text_ != NULL)                                                                \
                log_line("%s", json_text_);                                                        \
            bypass_json_text_free(json_text_);                                                     \
        }                                                                                          \
    } while (0)

#define LOG_INFO_JSON(json)  BYPASS_LOG_JSON(LOG_INFO, OXNI_LOG_INFO, json)
#define LOG_DEBUG_JSON(json) BYPASS_LOG_JSON(LOG_DEBUG, OXNI_LOG_DEBUG, json)

#endif
