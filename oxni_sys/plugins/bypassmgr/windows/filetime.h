/* File times: 64-bit counts of 100 ns since 1601-01-01 00:00 UTC. */
#ifndef FILETIME_H
#define FILETIME_H

#include <stdint.h>
#include <windows.h>

#define FILETIME_TICKS_PER_SECOND     10000000LL
#define FILETIME_SECONDS_1601_TO_1970 11644473600LL

/* The two halves as one number. */
inline uint64_t filetime_value(const FILETIME &filetime)
{
    return ((uint64_t)filetime.dwHighDateTime << 32) | filetime.dwLowDateTime;
}

inline FILETIME filetime_of_value(uint64_t value)
{
    return {(DWORD)value, (DWORD)(value >> 32)};
}

#endif
