/* Shared by the two files of the reader of binary XML. */
#ifndef DEVHOST_BINARY_XML_INTERNAL_H
#define DEVHOST_BINARY_XML_INTERNAL_H

#include "binary_xml.h"
#include "evtx_layout.h"
#include "evtx_values.h"

static constexpr int MAX_DEPTH = 24;

/* Tokens of binary XML; the bit says that more follow, or that an element has attributes. */
enum token {
    TOKEN_END_OF_START = 0x02,
    TOKEN_END_OF_EMPTY = 0x03,
    TOKEN_END = 0x04,
    TOKEN_ELEMENT = 0x01,
    TOKEN_TEXT = 0x05,
    TOKEN_ATTRIBUTE = 0x06,
    TOKEN_CDATA = 0x07,
    TOKEN_CHARACTER = 0x08,
    TOKEN_ENTITY = 0x09,
    TOKEN_INSTANCE = 0x0C,
    TOKEN_SUBSTITUTION = 0x0D,
    TOKEN_OPTIONAL_SUBSTITUTION = 0x0E,
    TOKEN_FRAGMENT = 0x0F,
    TOKEN_MORE = 0x40
};

/* Reads forwards; the first read beyond the limit makes it unsound for good. */
struct binary_xml::cursor {
    const uint8_t *chunk;
    uint32_t at, limit;
    bool sound = true;

    cursor(const uint8_t *chunk_bytes, uint32_t begin, uint32_t end)
        : chunk(chunk_bytes), at(begin), limit(end)
    {
    }

    bool skip(uint64_t bytes)
    {
        sound = sound && bytes <= limit - at;
        if (sound)
            at += static_cast<uint32_t>(bytes);
        return sound;
    }
    template <typename T> T get()
    {
        return skip(sizeof(T)) ? evtx_load<T>(chunk + at - sizeof(T)) : T(0);
    }
    uint8_t peek() const
    {
        return sound && at < limit ? chunk[at] : 0;
    }
    /* The next token without its bit. */
    uint8_t peek_kind() const
    {
        return static_cast<uint8_t>(peek() & ~TOKEN_MORE);
    }
};

#endif
