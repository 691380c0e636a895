/* Shared by the files that implement stand-ins of Windows calls. */
#ifndef DEVHOST_STAND_IN_H
#define DEVHOST_STAND_IN_H

#include <cstdint>
#include <cstring>
#include <windows.h>

#include <cstddef>

struct stand_in_row {
    const char *name; /* of the Windows call */
    void *function;
};

template <size_t rows> void *stand_in_find(const stand_in_row (&table)[rows], const char *name)
{
    for (const stand_in_row &row : table)
        if (strcmp(row.name, name) == 0)
            return row.function;
    return nullptr;
}

/* Sets the last error and returns result: FALSE, NULL or INVALID_HANDLE_VALUE. */
template <typename Result> Result stand_in_fail(DWORD error, Result result)
{
    SetLastError(error);
    return result;
}

/* A number that no real handle has, each once in a process: real ones are small. */
inline HANDLE stand_in_new_handle(void)
{
    static uint64_t last = 0x40000000u;

    last += 4;
    return reinterpret_cast<HANDLE>(last);
}

#define STAND_IN(name)                                                                             \
    {                                                                                              \
#        name, reinterpret_cast < void *>(stand_in_##name)                                         \
    }

#endif
