/* Strings. */
#ifndef OXNI_BASE_STR_H
#define OXNI_BASE_STR_H

#include <wchar.h>

#include <oxni/base/api.h>

/* Copies source, truncated to size - 1 characters; terminates target unless size is 0. Returns the
 * length of source: a result of size or more means that the copy was truncated. */
OXNI_API size_t oxni_strlcpy(char *target, const char *source, size_t size);

/* Compares two texts by byte, as strcmp. NULL is less than any text and equal to NULL. */
OXNI_API int oxni_strcmp(const char *a, const char *b);

/* Formats into buffer; terminates it unless size is 0. Returns the number of characters written
 * without the terminator; -1 when the text was truncated. */
OXNI_API int oxni_str_snprintf(char *buffer, size_t size, const char *format, ...)
    OXNI_PRINTF(3, 4);

/* Returns the number of characters before the first NUL, at most limit; 0 for NULL. Reads no page
 * after the NUL or the limit. text need not be aligned. */
OXNI_API size_t oxni_wcsnlen(const wchar_t *text, size_t limit);

/* Compares two wide texts, case-sensitive. NULL is less than any text and equal to NULL. */
OXNI_API int oxni_wcscmp(const wchar_t *a, const wchar_t *b);

/* Returns a new UTF-16 copy of a UTF-8 text, to be freed with oxni_str_free. Returns NULL for NULL,
 * for invalid UTF-8, and when memory runs out. */
OXNI_API wchar_t *oxni_str_utf8_to_unicode(const char *text);

/* Frees a string that a function of this header returned. Ignores NULL. */
OXNI_API void oxni_str_free(void *text);

#endif
