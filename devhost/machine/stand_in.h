/* How a room of the machine lists its stand-ins. */
#ifndef DEVHOST_STAND_IN_H
#define DEVHOST_STAND_IN_H

#include <string.h>

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
    return NULL;
}

#define STAND_IN(name)                                                                             \
    {                                                                                              \
#        name, reinterpret_cast < void *>(stand_in_##name)                                         \
    }

#endif
