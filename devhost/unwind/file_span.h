/* Checked reading of a file in memory. Thread: any; there is no state. */
#ifndef DEVHOST_FILE_SPAN_H
#define DEVHOST_FILE_SPAN_H

#include <cstdint>
#include <cstring>

/* Bytes of a file, borrowed. A mapped file may be larger than the memory, so values are read one by
 * one where they are needed. */
struct file_span {
    const uint8_t *bytes;
    uint64_t size;

    bool holds(uint64_t offset, uint64_t length) const
    {
        return offset <= size && length <= size - offset;
    }

    /* The caller has checked that the span holds it. */
    template <typename T> T at(uint64_t offset) const
    {
        T value;
        memcpy(&value, bytes + offset, sizeof value);
        return value;
    }

    /* 0 where the file ends. */
    template <typename T> T get(uint64_t offset) const
    {
        return holds(offset, sizeof(T)) ? at<T>(offset) : T(0);
    }
};

#endif
