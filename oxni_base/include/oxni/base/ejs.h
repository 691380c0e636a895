/*
 * ".ejs" files (libwdu_ejs): each contains one JSON object, stored in the library's own format.
 *
 * Writes are atomic: after a crash at any moment the file contains the old or the new document.
 */
#ifndef OXNI_BASE_EJS_H
#define OXNI_BASE_EJS_H

#include <oxni/base/api.h>
#include <oxni/base/json.h>

/* Returns a new document. Returns NULL when the file is missing (not logged), is corrupted or
 * contains no object (both logged), or when memory runs out. */
OXNI_API json_t *wdu_json_load_file_ejs(const char *path);

/* Replaces the file's content with the document, which is borrowed. Result 0 written; -1 failed:
 * the previous file is unchanged. */
OXNI_API int wdu_json_dump_file_ejs(json_t *document, const char *path);

/* Same as json_object_get. */
OXNI_API json_t *wdu_json_object_get_ejs(json_t *object, const char *key);

/* Releases a reference to a document. Ignores NULL. */
OXNI_API void wdu_json_delete_ejs(json_t *document);

#endif
