/*
 * A scenario file: read, checked against its schema, and reached through small accessors. What each
 * member means is told in docs/scenarios.md.
 */
#ifndef DEVHOST_SCENARIO_H
#define DEVHOST_SCENARIO_H

#include <stdint.h>

#include <map>
#include <string>
#include <vector>

#include <windows.h>
/* It would rename RapidJSON's member in whatever is included from here on. */
#undef GetObject
#include <rapidjson/document.h>

typedef rapidjson::Value json_value;

struct scenario {
    std::string file;   /* as named on the command line */
    std::string folder; /* that paths in it are relative to, with a trailing slash, or empty */
    std::map<std::string, std::string> defines; /* what {name} in a path stands for */
    rapidjson::Document document;
};

/* Reads and checks a file. Throws devhost_error that names the file, the member and what was
 * expected. */
void scenario_load(struct scenario &scenario, const std::string &file,
                   const std::map<std::string, std::string> &defines);

/* Checks a document that was made and not read, as scenario_load does. Throws devhost_error. */
void scenario_check(const struct scenario &scenario);

/* A JSON file in a form of its own, for evidence that a scenario names. Throws devhost_error with
 * that status. */
void scenario_load_json(rapidjson::Document &document, const std::string &file, int status);

/* A path that the scenario names: {name} replaced, relative ones below the scenario's folder.
 * Throws devhost_error with EXIT_SKIPPED when a name is not defined. */
std::string scenario_path(const struct scenario &scenario, const std::string &path);

/* Ends the run over something that the schema cannot check. where: a JSON pointer. */
[[noreturn]] void scenario_bad(const struct scenario &scenario, const std::string &where,
                               const std::string &what);

/* A member; NULL when it or the object is missing. */
const json_value *node_member(const json_value *object, const char *name);
/* Members with what they are when missing or of another type. */
std::string node_text_of(const json_value *object, const char *name, const std::string &missing);
double node_number_of(const json_value *object, const char *name, double missing);
int64_t node_integer_of(const json_value *object, const char *name, int64_t missing);
bool node_flag_of(const json_value *object, const char *name, bool missing);
bool node_is_null(const json_value *object, const char *name);
/* The elements of an array member; none when it is missing. */
std::vector<const json_value *> node_elements(const json_value *object, const char *name);
/* JSON text of a value, separators "," and ":". */
std::string node_to_text(const json_value &value);

#endif
