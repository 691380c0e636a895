/*
 * The agent's one allocator, and the allocation guard.
 *
 * A block of 0 bytes is a block of its own. A block is freed with oxni_free_ whichever function
 * made it; Jansson and the strings of this platform allocate here too.
 */
#ifndef OXNI_BASE_MEMORY_H
#define OXNI_BASE_MEMORY_H

#include <oxni/base/api.h>

/* A new block of size bytes, all zero; NULL when memory runs out. */
OXNI_API void *oxni_zero_malloc_(size_t size);

/*
 * Grows or shrinks a block, the bytes of the smaller size kept and added bytes zero.
 *
 * block    From this allocator, or NULL for a new one. Stolen on success.
 * Result   The block at its new place; NULL when memory runs out: block is untouched then.
 */
OXNI_API void *oxni_ralloc_(void *block, size_t size);

/* Frees a block; NULL is harmless. */
OXNI_API void oxni_free_(void *block);

/* A new copy of text; NULL for NULL and when memory runs out. Freed with oxni_free_. */
OXNI_API char *oxni_strdup(const char *text);

/*
 * Ends the process with exit code 0 and the line "Out of memory" at level fatal. For places whose
 * data cannot be left half-built; everybody else drops the work and goes on.
 *
 * file     Base name of the calling source file, and line in it, for the log.
 */
OXNI_API void oxni_out_of_memory_(const char *file, int line);

/* The allocation guard: block is what an allocation gave. Does nothing unless it is NULL. */
#define OXNI_ALLOCATION_GUARD(block, file)                                                         \
    do {                                                                                           \
        if ((block) == NULL)                                                                       \
            oxni_out_of_memory_((file), __LINE__);                                                 \
    } while (0)

#endif
