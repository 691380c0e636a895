/* JSON values, read tolerantly: a member that is missing or of another type has a default. */
#ifndef DEVHOST_JSON_H
#define DEVHOST_JSON_H

#include <cstdint>

#include <string>
#include <vector>

#include <windows.h>
/* Windows' macro would rename RapidJSON's member. */
#undef GetObject
#include <rapidjson/document.h>

typedef rapidjson::Value json_value;

/* Returns a member; NULL when it or the object is missing. */
const json_value *node_member(const json_value *object, const char *name);
/* Return the value of a member. */
std::string node_text_of(const json_value *object, const char *name, const std::string &missing);
double node_number_of(const json_value *object, const char *name, double missing);
int64_t node_integer_of(const json_value *object, const char *name, int64_t missing);
bool node_flag_of(const json_value *object, const char *name, bool missing);
bool node_is_null(const json_value *object, const char *name);
/* Returns the elements of an array member; none when it is missing. */
std::vector<const json_value *> node_elements(const json_value *object, const char *name);
/* Returns the JSON text of a value, with separators "," and ":". */
std::string node_to_text(const json_value &value);

#endif
