/*
 * Checking a scenario before it is played: against its schema, and for mistakes that the schema
 * cannot express. All mistakes are collected.
 */
#include "load.h"

#include <cmath>
#include <cstring>

#include <algorithm>

#include <rapidjson/pointer.h>

#include "../base/text.h"
#include "../machine/registry.h"
#include "../participants/machine_setup.h"
#include "../scenario/timeline.h"
#include "steps.h"

static constexpr uint32_t MOST_PROBLEMS = 20u;
static constexpr uint32_t MOST_SHOWN = 60u; /* characters of a value */

/* Generated from scenario.schema.json by the build. */
extern const char scenario_schema_text[];

typedef std::vector<std::string> problem_list;

static void add(problem_list &problems, const node &where, const std::string &what)
{
    problems.push_back(where.place() + ": " + what);
}

/* Returns the number of changes from one word to another. */
static size_t distance(const std::string &from, const std::string &to)
{
    std::vector<size_t> row;

    for (size_t i = 0; i <= to.size(); i++)
        row.push_back(i);
    for (size_t i = 0; i < from.size(); i++) {
        size_t corner = row[0]++;

        for (size_t j = 0; j < to.size(); j++) {
            size_t changed = corner + (from[i] != to[j]);

            corner = row[j + 1];
            row[j + 1] = std::min({changed, corner + 1, row[j] + 1});
        }
    }
    return row.back();
}

/* Returns " (did you mean "name"?)" for the member of an object whose name is nearest. */
static std::string nearest(const std::string &name, const json_value *object)
{
    std::string best;
    size_t least = name.size() / 2 + 1;

    if (object == nullptr || !object->IsObject())
        return "";
    for (const auto &member : object->GetObject()) {
        size_t changes = distance(name, member.name.GetString());

        if (changes < least) {
            least = changes;
            best = member.name.GetString();
        }
    }
    return best.empty() ? "" : " (did you mean \"" + best + "\"?)";
}

/* Formats: what a string or an object has to satisfy beyond its type. Result: empty, or the mistake. */

static std::string check_time(const node &value)
{
    uint64_t time;

    return !value->IsString() || time_parse(value->GetString(), &time)
               ? ""
               : "expected a time such as 2024-03-07T09:05:41Z, found " + node_to_text(*value);
}

static std::string check_time_zone(const node &value)
{
    TIME_ZONE_INFORMATION zone;

    return machine_setup_zone(value, &zone)
               ? ""
               : "unknown time zone " + node_to_text(*value) +
                     ", expected UTC, an offset such as \"+09:00\", a name such as \"Tokyo "
                     "Standard Time\", or rules with dates of 32 hexadecimal digits";
}

/* Ends the check when the file is named by an undefined name: it is skipped. */
static std::string check_evidence(const node &value)
{
    (void)value.path();
    return "";
}

static std::string unknown_product(const std::string &key, const node &products)
{
    return products[key.c_str()] ? ""
                                 : "there is no product \"" + key + "\"" +
                                       nearest(key, products ? &*products : nullptr);
}

static std::string check_product(const node &value)
{
    return unknown_product(value->GetString(), value.root()["products"]);
}

/* The names of the members are products. */
static std::string check_product_keys(const node &value)
{
    std::string problem;

    for (const auto &member : value.members())
        if (problem.empty())
            problem = unknown_product(member.first, value.root()["products"]);
    return problem;
}

/* A product, or the namespace and name of any subscriber. */
static std::string check_receiver(const node &value)
{
    return !value->IsString() || strpbrk(value->GetString(), "/*{") != nullptr
               ? ""
               : check_product(value);
}

static std::string check_hex(const node &value)
{
    std::string hex = value->GetString();

    return hex.size() % 2 == 0 &&
                   hex.find_first_not_of("0123456789abcdefABCDEF") == std::string::npos
               ? ""
               : "expected pairs of hexadecimal digits such as \"00ff\", found " +
                     node_to_text(*value);
}

static std::string check_one_member(const node &value)
{
    return value->MemberCount() == 1 ? "" : "expected one member, the kind of the event";
}

static const struct {
    const char *name;
    std::string (*check)(const node &value);
} s_formats[] = {
    {"hex",            check_hex                  },
    {"one-member",     check_one_member           },
    {"date-time",      check_time                 },
    {"time-zone",      check_time_zone            },
    {"evidence",       check_evidence             },
    {"product",        check_product              },
    {"product-keys",   check_product_keys         },
    {"receiver",       check_receiver             },
    {"registry-value", machine_setup_value_problem},
    {"step",           step_problem               },
};

static const rapidjson::Document &schema(void)
{
    static rapidjson::Document document;

    if (document.IsNull())
        document.Parse(scenario_schema_text);
    return document;
}

/* Follows a reference. */
static const json_value &resolve(const json_value &rules)
{
    const json_value *reference = node_member(&rules, "$ref");

    return reference == nullptr ? rules : *rapidjson::Pointer(reference->GetString()).Get(schema());
}

/* The types of a schema, and how a message calls them. */
static const struct {
    const char *name, *words;
    bool (*is)(const json_value &value);
} s_types[] = {
    {"object",  "an object",     [](const json_value &value) { return value.IsObject(); }},
    {"array",   "an array",      [](const json_value &value) { return value.IsArray(); } },
    {"string",  "a text",        [](const json_value &value) { return value.IsString(); }},
    {"integer", "an integer",
     [](const json_value &value) { return value.IsInt64() || value.IsUint64(); }         },
    {"number",  "a number",      [](const json_value &value) { return value.IsNumber(); }},
    {"boolean", "true or false", [](const json_value &value) { return value.IsBool(); }  },
    {"null",    "null",          [](const json_value &value) { return value.IsNull(); }  },
};

static bool has_type(const json_value &rules, const char *type)
{
    const json_value *types = node_member(&rules, "type");

    if (types == nullptr || types->IsString())
        return types == nullptr || *types == type;
    return std::any_of(types->Begin(), types->End(),
                       [type](const json_value &one) { return one == type; });
}

static bool fits(const json_value &rules, const json_value &value)
{
    const json_value *one_of = node_member(&rules, "enum");
    bool typed = false;

    for (const auto &type : s_types)
        typed = typed || (has_type(rules, type.name) && type.is(value));
    if (one_of != nullptr)
        return std::find(one_of->Begin(), one_of->End(), value) != one_of->End();
    if (value.IsNumber() &&
        (value.GetDouble() < node_number_of(&rules, "minimum", value.GetDouble()) ||
         value.GetDouble() > node_number_of(&rules, "maximum", value.GetDouble())))
        return false;
    return typed && !(value.IsArray() && value.Size() < node_integer_of(&rules, "minItems", 0));
}

/* What a schema accepts: "an integer from 0 to 100 or null". */
static std::string expected(const json_value &rules)
{
    const json_value *least = node_member(&rules, "minimum");
    const json_value *most = node_member(&rules, "maximum");
    std::string words;

    for (const json_value *one : node_elements(&rules, "enum"))
        words += (words.empty() ? "" : ", ") + node_to_text(*one);
    if (!words.empty())
        return "expected one of " + words;
    for (const auto &type : s_types) {
        if (!has_type(rules, type.name))
            continue;
        words += (words.empty() ? "expected " : " or ") + std::string(type.words);
        if (type.words[0] != 'a' || !strstr("integer number", type.name) || least == nullptr)
            continue;
        words += most != nullptr ? " from " + node_to_text(*least) + " to " + node_to_text(*most)
                                 : " of " + node_to_text(*least) + " or more";
    }
    if (node_integer_of(&rules, "minItems", 0) > 0)
        words += " with an element";
    return words;
}

static void check_value(problem_list &problems, const json_value &rules, const node &value);

static void check_members(problem_list &problems, const json_value &rules, const node &object)
{
    const json_value *properties = node_member(&rules, "properties");
    const json_value *others = node_member(&rules, "additionalProperties");

    for (const json_value *name : node_elements(&rules, "required"))
        if (object->IsObject() && !object[name->GetString()])
            add(problems, object, std::string("member \"") + name->GetString() + "\" is missing");
    for (const auto &[name, value] : object.members()) {
        const json_value *its = node_member(properties, name.c_str());

        if (its == nullptr)
            its = others;
        if (its != nullptr && its->IsObject())
            check_value(problems, *its, value);
        else if (its != nullptr && its->IsFalse())
            add(problems, value, "unknown member \"" + name + "\"" + nearest(name, properties));
    }
}

/* A second member of a name would be ignored. */
static void check_duplicates(problem_list &problems, const node &value)
{
    for (const node &element : value.elements())
        check_duplicates(problems, element);
    for (const auto &[name, member] : value.members()) {
        if (&*value[name.c_str()] != &*member)
            add(problems, member, "member \"" + name + "\" occurs twice");
        check_duplicates(problems, member);
    }
}

static void check_format(problem_list &problems, const json_value &rules, const node &value)
{
    std::string name = node_text_of(&rules, "format", ""), problem;

    for (const auto &format : s_formats)
        if (name == format.name)
            problem = format.check(value);
    if (!problem.empty())
        add(problems, value, problem);
}

static void check_value(problem_list &problems, const json_value &reference, const node &value)
{
    const json_value &rules = resolve(reference);
    const json_value *items = node_member(&rules, "items");

    if (!fits(rules, *value)) {
        std::string shown = node_to_text(*value);

        add(problems, value,
            expected(rules) + ", found " +
                (shown.size() > MOST_SHOWN ? shown.substr(0, MOST_SHOWN) + "..." : shown));
        return;
    }
    check_members(problems, rules, value);
    if (items != nullptr)
        for (const node &element : value.elements())
            check_value(problems, *items, element);
    check_format(problems, rules, value);
}

/* Steps and starts that their boot never reaches. */
static void check_boot(problem_list &problems, const node &boot)
{
    double until = boot.number("until", BOOT_SECONDS), uptime = boot.number("uptime", 0);

    for (const node &step : boot["steps"].elements())
        if (timeline_seconds(step) > until)
            add(problems, step["at"], "is after the end of the boot, \"until\"");
    if (boot["agent_start"] && uptime + boot.number("agent_start", 0) > until)
        add(problems, boot["agent_start"], "is after the end of the boot, \"until\"");
    if (boot["crash"] && boot.text("ends") != "blue_screen")
        add(problems, boot["crash"], "expected \"ends\": \"blue_screen\" beside it");
}

/* Whether a boot lasts until a product has registered by itself. */
static bool reaches(const node &boot, double registers)
{
    double until = boot.number("until", BOOT_SECONDS), first = HUGE_VAL;

    if (!boot.is_null("agent_start"))
        first = boot.number("uptime", 0) + boot.number("agent_start", AGENT_START_SECONDS);
    for (const node &step : boot["steps"].elements())
        if (step["agent"] && step.text("agent") != "stop")
            first = std::min(first, timeline_seconds(step));
    return first + registers <= until;
}

/* Registrations that no boot reaches, although its agent starts. */
static void check_registrations(problem_list &problems, const node &root)
{
    std::vector<node> boots = root["boots"].elements();
    auto any = [&boots](double registers) {
        return std::any_of(boots.begin(), boots.end(),
                           [registers](const node &boot) { return reaches(boot, registers); });
    };

    for (const auto &[key, product] : root["products"].members())
        if (any(0) && !any(product.number("registers", 0)))
            add(problems, product["registers"], "no boot lasts until this registration");
}

void scenario_check(const struct scenario &scenario)
{
    node root(scenario);
    problem_list problems;
    std::string text;

    check_duplicates(problems, root);
    check_value(problems, schema(), root);
    for (const node &boot : problems.empty() ? root["boots"].elements() : std::vector<node>())
        check_boot(problems, boot);
    if (problems.empty())
        check_registrations(problems, root);
    for (size_t i = 0; i < problems.size() && i < MOST_PROBLEMS; i++)
        text += (i > 0 ? "\n" : "") + problems[i];
    if (problems.size() > MOST_PROBLEMS)
        text += text_format("\n%s: %u more mistakes", scenario.file.c_str(),
                            static_cast<unsigned>(problems.size() - MOST_PROBLEMS));
    if (!text.empty())
        throw devhost_error(EXIT_BAD_CALL, text);
}

void scenario_load(struct scenario &scenario, const std::string &file,
                   const std::map<std::string, std::string> &defines)
{
    size_t slash = file.find_last_of("/\\");

    scenario.file = file;
    scenario.folder = slash != std::string::npos ? file.substr(0, slash + 1) : "";
    scenario.defines = defines;
    scenario.text = scenario_load_json(scenario.document, file, EXIT_BAD_CALL);
    scenario_check(scenario);
}
