/* Mutual exclusion between threads of the host. */
#ifndef OXNI_BASE_MUTEX_H
#define OXNI_BASE_MUTEX_H

#include <oxni/base/api.h>

typedef struct oxni_mutex oxni_mutex;

/* Makes a recursive mutex. Result VKL_E_SUCCESS, with a new handle; -1, with NULL. */
OXNI_API int oxni_mutex_init(oxni_mutex **mutex);

/* Waits for the mutex, and gives it back. The calling thread must hold it to unlock. */
OXNI_API void oxni_mutex_lock(oxni_mutex *mutex);
OXNI_API void oxni_mutex_unlock(oxni_mutex *mutex);

/* Frees a mutex that nobody holds; NULL is harmless. */
OXNI_API void oxni_mutex_destroy(oxni_mutex *mutex);

#endif
