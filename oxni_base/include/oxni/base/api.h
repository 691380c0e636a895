/*
 * How the platform's functions are declared. Every header of this folder includes it.
 *
 * Conventions that hold for all of them, where a declaration does not say otherwise:
 *   text       zero-terminated UTF-8; wide text is UTF-16.
 *   size       of an output buffer, in its own characters, the terminator included.
 *   ownership  "new" belongs to the caller, "borrowed" stays with its owner, "kept" means that the
 *              callee takes a reference of its own, "stolen" that it takes the caller's.
 *   thread     the platform delivers every callback of a plug-in one at a time, on one thread at a
 *              time; the functions may be called from there and never from DllMain.
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

/* The library that defines a function sets OXNI_EXPORTING for its own sources. */
#ifdef OXNI_EXPORTING
#    define OXNI_API OXNI_EXTERN_C __declspec(dllexport)
#else
#    define OXNI_API OXNI_EXTERN_C __declspec(dllimport)
#endif

/* The formats are those of the Microsoft C runtime: %S is wide text, %I64d a 64-bit number. */
#if defined(__clang__)
#    define OXNI_PRINTF(format_index, first_index)                                                 \
        __attribute__((format(printf, format_index, first_index)))
#else
#    define OXNI_PRINTF(format_index, first_index)                                                 \
        __attribute__((format(ms_printf, format_index, first_index)))
#endif

/* Success of the functions that answer with a result number. */
#define VKL_E_SUCCESS 0

#endif
