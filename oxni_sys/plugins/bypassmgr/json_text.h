/* JSON values as one line of text, in memory and as the whole message of a log line. */
#ifndef JSON_TEXT_H
#define JSON_TEXT_H

#include <oxni/base/json.h>

#include "bypass_log.h"

/*
 * A JSON value on one line, separators ", " and ": ".
 *
 * Result   New text, freed with json_text_free. NULL when memory runs out or json is NULL.
 */
char *json_text_dump(const json_t *json);

/* Frees text of json_dumps or json_text_dump; NULL is harmless. */
void json_text_free(char *text);

/* Serialises only when the level is on. */
#define JSON_TEXT_LOG(log_line, level, json)                                                       \
    do {                                                                                           \
        if (oxni_log_level_get() >= (level)) {                                                     \
            char *json_text_ = json_text_dump(json);                                               \
            if (json_text_ != NULL)                                                                \
                log_line("%s", json_text_);                                                        \
            json_text_free(json_text_);                                                            \
        }                                                                                          \
    } while (0)

#define LOG_INFO_JSON(json)  JSON_TEXT_LOG(LOG_INFO, OXNI_LOG_INFO, json)
#define LOG_DEBUG_JSON(json) JSON_TEXT_LOG(LOG_DEBUG, OXNI_LOG_DEBUG, json)

#endif
