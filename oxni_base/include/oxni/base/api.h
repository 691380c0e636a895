/*
 * Declaration macros of the platform's functions. Every header of this directory includes it.
 *
 * Conventions, unless a declaration states otherwise:
 *   text       zero-terminated UTF-8; wide text is UTF-16.
 *   size       of an output buffer, in its own characters, including the terminator.
 *   ownership  "new": the caller owns it. "borrowed": its owner keeps it. "kept": the callee takes
 *              its own reference. "stolen": the callee takes over the caller's reference.
 *   thread     the platform serialises the callbacks of a plug-in: one at a time, on one thread at
 *              a time. The functions may be called from callbacks and never from DllMain.
 */
#ifndef OXNI_BASE_API_H
#define OXNI_BASE_API_H

#include <stddef.h>
#include <stdint.h>

#ifdef __cplusplus
#    define OXNI_EXTERN_C extern "C"
#else
#    define OXNI_EXTERN_C extern
#endif

/* A library defines OXNI_EXPORTING when it compiles the functions that it exports. */
#ifdef OXNI_EXPORTING
#    define OXNI_API OXNI_EXTERN_C __declspec(dllexport)
#else
#    define OXNI_API OXNI_EXTERN_C __declspec(dllimport)
#endif

/* Formats follow the Microsoft C runtime: %S is wide text, %I64d a 64-bit integer. */
#if defined(__clang__)
#    define OXNI_PRINTF(format_index, first_index)                                                 \
        __attribute__((format(printf, format_index, first_index)))
#else
#    define OXNI_PRINTF(format_index, first_index)                                                 \
        __attribute__((format(ms_printf, format_index, first_index)))
#endif

/* Success of the functions that return a result code. */
#define VKL_E_SUCCESS 0

#endif
