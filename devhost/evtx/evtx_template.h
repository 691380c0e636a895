/*
 * A record as templates with values, as they are written into an .evtx file. Shared by the files of
 * the writer.
 */
#ifndef DEVHOST_EVTX_TEMPLATE_H
#define DEVHOST_EVTX_TEMPLATE_H

#include <cstdint>

#include <functional>
#include <map>
#include <memory>
#include <string>
#include <utility>
#include <vector>

#include "../base/event_record.h"

/* Providers and fields of the records that Windows' own manifests define. */
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

/* evtx_events.cpp: the definition that fits a record: its source, id, qualifiers and number of strings. NULL: a
 * classic record of an unknown source. */
const evtx_event *evtx_find_event(const event_record &event);

/* Index of the value that contains an event's data, in records of a manifest and in classic ones. */
static constexpr uint32_t EVTX_MANIFEST_BODY = 17u;
static constexpr uint32_t EVTX_CLASSIC_BODY = 19u;

/* An element, literal text or a value of a template. */
struct xml_node {
    enum {
        ELEMENT,
        TEXT,
        VALUE
    } kind;
    std::wstring text; /* of an element: its name */
    uint16_t index;    /* of a value; of an element, the value on which it depends */
    uint8_t type;
    bool optional;
    std::vector<std::pair<std::wstring, xml_node>> attributes;
    std::vector<xml_node> content;

    /* The same with another attribute. */
    xml_node with(const std::wstring &name, const xml_node &value) const
    {
        xml_node made = *this;

        made.attributes.push_back({name, value});
        return made;
    }
};

struct xml_template {
    xml_node root;
    unsigned char guid[16];
};
typedef std::shared_ptr<const xml_template> template_ptr;

struct xml_value {
    uint8_t type;
    std::string bytes = {};
    template_ptr nested = {}; /* of an instance; its values follow */
    std::vector<xml_value> values = {};
};

/* Makes the templates of a log's records, each once. */
class evtx_templates
{
  public:
    explicit evtx_templates(const std::wstring &computer) : computer_(computer)
    {
    }
    /* A record: its template and its values. */
    xml_value record(const event_record &event);

  private:
    xml_value data(const event_record &event, const evtx_event *known);
    template_ptr manifest_template();
    template_ptr classic_template(const evtx_provider &provider);
    template_ptr cached(const std::wstring &key, const std::function<template_ptr(void)> &make);

    std::wstring computer_;
    std::map<std::wstring, template_ptr> templates_;
};

#endif
