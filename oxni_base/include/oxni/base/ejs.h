/*
 * ".ejs" files: one JSON object a file, in a form of its own on the disk (libwdu_ejs).
 *
 * A stop of the machine at any moment leaves the old document or the new one.
 */
#ifndef OXNI_BASE_EJS_H
#define OXNI_BASE_EJS_H

#include <oxni/base/api.h>
#include <oxni/base/json.h>

/* A new document; NULL when the file is missing (silently), damaged or holds no object (logged), or
 * memory runs out. */
OXNI_API json_t *wdu_json_load_file_ejs(const char *path);

/* Replaces the file by the document, which is borrowed. Result 0 written; -1 not: what was there
 * before is still there. */
OXNI_API int wdu_json_dump_file_ejs(json_t *document, const char *path);

/* json_object_get. */
OXNI_API json_t *wdu_json_object_get_ejs(json_t *object, const char *key);

/* Gives a reference of a document back; NULL is harmless. */
OXNI_API void wdu_json_delete_ejs(json_t *document);

#endif
