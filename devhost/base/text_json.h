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

/* Several members: name, value, name, value and so on. */
template <class Writer> void json_members(Writer &)
{
}

template <class Writer, class Value, class... More>
void json_members(Writer &writer, const char *name, const Value &value, const More &...more)
{
    json_member(writer, name, value);
    json_members(writer, more...);
}

/* An object that ends with its scope. name: of the member; NULL: it is no member. */
template <class Writer> class json_scope
{
  public:
    explicit json_scope(Writer &writer, const char *name = nullptr) : writer_(writer)
    {
        if (name != nullptr)
            writer.Key(name);
        writer.StartObject();
    }
    ~json_scope()
    {
        writer_.EndObject();
    }
    json_scope(const json_scope &) = delete;
    json_scope &operator=(const json_scope &) = delete;

  private:
    Writer &writer_;
};

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

/* An array of objects; put writes the members of one. */
template <class Writer, class Values, class Put>
void json_objects(Writer &writer, const char *name, const Values &values, Put put)
{
    json_list(writer, name, values, [&](const auto &value) {
        const json_scope object(writer);

        put(value);
    });
}

/* An object of products by their names. name: as of json_scope. */
template <typename Writer, typename Products>
void json_products(Writer &writer, const char *name, const Products &products)
{
    const json_scope object(writer, name);

    for (const auto &product : products) {
        const json_scope one(writer, product.name.c_str());

        json_members(writer, "modules", product.modules, "count", product.count, "status",
                     product.status);
    }
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

/* The same of an object; write writes its members. A file ends with a line feed. */
template <class Writer, class Write> std::string json_object_text(Write write)
{
    return json_text<Writer>([&](Writer &writer) {
        const json_scope object(writer);

        write(writer);
    });
}
template <class Write> std::string json_file_text(Write write)
{
    return json_object_text<json_lines>(write) + "\n";
}

#endif
