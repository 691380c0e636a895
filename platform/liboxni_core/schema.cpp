/* Validation of messages against a service's JSON Schema. Keeps the last schema. The host's thread. */
#include "core.h"

/* RapidJSON asserts on some errors in a schema's text, an invalid regular expression for example.
 * The assertion becomes an exception, so that the schema is rejected and the process continues. */
struct broken_schema {
};
#define RAPIDJSON_ASSERT(holds) ((holds) ? static_cast<void>(0) : throw broken_schema())

/* RapidJSON constructs objects in blocks that it does not test for NULL. The warning appears in
 * this file because those functions are inlined here. */
#pragma GCC diagnostic push
#pragma GCC diagnostic ignored "-Wnull-dereference"
#include <rapidjson/document.h>
#include <rapidjson/schema.h>
#pragma GCC diagnostic pop

struct schema {
    rapidjson::Document text;
    std::unique_ptr<rapidjson::SchemaDocument> compiled;
    /* Used for one message after the other, since it keeps its memory. */
    std::unique_ptr<rapidjson::SchemaValidator> validator;
};

static std::shared_ptr<schema> compile(const char *text)
{
    auto made = std::make_shared<schema>();

    made->text.Parse(text);
    if (made->text.HasParseError() || !made->text.IsObject())
        return nullptr;
    try {
        made->compiled = std::make_unique<rapidjson::SchemaDocument>(made->text);
        made->validator = std::make_unique<rapidjson::SchemaValidator>(*made->compiled);
    } catch (const broken_schema &) {
        return nullptr;
    }
    return made;
}

std::shared_ptr<schema> schema_new(const char *text)
{
    static std::string last_text;
    static std::shared_ptr<schema> last;

    /* A plug-in that is loaded again installs the same service, and compiling takes long. */
    if (last == nullptr || last_text != text) {
        last = compile(text);
        last_text = text;
    }
    return last;
}

/* Feeds a value to the validator as a parser would. */
class walker
{
  public:
    explicit walker(const schema &rules) : rules_(rules), validator_(*rules.validator)
    {
        validator_.Reset();
    }

    /* Returns false for an invalid value; reason() then describes it. */
    bool value(json_t *value)
    {
        bool holds = emit(value);

        if (!holds && refused_ == nullptr)
            refused_ = value;
        return holds;
    }

    std::string reason() const
    {
        const char *word = validator_.GetInvalidSchemaKeyword();
        std::string keyword = word == nullptr ? "" : word;
        std::string text = "member \"" + place_ + "\" fails \"" + keyword + "\"";

        return keyword == "required" ? text + ": \"" + missing() + "\" is missing" : text;
    }

  private:
    static rapidjson::SizeType size(size_t count)
    {
        return static_cast<rapidjson::SizeType>(count);
    }

    bool emit(json_t *value)
    {
        switch (json_typeof(value)) {
        case JSON_OBJECT: return object(value);
        case JSON_ARRAY: return array(value);
        case JSON_STRING:
            return validator_.String(json_string_value(value), size(json_string_length(value)),
                                     true);
        case JSON_INTEGER: return integer(json_integer_value(value));
        case JSON_REAL: return validator_.Double(json_real_value(value));
        case JSON_TRUE: return validator_.Bool(true);
        case JSON_FALSE: return validator_.Bool(false);
        case JSON_NULL: break;
        }
        return validator_.Null();
    }

    bool integer(json_int_t number)
    {
        return number < 0 ? validator_.Int64(number)
                          : validator_.Uint64(static_cast<uint64_t>(number));
    }

    bool object(json_t *object)
    {
        size_t outside = place_.size();
        const char *key;
        json_t *member;

        if (!validator_.StartObject())
            return false;
        json_object_foreach(object, key, member)
        {
            (place_ += '/') += key;
            if (!validator_.Key(key, size(strlen(key)), true) || !value(member))
                return false;
            place_.resize(outside);
        }
        return validator_.EndObject(size(json_object_size(object)));
    }

    bool array(json_t *array)
    {
        size_t outside = place_.size();

        if (!validator_.StartArray())
            return false;
        for (size_t i = 0; i < json_array_size(array); i++) {
            place_ += "/" + std::to_string(i);
            if (!value(json_array_get(array, i)))
                return false;
            place_.resize(outside);
        }
        return validator_.EndArray(size(json_array_size(array)));
    }

    /* Returns the first required member that is missing. */
    std::string missing() const
    {
        const rapidjson::Value *part = validator_.GetInvalidSchemaPointer().Get(rules_.text);

        if (part == nullptr || !part->IsObject() || !part->HasMember("required"))
            return "";
        for (const auto &name : (*part)["required"].GetArray())
            if (json_object_get(refused_, name.GetString()) == nullptr)
                return name.GetString();
        return "";
    }

    const schema &rules_;
    rapidjson::SchemaValidator &validator_;
    std::string place_; /* JSON pointer; empty for the whole message */
    json_t *refused_ = nullptr;
};

std::string schema_check(const schema &rules, json_t *message)
{
    walker walk(rules);

    return walk.value(message) ? "" : walk.reason();
}
