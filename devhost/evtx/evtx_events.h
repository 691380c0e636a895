/* Providers and fields of the records that Windows' own manifests define. */
#ifndef DEVHOST_EVTX_EVENTS_H
#define DEVHOST_EVTX_EVENTS_H

#include <cstdint>

#include <vector>

#include "../base/event_record.h"

struct evtx_field {
    const wchar_t *name;
    uint8_t type; /* enum evtx_type */
};

struct evtx_provider {
    const wchar_t *name;
    const wchar_t *guid;   /* NULL: none */
    const wchar_t *source; /* EventSourceName; NULL: none */
};

static constexpr int EVTX_NO_QUALIFIERS = -1; /* of a record that a manifest defines */

struct evtx_event {
    const evtx_provider *provider;
    uint16_t id;
    int32_t qualifiers;
    uint8_t level, version;
    uint16_t task;
    uint64_t keywords;
    std::vector<evtx_field> fields; /* empty: a classic record with an array of strings */
};

/* The definition that fits a record: its source, id, qualifiers and number of strings. NULL: a
 * classic record of an unknown source. */
const evtx_event *evtx_find_event(const event_record &event);

#endif
