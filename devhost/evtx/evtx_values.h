/*
 * Values of binary XML as text: the insertion strings that the classic event-log interface returns.
 * The types and their numbers are those of the .evtx format (EVT_VARIANT_TYPE of winevt.h).
 */
#ifndef DEVHOST_EVTX_VALUES_H
#define DEVHOST_EVTX_VALUES_H

#include <cstdint>

#include <string>

#include "../base/event_record.h"

enum evtx_type {
    EVTX_NULL = 0x00,
    EVTX_STRING = 0x01,
    EVTX_ANSI_STRING = 0x02,
    EVTX_INT8 = 0x03,
    EVTX_UINT8 = 0x04,
    EVTX_INT16 = 0x05,
    EVTX_UINT16 = 0x06,
    EVTX_INT32 = 0x07,
    EVTX_UINT32 = 0x08,
    EVTX_INT64 = 0x09,
    EVTX_UINT64 = 0x0A,
    EVTX_FLOAT = 0x0B,
    EVTX_DOUBLE = 0x0C,
    EVTX_BOOLEAN = 0x0D,
    EVTX_BINARY = 0x0E,
    EVTX_GUID = 0x0F,
    EVTX_SIZE = 0x10,
    EVTX_FILETIME = 0x11,
    EVTX_SYSTEMTIME = 0x12,
    EVTX_SID = 0x13,
    EVTX_HEX32 = 0x14,
    EVTX_HEX64 = 0x15,
    EVTX_XML = 0x21,
    EVTX_ARRAY = 0x80 /* of the type in the lower bits */
};

/* The bytes that a value of a type has at least; 0: any number. */
size_t evtx_width(uint8_t type);

/* Appends UTF-16 up to the count of units or a NUL. */
void evtx_append_text(const uint8_t *bytes, size_t units, std::wstring *text);

/*
 * Appends a value that is neither an array nor XML. One that is too short for its type, or of an
 * unknown type, appends nothing.
 *
 * bytes    size bytes, at any alignment.
 */
void evtx_append_value(uint8_t type, const uint8_t *bytes, size_t size, std::wstring *text);

/* Adds each element of an array as a string of its own. type: without EVTX_ARRAY. */
void evtx_add_array(uint8_t type, const uint8_t *bytes, size_t size, event_strings *strings);

#endif
