/* Hash tables. Keys are byte strings of explicit length, copied; values are pointers. */
#ifndef OXNI_BASE_XHASH_H
#define OXNI_BASE_XHASH_H

#include <oxni/base/api.h>

typedef struct oxni_xhash oxni_xhash;

/* Frees the value of an entry. Called for NULL values too. */
typedef void (*oxni_xhash_free_fn)(void *value);

/* One entry, read-only. Borrowed from the table and valid until the entry is deleted. */
typedef struct oxni_xhash_entry {
    const void *key;
    size_t key_length; /* bytes */
    void *value;
} oxni_xhash_entry;

/*
 * Returns a new, empty table; NULL when memory runs out.
 *
 * value_free   Called for each value that the table drops by deletion, replacement or destruction.
 *              NULL when the table does not own its values.
 * flags        Reserved, 0.
 */
OXNI_API oxni_xhash *oxni_xhash_create(oxni_xhash_free_fn value_free, unsigned flags);

/* Deletes every entry and frees the table. Ignores NULL. */
OXNI_API void oxni_xhash_destroy(oxni_xhash *table);

/*
 * Looks an entry up.
 *
 * value    Receives the value, borrowed; NULL when there is no entry. May be NULL.
 * Result   0 found; -1 not found, or a null argument.
 */
OXNI_API int oxni_xhash_search(oxni_xhash *table, const void *key, size_t key_length, void **value);

/*
 * Adds an entry at the end, or replaces the value of an existing entry, which keeps its position.
 *
 * value    Stolen by a table that owns its values, also when the same pointer is inserted again.
 *          May be NULL.
 * Result   0; -1 for a null argument or when memory runs out: the table is unchanged, and the
 *          caller still owns value.
 */
OXNI_API int oxni_xhash_insert(oxni_xhash *table, const void *key, size_t key_length, void *value);

/* Deletes an entry. Result 0 deleted; -1 not found. The current entry of an iteration may be
 * deleted; oxni_xhash_next still finds its successor. */
OXNI_API int oxni_xhash_delete(oxni_xhash *table, const void *key, size_t key_length);

/* Returns the number of entries; 0 for NULL. */
OXNI_API size_t oxni_xhash_count(oxni_xhash *table);

/* Returns the first entry in insertion order, borrowed; NULL when the table is empty. */
OXNI_API const oxni_xhash_entry *oxni_xhash_first(oxni_xhash *table);

/* Returns the entry after the given one of the same table; NULL after the last. */
OXNI_API const oxni_xhash_entry *oxni_xhash_next(oxni_xhash *table, const oxni_xhash_entry *entry);

#endif
