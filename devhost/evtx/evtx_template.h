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
};

struct xml_template {
    xml_node root;
    unsigned char guid[16];
};
typedef std::shared_ptr<const xml_template> template_ptr;

struct xml_value {
    uint8_t type;
    std::string bytes;
    template_ptr nested; /* of an instance; its values follow */
    std::vector<xml_value> values;
};

template <typename T> std::string evtx_number_bytes(T number)
{
    return std::string(reinterpret_cast<const char *>(&number), sizeof(number));
}

/* UTF-16 without a NUL. */
std::string evtx_text_bytes(const std::wstring &text);

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
    xml_value data(const event_record &event, const struct evtx_event *known);
    xml_value manifest_record(const struct evtx_event &known, std::vector<xml_value> values,
                              const xml_value &body);
    xml_value classic_record(const struct evtx_provider &provider, std::vector<xml_value> values,
                             const xml_value &body);
    template_ptr cached(const std::wstring &key, const std::function<template_ptr(void)> &make);

    std::wstring computer_;
    std::map<std::wstring, template_ptr> templates_;
};

#endif
