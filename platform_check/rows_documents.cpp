/* Promises about ".ejs" files and Jansson. */
#include "check.h"

#include <cstring>

#include <filesystem>

#include <oxni/base/ejs.h>

static const char DOCUMENT[] = "{\"z\":1,\"a\":[true,null,\"\xe6\x97\xa5\"],\"data\":{\"k\":-5}}";

/* Returns a value as compact JSON; "(none)" for NULL, whose text it releases. */
static std::string json_text(const json_t *value, size_t flags = JSON_COMPACT)
{
    json_free_t release = nullptr;
    char *text = value == nullptr ? nullptr : json_dumps(value, flags);
    std::string result = text == nullptr ? "(none)" : text;

    json_get_alloc_funcs(nullptr, &release);
    if (text != nullptr)
        release(text);
    return result;
}

static std::string load(const std::string &name)
{
    json_t *document = wdu_json_load_file_ejs(path_of(name).c_str());
    std::string text = json_text(document);

    wdu_json_delete_ejs(document);
    return text;
}

static int dump(const char *text, const std::string &name)
{
    return wdu_json_dump_file_ejs(json_of(text), path_of(name).c_str());
}

PROMISE(documents, "wdu_json_load_file_ejs",
        "path; the document, or NULL when it is missing or invalid")
{
    SAME(0, dump("{\"start_time\":1768478400}", "x.ejs"));
    const std::string good = file_bytes(path_of("x.ejs"));

    for (size_t at = 0; at < good.size(); at++) {
        std::string changed = good;
        changed[at] = static_cast<char>(changed[at] ^ 0x10);
        check_case("truncated to " + std::to_string(at) + " bytes");
        file_write(path_of("x.ejs"), good.substr(0, at));
        SAME("(none)", load("x.ejs"));
        check_case("byte " + std::to_string(at) + " changed");
        file_write(path_of("x.ejs"), changed);
        SAME("(none)", load("x.ejs"));
    }
}

PROMISE(documents, "wdu_json_dump_file_ejs",
        "document, path; 0 when written; otherwise the file is unchanged")
{
    SAME(0, dump("{\"a\":1}", "x.ejs"));
    check_case("no object");
    SAME(-1, dump("[]", "x.ejs"));
    check_case("no directory");
    SAME(-1, dump("{}", "none/x.ejs"));
    HANDLE held = CreateFileW(wide_of(path_of("x.ejs")).c_str(), GENERIC_READ, FILE_SHARE_READ,
                              nullptr, OPEN_EXISTING, 0, nullptr);
    check_case("a file that is open");
    SAME(-1, dump("{\"b\":2}", "x.ejs"));
    CloseHandle(held);
    SAME("{\"a\":1}", load("x.ejs"));
    SAME(0, dump("{}", "x.ejs"));
    SAME("{}", load("x.ejs"));
}

PROMISE(documents, "wdu_json_load_file_ejs", "new, released with `wdu_json_delete_ejs`")
{
    SAME(0, dump(DOCUMENT, "\xe6\x97\xa5.ejs"));
    SAME(DOCUMENT, load("\xe6\x97\xa5.ejs")); /* members in their order */
    SAME("(none)", load("none.ejs"));
    SAME("(none)", load("none/none.ejs"));
}

PROMISE(documents, "wdu_json_object_get_ejs", "document, member; the value or NULL")
{
    json_t *document = json_of(DOCUMENT);
    SAME(-5, json_integer_value(
                 wdu_json_object_get_ejs(wdu_json_object_get_ejs(document, "data"), "k")));
    HOLDS(wdu_json_object_get_ejs(document, "none") == nullptr);
    HOLDS(wdu_json_object_get_ejs(nullptr, "none") == nullptr);
}

PROMISE(documents, "wdu_json_delete_ejs", "document or NULL")
{
    json_t *document = json_of(DOCUMENT);
    wdu_json_delete_ejs(json_incref(document));
    SAME(1, document->refcount);
    wdu_json_delete_ejs(nullptr);
}

static void values_of_other_types()
{
    json_t *const object = json_of("{\"a\":1}"), *const text = json_of("\"t\"");

    for (json_t *one : {object, static_cast<json_t *>(nullptr)}) {
        SAME(static_cast<const char *>(nullptr), json_string_value(one));
        SAME(0, json_integer_value(one));
        SAME(0, json_array_size(one));
        HOLDS(json_array_get(one, 0) == nullptr);
    }
    HOLDS(json_object_get(text, "a") == nullptr && json_object_get(nullptr, "a") == nullptr);
    SAME("t", json_string_value(text));
    SAME(0, json_integer_value(text));
}

/* Whether a container that is NULL, or of another type, releases the value. */
PROMISE(json, "wdu_json_object_set_new",
        "container and value; if either is NULL, the value is released and the result is not 0")
{
    json_t *value = json_of("\"v\""), *object = json_of("{}"), *array = json_of("[]");

    HOLDS(json_object_set_new(nullptr, "a", json_incref(value)) != 0);
    HOLDS(json_object_set_new(array, "a", json_incref(value)) != 0);
    HOLDS(json_array_append_new(nullptr, json_incref(value)) != 0);
    HOLDS(json_object_set_new(object, "a", nullptr) != 0);
    HOLDS(json_array_append_new(array, nullptr) != 0);
    SAME(1, value->refcount);
    SAME(0, json_object_set_new(object, "a", json_incref(value)));
    SAME(0, json_array_append_new(array, json_incref(value)));
    SAME(3, value->refcount);
    SAME("{\"a\":\"v\"}", json_text(object));
    SAME("[\"v\"]", json_text(array));
}

PROMISE(json, "wdu_json_object", "a new value, or NULL when memory runs out")
{
    json_t *all = json_object();
    json_object_set_new(all, "a", json_array());
    json_object_set_new(all, "s", json_string("\xc3\xa4"));
    json_object_set_new(all, "i", json_integer(-5));
    SAME("{\"a\":[],\"s\":\"\xc3\xa4\",\"i\":-5}", json_text(all));
    HOLDS(json_string("\xff") == nullptr);
    json_decref(all);
}

PROMISE_BY(values_of_other_types, json, "wdu_json_object_get", "container of any type, or NULL")

PROMISE_BY(values_of_other_types, json, "wdu_json_string_value",
           "a value of any type, or NULL: NULL and 0 for another type")

PROMISE(json, "wdu_json_array_size", "array; 0 for any other type")
{
    SAME(2, json_array_size(json_of("[1, [3, 4, 5]]")));
    SAME(0, json_array_size(json_of("{\"a\":1}")));
}

PROMISE(json, "wdu_json_object_del",
        "object, member that may be missing; clearing allocates nothing")
{
    json_t *object = json_of("{\"a\":1,\"b\":2,\"c\":3}");
    SAME(0, json_object_del(object, "a"));
    SAME(-1, json_object_del(object, "a"));
    SAME("{\"b\":2,\"c\":3}", json_text(object));
    SAME(0, json_object_clear(object));
    SAME("{}", json_text(object));
}

PROMISE(json, "wdu_json_integer_set", "an integer and its new value; allocates nothing")
{
    json_t *number = json_of("5"), *text = json_of("\"t\"");
    SAME(0, json_integer_set(number, INT64_MIN));
    SAME(INT64_MIN, json_integer_value(number));
    SAME(-1, json_integer_set(text, 1));
}

PROMISE(json, "wdu_json_loads", "text; NULL for invalid JSON")
{
    for (const char *text : {"", "{", "[1,]", "{\"a\":\"\xff\"}", "[1] 2"}) {
        check_case(text);
        HOLDS(json_loads(text, 0, nullptr) == nullptr);
        HOLDS(json_loadb(text, strlen(text), 0, nullptr) == nullptr);
    }
    json_t *one = json_loadb("[1]2", 3, 0, nullptr);
    SAME("[1]", json_text(one));
    json_decref(one);
}

PROMISE(json, "wdu_json_dumps",
        "value; flags 0, or JSON_INDENT(4) for the alarm's line in the log: members in insertion "
        "order")
{
    json_t *document = json_of("{\"z\":1,\"a\":[2]}");
    SAME("{\"z\": 1, \"a\": [2]}", json_text(document, 0));
    SAME("{\n    \"z\": 1,\n    \"a\": [\n        2\n    ]\n}",
         json_text(document, JSON_INDENT(4)));
}

PROMISE(json, "wdu_json_get_alloc_funcs", "the free function")
{
    json_free_t release = nullptr;
    json_get_alloc_funcs(nullptr, &release);
    HOLDS(release != nullptr);
    release(nullptr);
}

PROMISE(json, "wdu_json_delete", "called through `json_decref` when the last reference is released")
{
    json_t *inner = json_of("{}"), *outer = json_array();
    json_array_append_new(outer, json_incref(inner));
    SAME(2, inner->refcount);
    json_decref(outer);
    SAME(1, inner->refcount);
}
