/* JSON values, read tolerantly. Stateless. */
#include "json.h"

#include <rapidjson/stringbuffer.h>
#include <rapidjson/writer.h>

const json_value *node_member(const json_value *object, const char *name)
{
    if (object == nullptr || !object->IsObject())
        return nullptr;
    auto member = object->FindMember(name);
    return member != object->MemberEnd() ? &member->value : nullptr;
}

std::string node_text_of(const json_value *object, const char *name, const std::string &missing)
{
    const json_value *value = node_member(object, name);

    return value != nullptr && value->IsString() ? value->GetString() : missing;
}

double node_number_of(const json_value *object, const char *name, double missing)
{
    const json_value *value = node_member(object, name);

    return value != nullptr && value->IsNumber() ? value->GetDouble() : missing;
}

int64_t node_integer_of(const json_value *object, const char *name, int64_t missing)
{
    const json_value *value = node_member(object, name);

    return value != nullptr && value->IsInt64() ? value->GetInt64() : missing;
}

bool node_flag_of(const json_value *object, const char *name, bool missing)
{
    const json_value *value = node_member(object, name);

    return value != nullptr && value->IsBool() ? value->GetBool() : missing;
}

bool node_is_null(const json_value *object, const char *name)
{
    const json_value *value = node_member(object, name);

    return value != nullptr && value->IsNull();
}

std::vector<const json_value *> node_elements(const json_value *object, const char *name)
{
    const json_value *value = node_member(object, name);
    std::vector<const json_value *> elements;

    if (value != nullptr && value->IsArray())
        for (const json_value &element : value->GetArray())
            elements.push_back(&element);
    return elements;
}

std::string node_to_text(const json_value &value)
{
    rapidjson::StringBuffer buffer;
    rapidjson::Writer<rapidjson::StringBuffer> writer(buffer);

    value.Accept(writer);
    return buffer.GetString();
}
