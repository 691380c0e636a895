/* Local date and time as text. Stateless; any thread of the host. */
#ifndef TIME_TEXT_H
#define TIME_TEXT_H

#include <stddef.h>
#include <stdint.h>

/* "%d-%02d-%02d %02d:%02d:%02d" fits for any year, terminator included. */
#define TIME_TEXT_CHARS 32

/*
 * Local date and time of a moment; "1970-01-01 00:00:00" when it cannot be converted.
 *
 * seconds  Since 1970-01-01 00:00 UTC.
 * buffer   size characters; the text is truncated and terminated in one below TIME_TEXT_CHARS.
 */
void time_text_local(int64_t seconds, char *buffer, size_t size);

/* The same for the present moment. */
void time_text_now(char *buffer, size_t size);

#endif
