/*
 * A scenario file, and its values with their places. docs/scenarios.md gives the meaning of each
 * member.
 */
#ifndef DEVHOST_SCENARIO_H
#define DEVHOST_SCENARIO_H

#include <cstdint>

#include <map>
#include <string>
#include <utility>
#include <vector>

#include "../base/json.h"

struct scenario {
    std::string file;   /* as named on the command line */
    std::string folder; /* of relative paths in it, with a trailing slash; or empty */
    std::map<std::string, std::string> defines; /* values of {name} in paths */
    std::string text;                           /* of the file; empty: the document was generated */
    rapidjson::Document document;
};

/* Reads a JSON file of another form. Throws devhost_error with that status. Returns its text.
 * scenario_load_evidence does not trust the file: one that cannot be read, or has more than most_bytes, is bad
 * evidence. */
std::string scenario_load_json(rapidjson::Document &document, const std::string &file, int status);
void scenario_load_evidence(rapidjson::Document &document, const std::string &file,
                            uint64_t most_bytes, int status);

/* A value of a scenario, which must outlive it. Converts to false when it is missing; then it has no
 * members and no elements. */
class node
{
  public:
    node() = default;
    node(const struct scenario &scenario, const json_value *value)
        : scenario_(&scenario), value_(value)
    {
    }
    /* The whole document. */
    explicit node(const struct scenario &scenario) : node(scenario, &scenario.document)
    {
    }

    explicit operator bool() const
    {
        return value_ != nullptr;
    }
    /* A missing value reads as null. */
    const json_value &operator*() const
    {
        static const json_value none;

        return value_ != nullptr ? *value_ : none;
    }
    const json_value *operator->() const
    {
        return value_;
    }

    /* Returns the whole document. */
    node root() const
    {
        return node(*scenario_);
    }
    node operator[](const char *member) const;
    std::vector<node> elements() const;
    std::vector<std::pair<std::string, node>> members() const;

    /* Return a member, or the default when it is missing or of another type. */
    std::string text(const char *member, const std::string &missing = "") const
    {
        return node_text_of(value_, member, missing);
    }
    double number(const char *member, double missing) const
    {
        return node_number_of(value_, member, missing);
    }
    int64_t integer(const char *member, int64_t missing) const
    {
        return node_integer_of(value_, member, missing);
    }
    bool flag(const char *member, bool missing) const
    {
        return node_flag_of(value_, member, missing);
    }
    bool is_null(const char *member) const
    {
        return node_is_null(value_, member);
    }

    /* Returns this text as a path of an evidence file: {name} replaced, relative to the scenario's
     * folder. Throws devhost_error with EXIT_SKIPPED for an undefined name. */
    std::string path() const;

    /* Returns "FILE:LINE:COLUMN: /member/0"; without line and column for a generated document. */
    std::string place() const;
    /* Throws devhost_error that names the place. */
    [[noreturn]] void bad(const std::string &what) const;

  private:
    const struct scenario *scenario_ = nullptr;
    const json_value *value_ = nullptr;
};

#endif
