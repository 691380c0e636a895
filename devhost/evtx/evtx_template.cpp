/* Templates of Windows' records, and the values of one record. */
#include "evtx_template.h"

#include <cctype>
#include <cstdlib>
#include <cstring>
#include <windows.h>

#include <algorithm>

#include "../base/text.h"
#include "evtx_values.h"

static constexpr uint32_t NO_DEPENDENCY = 0xFFFFu;
static constexpr wchar_t XML_NAMESPACE[] = L"http://schemas.microsoft.com/win/2004/08/events/event";

static xml_node literal(const std::wstring &text)
{
    return {xml_node::TEXT, text, 0, 0, false, {}, {}};
}

static xml_node value_node(uint16_t index, uint8_t type, bool optional = true)
{
    return {xml_node::VALUE, L"", index, type, optional, {}, {}};
}

static xml_node element(const std::wstring &name, std::vector<xml_node> content = {},
                        uint16_t dependency = NO_DEPENDENCY)
{
    return {xml_node::ELEMENT, name, dependency, 0, false, {}, std::move(content)};
}

/* An element that is removed with its value. */
static xml_node optional_element(const std::wstring &name, uint16_t index, uint8_t type)
{
    return element(name, {value_node(index, type)}, index);
}

/* What a template is made of, as text: equal content gives an equal GUID, since readers may keep
 * templates by it across chunks. */
static std::wstring content_of(const xml_node &node)
{
    std::wstring text = std::to_wstring(node.kind) + L"(" + node.text + L"," +
                        std::to_wstring(node.index) + L"," + std::to_wstring(node.type) +
                        (node.optional ? L"?" : L"");

    for (const auto &attribute : node.attributes)
        text += L"@" + attribute.first + L"=" + content_of(attribute.second);
    for (const xml_node &child : node.content)
        text += content_of(child);
    return text + L")";
}

/* FNV-1a, 64 bits, from two starts. */
static uint64_t fnv(const std::string &bytes, uint64_t hash)
{
    for (const char byte : bytes)
        hash = (hash ^ static_cast<unsigned char>(byte)) * 0x100000001b3ull;
    return hash;
}

static template_ptr make_template(xml_node root)
{
    auto made = std::make_shared<xml_template>();
    const std::string content = text_bytes(content_of(root));
    const uint64_t halves[] = {fnv(content, 0xcbf29ce484222325ull),
                               fnv(content, 0x9ae16a3b2f90404full)};

    made->root = std::move(root);
    memcpy(made->guid, halves, sizeof(made->guid));
    return made;
}

/* The System part of every record, in Windows' order; body: index of the event's data. */
static template_ptr event_template(const xml_node &provider, const xml_node &channel,
                                   const std::wstring &computer, uint16_t body)
{
    const uint16_t related = body == EVTX_CLASSIC_BODY ? 18 : 13;
    const xml_node system = element(
        L"System",
        {provider,
         optional_element(L"EventID", 3, EVTX_UINT16)
             .with(L"Qualifiers", value_node(4, EVTX_UINT16)),
         optional_element(L"Version", 11, EVTX_UINT8), optional_element(L"Level", 0, EVTX_UINT8),
         optional_element(L"Task", 2, EVTX_UINT16), optional_element(L"Opcode", 1, EVTX_UINT8),
         optional_element(L"Keywords", 5, EVTX_HEX64),
         element(L"TimeCreated").with(L"SystemTime", value_node(6, EVTX_FILETIME)),
         optional_element(L"EventRecordID", 10, EVTX_UINT64),
         element(L"Correlation")
             .with(L"ActivityID", value_node(7, EVTX_GUID))
             .with(L"RelatedActivityID", value_node(related, EVTX_GUID)),
         element(L"Execution")
             .with(L"ProcessID", value_node(8, EVTX_UINT32))
             .with(L"ThreadID", value_node(9, EVTX_UINT32)),
         channel, element(L"Computer", {literal(computer)}),
         element(L"Security").with(L"UserID", value_node(12, EVTX_SID))});

    return make_template(element(L"Event", {system, value_node(body, EVTX_XML)}, body)
                             .with(L"xmlns", literal(XML_NAMESPACE)));
}

static template_ptr classic_data_template(void)
{
    return make_template(
        element(L"EventData", {optional_element(L"Data", 0, EVTX_ARRAY | EVTX_STRING),
                               optional_element(L"Binary", 2, EVTX_BINARY)}));
}

static template_ptr named_data_template(const std::vector<evtx_field> &fields)
{
    std::vector<xml_node> data;

    for (size_t i = 0; i < fields.size(); i++)
        data.push_back(
            element(L"Data", {value_node(static_cast<uint16_t>(i), fields[i].type, false)})
                .with(L"Name", literal(fields[i].name)));
    return make_template(element(L"EventData", std::move(data)));
}

static xml_value nothing(void)
{
    return {EVTX_NULL};
}

template <typename T> static xml_value number_value(uint8_t type, T number)
{
    return {type, text_bytes(number)};
}

static xml_value string_value(const std::wstring &text)
{
    return {EVTX_STRING, text_bytes(text)};
}

/* "{8-4-4-4-12}", of which the first three parts are numbers. */
static xml_value guid_value(const std::wstring &text)
{
    std::string digits = text_narrow(text);

    digits.erase(std::remove_if(digits.begin(), digits.end(), [](char c) { return !isxdigit(c); }),
                 digits.end());
    std::string bytes = text_of_hex(digits);

    std::reverse(bytes.begin(), bytes.begin() + 4);
    std::reverse(bytes.begin() + 4, bytes.begin() + 6);
    std::reverse(bytes.begin() + 6, bytes.begin() + 8);
    return {EVTX_GUID, bytes};
}

/* "S-1-5-18". Result: false for another text. */
static bool sid_bytes(const std::string &text, std::string *bytes)
{
    const std::vector<std::string> parts = text_split(text, '-');

    if (parts.size() < 3 || parts.size() > 18 || parts[0] != "S")
        return false;
    const uint64_t authority = strtoull(parts[2].c_str(), nullptr, 10);
    bytes->push_back(static_cast<char>(atoi(parts[1].c_str())));
    bytes->push_back(static_cast<char>(parts.size() - 3));
    for (int shift = 40; shift >= 0; shift -= 8)
        bytes->push_back(static_cast<char>(authority >> shift));
    for (size_t i = 3; i < parts.size(); i++)
        bytes->append(text_bytes(static_cast<uint32_t>(strtoul(parts[i].c_str(), nullptr, 10))));
    return true;
}

/* A value from its text as the classic interface shows it. Result: false when it is none of that
 * type, or is written otherwise. */
static bool typed_value(uint8_t type, const std::wstring &text, xml_value *value)
{
    const std::string ascii = text_narrow(text);
    std::wstring shown;
    uint64_t number = 0;
    char *end = nullptr;

    *value = {type == EVTX_SIZE ? static_cast<uint8_t>(EVTX_HEX64) : type};
    if (type == EVTX_STRING)
        value->bytes = text_bytes(text);
    else if (type == EVTX_SID && !sid_bytes(ascii, &value->bytes))
        return false;
    else if (type == EVTX_FILETIME && time_parse(ascii, &number))
        value->bytes = text_bytes(number);
    else if (type == EVTX_FILETIME)
        return false;
    else if (type != EVTX_SID) {
        number = ascii == "true" ? 1 : ascii == "false" ? 0 : strtoull(ascii.c_str(), &end, 0);
        value->bytes = text_bytes(number).substr(0, evtx_width(value->type));
    }
    evtx_append_value(value->type, reinterpret_cast<const uint8_t *>(value->bytes.data()),
                      value->bytes.size(), &shown);
    return type == EVTX_FILETIME || shown == text;
}

static xml_value instance_value(template_ptr made, std::vector<xml_value> values)
{
    return {EVTX_XML, "", std::move(made), std::move(values)};
}

template_ptr evtx_templates::cached(const std::wstring &key,
                                    const std::function<template_ptr(void)> &make)
{
    template_ptr &made = templates_[key];

    if (made == nullptr)
        made = make();
    return made;
}

xml_value evtx_templates::data(const event_record &event, const evtx_event *known)
{
    std::vector<xml_value> values;
    std::wstring key = L"data";

    if (known != nullptr && !known->fields.empty()) {
        std::vector<evtx_field> fields = known->fields;

        for (size_t i = 0; i < fields.size(); i++) {
            xml_value value = {};

            if (!typed_value(fields[i].type, event.strings.at(i), &value)) {
                fields[i].type = EVTX_STRING;
                value = string_value(event.strings.at(i));
            }
            values.push_back(value);
            key += std::wstring(L" ") + fields[i].name + L" " + std::to_wstring(fields[i].type);
        }
        return instance_value(cached(key, [&] { return named_data_template(fields); }), values);
    }
    values = {
        event.strings.count() != 0
            ? xml_value{EVTX_ARRAY | EVTX_STRING, text_bytes(event.strings.packed())}
            : nothing(),
        number_value(EVTX_UINT32, uint32_t(0)), nothing()
    };
    return instance_value(cached(L"classic data", classic_data_template), values);
}

static uint8_t level_of(const event_record &event)
{
    return event.type == EVENTLOG_ERROR_TYPE ? 2 : event.type == EVENTLOG_WARNING_TYPE ? 3 : 4;
}

/* The values of the System part, in the order of their indexes. */
static std::vector<xml_value> system_values(const event_record &event, const evtx_event *known,
                                            bool classic)
{
    return {number_value(EVTX_UINT8, known != nullptr ? known->level : level_of(event)),
            number_value(EVTX_UINT8, uint8_t(0)),
            number_value(EVTX_UINT16, known != nullptr ? known->task : uint16_t(0)),
            number_value(EVTX_UINT16, static_cast<uint16_t>(event.id)),
            classic ? number_value(EVTX_UINT16, static_cast<uint16_t>(event.id >> 16)) : nothing(),
            number_value(EVTX_HEX64, known != nullptr ? known->keywords : 0x0080000000000000ull),
            number_value(EVTX_FILETIME, time_of_unix(event.time)),
            nothing(),
            number_value(EVTX_UINT32, uint32_t(4)),
            number_value(EVTX_UINT32, uint32_t(8)),
            number_value(EVTX_UINT64, uint64_t(event.number)),
            number_value(EVTX_UINT8, known != nullptr ? known->version : uint8_t(0)),
            nothing(),
            nothing()};
}

template_ptr evtx_templates::manifest_template()
{
    return cached(L"manifest", [&] {
        return event_template(element(L"Provider")
                                  .with(L"Name", value_node(14, EVTX_STRING))
                                  .with(L"Guid", value_node(15, EVTX_GUID)),
                              optional_element(L"Channel", 16, EVTX_STRING), computer_,
                              EVTX_MANIFEST_BODY);
    });
}

template_ptr evtx_templates::classic_template(const evtx_provider &provider)
{
    return cached(std::wstring(L"classic ") + provider.name, [&] {
        xml_node node = element(L"Provider").with(L"Name", literal(provider.name));

        if (provider.source != nullptr)
            node = node.with(L"Guid", literal(provider.guid))
                       .with(L"EventSourceName", literal(provider.source));
        return event_template(node, element(L"Channel", {literal(L"System")}), computer_,
                              EVTX_CLASSIC_BODY);
    });
}

xml_value evtx_templates::record(const event_record &event)
{
    const evtx_event *known = evtx_find_event(event);
    const evtx_provider unknown = {event.source.c_str(), nullptr, nullptr};
    const evtx_provider &provider = known != nullptr ? *known->provider : unknown;
    const bool classic = known == nullptr || known->qualifiers != EVTX_NO_QUALIFIERS;
    std::vector<xml_value> values = system_values(event, known, classic);

    if (classic) {
        values.resize(EVTX_CLASSIC_BODY, nothing());
    } else {
        values.push_back(string_value(provider.name));
        values.push_back(guid_value(provider.guid));
        values.push_back(string_value(L"System"));
    }
    values.push_back(data(event, known));
    return instance_value(classic ? classic_template(provider) : manifest_template(), values);
}
