/*
 * Writing of JSON. The writers are RapidJSON's; these functions put members and values that the
 * development host has.
 */
#ifndef DEVHOST_TEXT_JSON_H
#define DEVHOST_TEXT_JSON_H

#include <string>
#include <type_traits>
#include <vector>

#include <rapidjson/prettywriter.h>
#include <rapidjson/stringbuffer.h>
#include <rapidjson/writer.h>

/* On one line, and on indented lines. */
typedef rapidjson::Writer<rapidjson::StringBuffer> json_line;
typedef rapidjson::PrettyWriter<rapidjson::StringBuffer> json_lines;

template <class Writer> void json_put(Writer &writer, const std::string &text)
{
    writer.String(text.data(), static_cast<rapidjson::SizeType>(text.size()));
}

template <class Writer> void json_put(Writer &writer, const char *text)
{
    writer.String(text);
}

template <class Writer, class Number>
std::enable_if_t<std::is_arithmetic_v<Number>> json_put(Writer &writer, Number value)
{
    if constexpr (std::is_same_v<Number, bool>)
        writer.Bool(value);
    else if constexpr (std::is_floating_point_v<Number>)
        writer.Double(value);
    else if constexpr (std::is_signed_v<Number>)
        writer.Int64(value);
    else
        writer.Uint64(value);
}

template <class Writer, class Value> void json_put(Writer &writer, const std::vector<Value> &values)
{
    writer.StartArray();
    for (const Value &value : values)
        json_put(writer, value);
    writer.EndArray();
}

template <class Writer, class Value>
void json_member(Writer &writer, const char *name, const Value &value)
{
    writer.Key(name);
    json_put(writer, value);
}

/* An empty text becomes null. */
template <class Writer>
void json_member_or_null(Writer &writer, const char *name, const std::string &text)
{
    writer.Key(name);
    if (text.empty())
        writer.Null();
    else
        json_put(writer, text);
}

/* json: the text of a JSON value; empty: null. */
template <class Writer>
void json_member_as_is(Writer &writer, const char *name, const std::string &json)
{
    const std::string value = json.empty() ? "null" : json;

    writer.Key(name);
    writer.RawValue(value.data(), value.size(), rapidjson::kObjectType);
}

/* An array of objects or other values; put writes one. */
template <class Writer, class Values, class Put>
void json_list(Writer &writer, const char *name, const Values &values, Put put)
{
    writer.Key(name);
    writer.StartArray();
    for (const auto &value : values)
        put(value);
    writer.EndArray();
}

/* An object of products, which have a name, modules, a count and a status. */
template <typename Writer, typename Products>
void json_products(Writer &writer, const Products &products)
{
    writer.StartObject();
    for (const auto &product : products) {
        writer.Key(product.name.c_str());
        writer.StartObject();
        json_member(writer, "modules", product.modules);
        json_member(writer, "count", product.count);
        json_member(writer, "status", product.status);
        writer.EndObject();
    }
    writer.EndObject();
}

/* The text of a document that write writes. */
template <class Writer, class Write> std::string json_text(Write write)
{
    rapidjson::StringBuffer buffer;
    Writer writer(buffer);

    if constexpr (std::is_same_v<Writer, json_lines>)
        writer.SetIndent(' ', 1);
    write(writer);
    return buffer.GetString();
}

#endif
