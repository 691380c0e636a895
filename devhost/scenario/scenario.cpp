/* Reading and checking scenario files. */
#include "scenario.h"

#include <rapidjson/error/en.h>
#include <rapidjson/schema.h>
#include <rapidjson/stringbuffer.h>
#include <rapidjson/writer.h>

#include "../machine/machine.h"
#include "../base/text.h"

#define MOST_LEVELS 100

/* Made from scenario.schema.json by the build. */
extern const char scenario_schema_text[];

/* "line 3, column 7" of a byte of a text. */
static std::string place_of(const std::string &text, size_t offset)
{
    size_t line = 1, column = 1;

    for (size_t i = 0; i < offset && i < text.size(); i++) {
        column = text[i] == '\n' ? 1 : column + 1;
        if (text[i] == '\n')
            line++;
    }
    return text_format("line %u, column %u", static_cast<unsigned>(line),
                       static_cast<unsigned>(column));
}

/* Where arrays and objects are nested deeper than anything that is read here; npos: nowhere. The
 * parser goes down once a level, and the stack has an end. */
static size_t too_deep(const std::string &text)
{
    bool inside = false; /* a text */
    int depth = 0;

    for (size_t i = 0; i < text.size(); i++) {
        if (inside && text[i] == '\\')
            i++;
        else if (text[i] == '"')
            inside = !inside;
        else if (!inside && (text[i] == '[' || text[i] == '{') && ++depth > MOST_LEVELS)
            return i;
        else if (!inside && (text[i] == ']' || text[i] == '}'))
            depth--;
    }
    return std::string::npos;
}

void scenario_load_json(rapidjson::Document &document, const std::string &file, int status)
{
    std::string text = machine_read_real_file(text_wide(file), status);
    const size_t deep = too_deep(text);

    if (deep != std::string::npos)
        throw devhost_error(status, file + ": " + place_of(text, deep) +
                                        text_format(": expected %d levels at most", MOST_LEVELS));
    document.Parse<rapidjson::kParseValidateEncodingFlag>(text.data(), text.size());
    if (document.HasParseError())
        throw devhost_error(status, file + ": " + place_of(text, document.GetErrorOffset()) + ": " +
                                        rapidjson::GetParseError_En(document.GetParseError()));
}

/* What a keyword of the schema wanted, in words. value: what it was wanted of. */
static std::string wanted(const json_value &rules, const json_value *value,
                          const std::string &keyword)
{
    const json_value *rule = node_member(&rules, keyword.c_str());

    if (keyword == "required" && rule != NULL)
        for (const json_value &name : rule->GetArray())
            if (node_member(value, name.GetString()) == NULL)
                return std::string("member \"") + name.GetString() + "\" is missing";
    if (rule == NULL)
        return "does not fit (" + keyword + ")";
    if (keyword == "type")
        return "expected type " + node_to_text(*rule);
    if (keyword == "enum")
        return "expected one of " + node_to_text(*rule);
    return "expected " + keyword + " " + node_to_text(*rule);
}

static std::string pointer_text(const rapidjson::Pointer &pointer)
{
    rapidjson::StringBuffer buffer;

    pointer.Stringify(buffer);
    return buffer.GetSize() != 0 ? buffer.GetString() : "/";
}

void scenario_check(const struct scenario &scenario)
{
    rapidjson::Document schema_json;

    schema_json.Parse(scenario_schema_text);
    rapidjson::SchemaDocument schema(schema_json);
    rapidjson::SchemaValidator validator(schema);

    if (scenario.document.Accept(validator))
        return;
    rapidjson::Pointer where = validator.GetInvalidDocumentPointer();
    const json_value *rules = validator.GetInvalidSchemaPointer().Get(schema_json);
    std::string keyword = validator.GetInvalidSchemaKeyword(), place = pointer_text(where);

    if (keyword == "additionalProperties" && where.GetTokenCount() > 0) {
        size_t slash = place.find_last_of('/');

        scenario_bad(scenario, slash > 0 ? place.substr(0, slash) : "/",
                     "unknown member \"" + place.substr(slash + 1) + "\"");
    }
    scenario_bad(scenario, place,
                 rules != NULL ? wanted(*rules, where.Get(scenario.document), keyword) : keyword);
}

/* A member that stands twice would be read once. */
static void check_duplicates(const struct scenario &scenario, const std::string &where,
                             const json_value &value)
{
    if (value.IsObject())
        for (auto member = value.MemberBegin(); member != value.MemberEnd(); ++member) {
            if (value.FindMember(member->name) != member)
                scenario_bad(scenario, where.empty() ? "/" : where,
                             std::string("member \"") + member->name.GetString() +
                                 "\" stands twice");
            check_duplicates(scenario, where + "/" + member->name.GetString(), member->value);
        }
    if (value.IsArray())
        for (rapidjson::SizeType i = 0; i < value.Size(); i++)
            check_duplicates(scenario, where + "/" + std::to_string(i), value[i]);
}

void scenario_load(struct scenario &scenario, const std::string &file,
                   const std::map<std::string, std::string> &defines)
{
    size_t slash = file.find_last_of("/\\");

    scenario.file = file;
    scenario.folder = slash != std::string::npos ? file.substr(0, slash + 1) : "";
    scenario.defines = defines;
    scenario_load_json(scenario.document, file, EXIT_BAD_CALL);
    check_duplicates(scenario, "", scenario.document);
    scenario_check(scenario);
}

std::string scenario_path(const struct scenario &scenario, const std::string &path)
{
    std::string full = path;
    size_t open = full.find('{'), end = full.find('}', open);

    if (open != std::string::npos && end != std::string::npos) {
        std::string name = full.substr(open + 1, end - open - 1);
        auto define = scenario.defines.find(name);

        if (define == scenario.defines.end() || define->second.empty())
            throw devhost_error(EXIT_SKIPPED, scenario.file + ": needs --define " + name +
                                                  "=FOLDER, which is not here");
        full.replace(open, end - open + 1, define->second);
    }
    bool absolute = full[0] == '/' || full[0] == '\\' || (full.size() > 1 && full[1] == ':');
    return absolute ? full : scenario.folder + full;
}

void scenario_bad(const struct scenario &scenario, const std::string &where,
                  const std::string &what)
{
    throw devhost_error(EXIT_BAD_CALL, scenario.file + ": " + where + ": " + what);
}

const json_value *node_member(const json_value *object, const char *name)
{
    if (object == NULL || !object->IsObject())
        return NULL;
    auto member = object->FindMember(name);
    return member != object->MemberEnd() ? &member->value : NULL;
}

std::string node_text_of(const json_value *object, const char *name, const std::string &missing)
{
    const json_value *value = node_member(object, name);

    return value != NULL && value->IsString() ? value->GetString() : missing;
}

double node_number_of(const json_value *object, const char *name, double missing)
{
    const json_value *value = node_member(object, name);

    return value != NULL && value->IsNumber() ? value->GetDouble() : missing;
}

int64_t node_integer_of(const json_value *object, const char *name, int64_t missing)
{
    const json_value *value = node_member(object, name);

    return value != NULL && value->IsInt64() ? value->GetInt64() : missing;
}

bool node_flag_of(const json_value *object, const char *name, bool missing)
{
    const json_value *value = node_member(object, name);

    return value != NULL && value->IsBool() ? value->GetBool() : missing;
}

bool node_is_null(const json_value *object, const char *name)
{
    const json_value *value = node_member(object, name);

    return value != NULL && value->IsNull();
}

std::vector<const json_value *> node_elements(const json_value *object, const char *name)
{
    const json_value *value = node_member(object, name);
    std::vector<const json_value *> elements;

    if (value != NULL && value->IsArray())
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
