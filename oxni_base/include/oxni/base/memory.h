/*
 * The agent's single allocator, and the allocation guard.
 *
 * An allocation of 0 bytes returns a distinct block. oxni_free_ frees the blocks of all functions
 * below. Jansson and the platform's string functions use this allocator too.
 */
#ifndef OXNI_BASE_MEMORY_H
#define OXNI_BASE_MEMORY_H

#include <oxni/base/api.h>

/* Returns a new block of size zero bytes; NULL when memory runs out. */
OXNI_API void *oxni_zero_malloc_(size_t size);

/*
 * Resizes a block. The bytes up to the smaller size are kept; added bytes are zero.
 *
 * block    From this allocator, or NULL for a new block. Stolen on success.
 * Result   The resized block, possibly at another address; NULL when memory runs out: block is
 *          then unchanged.
 */
OXNI_API void *oxni_ralloc_(void *block, size_t size);

/* Frees a block. Ignores NULL. */
OXNI_API void oxni_free_(void *block);

/* Returns a new copy of text, to be freed with oxni_free_; NULL for NULL or when memory runs
 * out. */
OXNI_API char *oxni_strdup(const char *text);

/*
 * Ends the process with exit code 0 and logs "Out of memory" at level fatal. Use it only where data
 * cannot be left incomplete; elsewhere, drop the operation and continue.
 *
 * file     Base name of the calling source file, for the log.
 * line     Line in that file.
 */
OXNI_API void oxni_out_of_memory_(const char *file, int line);

/* The allocation guard: ends the process when block, the result of an allocation, is NULL. */
#define OXNI_ALLOCATION_GUARD(block, file)                                                         \
    do {                                                                                           \
        if ((block) == NULL)                                                                       \
            oxni_out_of_memory_((file), __LINE__);                                                 \
    } while (0)

#endif
