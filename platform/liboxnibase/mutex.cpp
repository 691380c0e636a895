/* Recursive mutexes. Any thread. */
#include "base.h"

#include <oxni/base/mutex.h>

struct oxni_mutex {
    CRITICAL_SECTION section;
};

int oxni_mutex_init(oxni_mutex **mutex)
{
    if (mutex == nullptr)
        return -1;
    *mutex = static_cast<oxni_mutex *>(memory_allocate(sizeof(oxni_mutex), BASE_CALLER()));
    if (*mutex == nullptr)
        return -1;
    /* The debug information would be a separate heap block, and oxnih_memory_drop_all frees only
     * the mutex's own block. */
    (void)InitializeCriticalSectionEx(&(*mutex)->section, 0, CRITICAL_SECTION_NO_DEBUG_INFO);
    return VKL_E_SUCCESS;
}

void oxni_mutex_lock(oxni_mutex *mutex)
{
    EnterCriticalSection(&mutex->section);
}

void oxni_mutex_unlock(oxni_mutex *mutex)
{
    LeaveCriticalSection(&mutex->section);
}

void oxni_mutex_destroy(oxni_mutex *mutex)
{
    if (mutex == nullptr)
        return;
    DeleteCriticalSection(&mutex->section);
    memory_free(mutex, BASE_CALLER());
}
