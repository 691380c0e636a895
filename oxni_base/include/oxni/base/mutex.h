/* Mutual exclusion between threads of the host. */
#ifndef OXNI_BASE_MUTEX_H
#define OXNI_BASE_MUTEX_H

#include <oxni/base/api.h>

typedef struct oxni_mutex oxni_mutex;

/* Creates a recursive mutex. Result VKL_E_SUCCESS with a new handle; -1 with NULL. */
OXNI_API int oxni_mutex_init(oxni_mutex **mutex);

/* Lock waits for the mutex. Unlock releases it; the calling thread must hold it. */
OXNI_API void oxni_mutex_lock(oxni_mutex *mutex);
OXNI_API void oxni_mutex_unlock(oxni_mutex *mutex);

/* Frees a mutex, which no thread may hold. Ignores NULL. */
OXNI_API void oxni_mutex_destroy(oxni_mutex *mutex);

#endif
