/* Comparison of two results. */
#include "commands.h"

#include <cstdio>

#include <algorithm>

#include "../base/file.h"
#include "../base/text.h"
#include "../scenario/scenario.h"

static constexpr uint64_t MOST_BYTES = 256ull << 20;

/* Members of a result that are compared, and the members of list elements that are printed. */
static const struct {
    const char *member;
    rapidjson::Type type;
    std::vector<const char *> shown; /* of an element; none: the whole value */
} s_members[] = {
    {"plugin",   rapidjson::kObjectType, {}                        },
    {"boot",     rapidjson::kNumberType, {}                        },
    {"verdict",  rapidjson::kStringType, {}                        },
    {"blamed",   rapidjson::kNullType,   {}                        }, /* or a text */
    {"records",  rapidjson::kArrayType,  {"record", "source", "id"}},
    {"dumps",    rapidjson::kArrayType,  {"file", "fate"}          },
    {"stack",    rapidjson::kArrayType,  {"text"}                  },
    {"commands", rapidjson::kArrayType,  {"to", "message"}         },
    {"alarms",   rapidjson::kArrayType,  {"message"}               },
    {"products", rapidjson::kArrayType,  {"name", "at_the_end"}    },
    {"reasons",  rapidjson::kArrayType,  {"topic", "text"}         },
};

static void load_result(const std::string &file, rapidjson::Document *document)
{
    scenario_load_evidence(*document, file, MOST_BYTES, EXIT_BAD_EVIDENCE);
    if (node_text_of(document, "schema", "") != REPLAY_SCHEMA)
        evidence_bad(file, "expected a result of replay --json, \"schema\": \"" REPLAY_SCHEMA "\"");
    if (node_integer_of(document, "version", 0) != 1)
        evidence_bad(file, "/version: expected 1");
    for (const auto &row : s_members) {
        const json_value *value = node_member(document, row.member);
        const bool text_or_null =
            row.type == rapidjson::kNullType && value != nullptr && value->IsString();

        if (value == nullptr || (value->GetType() != row.type && !text_or_null))
            evidence_bad(file,
                         std::string("/") + row.member +
                             (value == nullptr ? ": member is missing" : ": has another type"));
    }
}

/* "to power, message {...}" */
static std::string element_text(const json_value &element, const std::vector<const char *> &shown)
{
    std::string text;

    for (const char *name : shown) {
        const json_value *value = node_member(&element, name);

        if (value != nullptr)
            text += std::string(text.empty() ? "" : ", ") + name + " " +
                    (value->IsString() ? value->GetString() : node_to_text(*value));
    }
    return text;
}

static std::vector<std::string> list_texts(const json_value &list,
                                           const std::vector<const char *> &shown)
{
    std::vector<std::string> texts;

    for (const json_value &element : list.GetArray())
        texts.push_back(element_text(element, shown));
    return texts;
}

/* Prints the elements that one list has more often than the other. */
static bool show_missing(const char *member, const std::vector<std::string> &texts,
                         std::vector<std::string> others, char sign)
{
    bool any = false;

    for (const std::string &text : texts) {
        const auto found = std::find(others.begin(), others.end(), text);

        if (found != others.end()) {
            others.erase(found);
            continue;
        }
        printf("%c %s: %s\n", sign, member, text.c_str());
        any = true;
    }
    return any;
}

/* Results of earlier builds have no answer. */
static bool show_answer(const rapidjson::Document &old_result,
                        const rapidjson::Document &new_result)
{
    const std::string before = node_text_of(&old_result, "answer", ""),
                      after = node_text_of(&new_result, "answer", "");

    if (before.empty() || after.empty() || before == after)
        return false;
    printf("  answer: \"%s\" -> \"%s\"\n", before.c_str(), after.c_str());
    return true;
}

int replay_diff(const std::string &old_file, const std::string &new_file)
{
    rapidjson::Document old_result, new_result;
    bool differs = false;

    load_result(old_file, &old_result);
    load_result(new_file, &new_result);
    for (const auto &row : s_members) {
        const json_value &before = *node_member(&old_result, row.member);
        const json_value &after = *node_member(&new_result, row.member);

        if (row.type == rapidjson::kArrayType) {
            const std::vector<std::string> old_texts = list_texts(before, row.shown),
                                           new_texts = list_texts(after, row.shown);

            differs |= show_missing(row.member, old_texts, new_texts, '-');
            differs |= show_missing(row.member, new_texts, old_texts, '+');
        } else if (before != after) {
            printf("  %s: %s -> %s\n", row.member, node_to_text(before).c_str(),
                   node_to_text(after).c_str());
            differs = true;
        }
    }
    differs |= show_answer(old_result, new_result);
    if (!differs)
        printf("Nothing differs.\n");
    return differs ? EXIT_EXPECTATION_FAILED : EXIT_ALL_HOLD;
}
