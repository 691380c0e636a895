/* Strings. */
#ifndef OXNI_BASE_STR_H
#define OXNI_BASE_STR_H

#include <wchar.h>

#include <oxni/base/api.h>

/* Copies source, cut to size - 1 characters and always terminated unless size is 0. Result: the
 * length of source, so a result of size or more tells that it was cut. */
OXNI_API size_t oxni_strlcpy(char *target, const char *source, size_t size);

/* Order of two texts by byte, as strcmp; NULL is less than any text and equal to NULL. */
OXNI_API int oxni_strcmp(const char *a, const char *b);

/* Formats into buffer, always terminated unless size is 0. Result: the characters written without
 * the terminator; -1 when the text was cut. */
OXNI_API int oxni_str_snprintf(char *buffer, size_t size, const char *format, ...)
    OXNI_PRINTF(3, 4);

/* Number of characters before the first NUL, at most limit; 0 for NULL. Reads no page behind
 * either. text need not be aligned for any other use. */
OXNI_API size_t oxni_wcsnlen(const wchar_t *text, size_t limit);

/* Order of two wide texts, case-sensitive; NULL is less than any text and equal to NULL. */
OXNI_API int oxni_wcscmp(const wchar_t *a, const wchar_t *b);

/* A new UTF-16 copy of a UTF-8 text, freed with oxni_str_free; NULL for NULL, for text that is not
 * UTF-8, and when memory runs out. */
OXNI_API wchar_t *oxni_str_utf8_to_unicode(const char *text);

/* Frees a string that this header's functions made; NULL is harmless. */
OXNI_API void oxni_str_free(void *text);

#endif
