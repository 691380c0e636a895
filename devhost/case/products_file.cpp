/* Products, as text or JSON. */
#include "case.h"

#include "../base/text.h"
#include "../scenario/scenario.h"

static constexpr int STANDARD_COUNT = 3;
static constexpr char STANDARD_STATUS[] = "working";
static constexpr uint64_t MOST_BYTES = 64ull << 20;
static constexpr char TRUTH_SCHEMA[] = "bypass_mgr.truth";

[[noreturn]] static void bad_product(const std::string &text, const std::string &what)
{
    throw devhost_error(EXIT_BAD_CALL, "--product " + text + ": " + what +
                                           "; expected NAME:MODULE,MODULE[:COUNT[:STATUS]]");
}

static bool is_status(const std::string &status)
{
    return status == "working" || status == "bypass" || status == "initializing";
}

static replay_product parse_product(const std::string &text)
{
    const std::vector<std::string> parts = text_split(text, ':');
    replay_product product = {parts[0], {}, STANDARD_COUNT, STANDARD_STATUS};
    char *end = nullptr;

    if (parts.size() < 2 || parts.size() > 4)
        bad_product(text, text_count(parts.size(), "part"));
    if (product.name.empty())
        bad_product(text, "the name is empty");
    for (const std::string &module : text_split(parts[1], ',')) {
        if (module.empty())
            bad_product(text, "the name of a module is empty");
        product.modules.push_back(module);
    }
    if (parts.size() > 2) {
        product.count = strtoll(parts[2].c_str(), &end, 10);
        if (parts[2].empty() || *end != '\0' || product.count < 0 || product.count > INT32_MAX)
            bad_product(text, "count \"" + parts[2] + "\" is not a number of 0 or more");
    }
    if (parts.size() > 3) {
        product.status = parts[3];
        if (!is_status(product.status))
            bad_product(text, "status \"" + parts[3] + "\" is not working, bypass or initializing");
    }
    return product;
}

[[noreturn]] static void bad_file(const std::string &file, const std::string &place,
                                  const std::string &what)
{
    throw devhost_error(EXIT_BAD_CALL, file + ": " + place + ": " + what);
}

static replay_product product_of(const std::string &file, const std::string &name,
                                 const json_value &value)
{
    const std::string place = "/" + name;
    const json_value *modules = node_member(&value, "modules");
    replay_product product = {name, {}, STANDARD_COUNT, STANDARD_STATUS};

    if (!value.IsObject())
        bad_file(file, place, "expected an object with \"modules\"");
    if (modules == nullptr || !modules->IsArray())
        bad_file(file, place + "/modules", "expected an array of module names");
    for (const json_value &module : modules->GetArray()) {
        if (!module.IsString() || module.GetStringLength() == 0)
            bad_file(file, place + "/modules", "expected the name of a module");
        product.modules.push_back(module.GetString());
    }
    product.count = node_integer_of(&value, "count", STANDARD_COUNT);
    product.status = node_text_of(&value, "status", STANDARD_STATUS);
    if (product.count < 0 || product.count > INT32_MAX)
        bad_file(file, place + "/count", "expected a number of 0 or more");
    if (!is_status(product.status))
        bad_file(file, place + "/status", "expected working, bypass or initializing");
    return product;
}

/* The object of the products; nullptr: the document contains none. */
static const json_value *products_of(const rapidjson::Document &document)
{
    const json_value *products = node_member(&document, "products");

    return products != nullptr ? products : document.IsObject() ? &document : nullptr;
}

static void add_product(std::vector<replay_product> *products, const replay_product &product)
{
    for (const replay_product &other : *products)
        if (other.name == product.name)
            throw devhost_error(EXIT_BAD_CALL, "--product, --products: product \"" + product.name +
                                                   "\" is given twice");
    products->push_back(product);
}

static void add_object(const std::string &file, const json_value *object,
                       std::vector<replay_product> *products)
{
    if (object == nullptr || !object->IsObject())
        bad_file(file, "/", "expected an object, {\"NAME\": {\"modules\": [\"MODULE\"]}}");
    for (const auto &member : object->GetObject())
        add_product(products, product_of(file, member.name.GetString(), member.value));
}

std::vector<replay_product> products_read(const std::vector<std::string> &texts,
                                          const std::string &file)
{
    std::vector<replay_product> products;
    rapidjson::Document document;

    for (const std::string &text : texts)
        add_product(&products, parse_product(text));
    if (file.empty())
        return products;
    scenario_load_evidence(document, file, MOST_BYTES, EXIT_BAD_CALL);
    add_object(file, products_of(document), &products);
    return products;
}

std::vector<replay_product> products_of_json(const std::string &where, const json_value &object)
{
    std::vector<replay_product> products;

    add_object(where, &object, &products);
    return products;
}

/* Result: false for a file that is not JSON. */
static bool load(rapidjson::Document &document, const std::string &file)
{
    try {
        scenario_load_evidence(document, file, MOST_BYTES, EXIT_BAD_CALL);
    } catch (const devhost_error &) {
        return false;
    }
    return true;
}

bool products_is_truth(const std::string &file)
{
    rapidjson::Document document;

    return load(document, file) && node_text_of(&document, "schema", "") == TRUTH_SCHEMA;
}

bool products_is_file(const std::string &file)
{
    rapidjson::Document document;

    if (!load(document, file))
        return false;
    const json_value *object = products_of(document);

    if (object == nullptr || !object->IsObject() || object->ObjectEmpty())
        return false;
    for (const auto &member : object->GetObject())
        if (node_member(&member.value, "modules") == nullptr)
            return false;
    return true;
}
