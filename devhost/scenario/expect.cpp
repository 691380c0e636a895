/*
 * Expectations: each member of an "expect" looks at one side of what happened since the boot's
 * start or its last expectation.
 */
#include "expect.h"

#include <oxni/base/ejs.h>

#include "../../platform/liboxni_core/host.h"
#include "../agent/agent.h"
#include "../machine/calls.h"
#include "../machine/machine.h"
#include "../base/text.h"
#include "match.h"
#include "journal.h"
#include "machine_setup.h"
#include "products.h"

struct expect_context {
    const struct scenario &scenario;
    std::string where; /* of the member */
    const json_value &value;
    std::vector<std::string> &failures;
};

/* First happening that the next expectation looks at. */
static size_t s_from;

static void fail(const expect_context &context, const std::string &why)
{
    context.failures.push_back(context.scenario.file + ": " + context.where + ": " + why);
}

static void check(const expect_context &context, const std::string &why)
{
    if (!why.empty())
        fail(context, why);
}

static std::vector<const happening *> happenings(enum happening_kind kind)
{
    const std::vector<happening> &all = journal_all();
    std::vector<const happening *> found;

    for (size_t i = s_from; i < all.size(); i++)
        if (all[i].kind == kind && all[i].boot == journal_boot())
            found.push_back(&all[i]);
    return found;
}

/* A happening with a message as JSON: the message's members behind "at" in seconds and to or from
 * whom. */
static void message_json(const happening &what, const char *whom_member, const std::string &whom,
                         rapidjson::Document &json)
{
    json_value at(static_cast<double>(what.ms) / 1000.0), name;

    json.Parse(what.json.empty() ? "{}" : what.json.c_str());
    if (!json.IsObject())
        json.SetObject();
    auto &memory = json.GetAllocator();
    name.SetString(whom.c_str(), memory);
    json.AddMember("at", at, memory);
    json.AddMember(rapidjson::StringRef(whom_member), name, memory);
}

/* Messages of a kind, in order, as many as expected and each fitting. */
static void check_messages(const expect_context &context, enum happening_kind kind,
                           const char *whom_member)
{
    std::vector<const happening *> found = happenings(kind);
    size_t index = 0;

    for (const json_value &expected : context.value.GetArray()) {
        rapidjson::Document actual;
        std::string place = "[" + std::to_string(index) + "]";

        if (index == found.size()) {
            fail(context, place + " did not come, expected " + node_to_text(expected));
            return;
        }
        const std::string &whom = kind == HAPPENED_COMMAND ? found[index]->whom : found[index]->who;
        message_json(*found[index], whom_member, whom, actual);
        check(context, match_json(expected, actual, place));
        index++;
    }
    if (index < found.size())
        fail(context,
             text_format("%u came, expected %u; the next is ", static_cast<unsigned>(found.size()),
                         static_cast<unsigned>(index)) +
                 found[index]->text + " " + found[index]->json);
}

static void check_commands(const expect_context &context)
{
    check_messages(context, HAPPENED_COMMAND, "to");
}

static void check_product_messages(const expect_context &context)
{
    check_messages(context, HAPPENED_MESSAGE, "from");
}

/* Uploads are compared as they stand. */
static void check_uploads(const expect_context &context)
{
    std::vector<const happening *> found = happenings(HAPPENED_UPLOAD);
    size_t index = 0;

    if (found.size() != context.value.Size())
        fail(context, text_format("%u came, expected %u", static_cast<unsigned>(found.size()),
                                  context.value.Size()));
    for (; index < found.size() && index < context.value.Size(); index++) {
        rapidjson::Document actual;

        actual.Parse(found[index]->json.c_str());
        check(context, match_json(context.value[static_cast<rapidjson::SizeType>(index)], actual,
                                  "[" + std::to_string(index) + "]"));
    }
}

/* The texts in order; others may stand between them. */
static void check_in_order(const expect_context &context, enum happening_kind kind)
{
    std::vector<const happening *> found = happenings(kind);
    size_t at = 0;

    for (const json_value &expected : context.value.GetArray()) {
        std::string pattern = "*" + match_expand(expected.GetString()) + "*";
        size_t start = at;

        while (at < found.size() && !text_fits(found[at]->text, pattern))
            at++;
        if (at == found.size()) {
            fail(context,
                 text_format("no \"%s\" behind number %u of %u", expected.GetString(),
                             static_cast<unsigned>(start), static_cast<unsigned>(found.size())));
            return;
        }
        at++;
    }
}

static void check_none(const expect_context &context, enum happening_kind kind)
{
    for (const json_value &pattern : context.value.GetArray())
        for (const happening *what : happenings(kind))
            if (text_fits(what->text, "*" + match_expand(pattern.GetString()) + "*")) {
                fail(context, "came although it should not: " + what->text);
                return;
            }
}

/* As many as expected, each fitting. */
static void check_list(const expect_context &context, enum happening_kind kind)
{
    std::vector<const happening *> found = happenings(kind);

    if (found.size() != context.value.Size()) {
        fail(context, text_format("%u came, expected %u%s%s", static_cast<unsigned>(found.size()),
                                  context.value.Size(), found.empty() ? "" : "; the first is ",
                                  found.empty() ? "" : found[0]->text.c_str()));
        return;
    }
    for (size_t i = 0; i < found.size(); i++) {
        const json_value &expected = context.value[static_cast<rapidjson::SizeType>(i)];

        if (!text_fits(found[i]->text, match_expand(expected.GetString())))
            fail(context, "[" + std::to_string(i) + "] is \"" + found[i]->text + "\", expected \"" +
                              match_expand(expected.GetString()) + "\"");
    }
}

static void check_log(const expect_context &context)
{
    check_in_order(context, HAPPENED_LOG);
}

static void check_no_log(const expect_context &context)
{
    check_none(context, HAPPENED_LOG);
}

static void check_log_counts(const expect_context &context)
{
    for (const auto &member : context.value.GetObject()) {
        std::string pattern = std::string("*") + match_expand(member.name.GetString()) + "*";
        int64_t count = 0;

        for (const happening *what : happenings(HAPPENED_LOG))
            count += text_fits(what->text, pattern) ? 1 : 0;
        if (count != member.value.GetInt64())
            fail(context, text_format("\"%s\" came %lld times, expected %lld",
                                      member.name.GetString(), static_cast<long long>(count),
                                      static_cast<long long>(member.value.GetInt64())));
    }
}

static void check_echo(const expect_context &context)
{
    check_list(context, HAPPENED_ECHO);
}

static void check_refused(const expect_context &context)
{
    check_list(context, HAPPENED_REFUSED);
}

static void check_complaints(const expect_context &context)
{
    check_list(context, HAPPENED_COMPLAINT);
}

static void check_calls(const expect_context &context)
{
    check_in_order(context, HAPPENED_CALL);
}

static void check_no_calls(const expect_context &context)
{
    check_none(context, HAPPENED_CALL);
}

static void check_call_counts(const expect_context &context)
{
    for (const auto &member : context.value.GetObject()) {
        uint64_t count = calls_count(member.name.GetString());

        if (!calls_known(member.name.GetString()))
            fail(context, std::string(member.name.GetString()) + " is no call that is counted");
        if (count != member.value.GetUint64())
            fail(context,
                 text_format("%s was called %llu times, expected %llu", member.name.GetString(),
                             static_cast<unsigned long long>(count),
                             static_cast<unsigned long long>(member.value.GetUint64())));
    }
}

static void check_products(const expect_context &context)
{
    for (const auto &member : context.value.GetObject()) {
        rapidjson::Document actual;

        actual.Parse(product_state_text(member.name.GetString()).c_str());
        check(context, match_json(member.value, actual, member.name.GetString()));
    }
}

/* Documents of the plug-in by file name; null: the file must not be there. */
static void check_documents(const expect_context &context)
{
    for (const auto &member : context.value.GetObject()) {
        std::string name = member.name.GetString();
        json_t *document = wdu_json_load_file_ejs(agent_data_path(name).c_str());
        rapidjson::Document actual;

        actual.Parse(text_of_json(document).c_str());
        wdu_json_delete_ejs(document);
        check(context, match_json(member.value, actual, name));
    }
}

static void check_registry(const expect_context &context)
{
    for (const json_value &expected : context.value.GetArray()) {
        std::string key = node_text_of(&expected, "key", ""), text;
        std::string name = node_text_of(&expected, "name", "");
        bool there = machine_get_value(text_wide(key), text_wide(name), &text);
        const json_value *data = node_member(&expected, "data");
        std::string wanted =
            data == NULL ? "" : (data->IsString() ? data->GetString() : node_to_text(*data));

        if (data == NULL && there)
            fail(context, key + ": " + name + " is \"" + text + "\", expected no such value");
        else if (data != NULL && (!there || !text_fits(text, match_expand(wanted))))
            fail(context, key + ": " + name + (there ? " is \"" + text + "\"" : " is missing") +
                              ", expected \"" + wanted + "\"");
    }
}

static void check_keys(const expect_context &context)
{
    for (const auto &member : context.value.GetObject())
        if (machine_key_exists(text_wide(member.name.GetString())) != member.value.GetBool())
            fail(context, std::string(member.name.GetString()) +
                              (member.value.GetBool() ? " is missing" : " is there"));
}

/* true or false: there or not; a text: its content; a number: the count of a crash record. */
static void check_files(const expect_context &context)
{
    for (const auto &member : context.value.GetObject()) {
        std::wstring wide = machine_setup_path(member.name.GetString());
        bool there = machine_file_exists(wide);
        bool wanted = !member.value.IsBool() || member.value.GetBool();
        std::string name = member.name.GetString();
        std::string content;

        if (there != wanted) {
            fail(context, name + (wanted ? " is missing" : " is there"));
            continue;
        }
        if (member.value.IsBool())
            continue;
        content = machine_read_real_file(machine_real_path(wide), EXIT_BAD_CALL);
        if (member.value.IsInt64())
            content = std::to_string(machine_setup_record_count(content));
        std::string expected = member.value.IsString() ? match_expand(member.value.GetString())
                                                       : node_to_text(member.value);
        if (!text_fits(content, expected))
            fail(context, name + " holds \"" + content + "\", expected \"" + expected + "\"");
    }
}

static void check_agent(const expect_context &context)
{
    static const char *const words[] = {"running", "stopped", "exited"};

    if (words[agent_state_get()] != std::string(context.value.GetString()))
        fail(context, std::string("is ") + words[agent_state_get()] + ", expected " +
                          context.value.GetString());
}

static void check_pending_replies(const expect_context &context)
{
    if (oxnih_core_pending_replies() != context.value.GetUint64())
        fail(context, text_format("%llu, expected %llu",
                                  static_cast<unsigned long long>(oxnih_core_pending_replies()),
                                  static_cast<unsigned long long>(context.value.GetUint64())));
}

static const struct {
    const char *member;
    void (*check)(const expect_context &context);
} s_checks[] = {
    {"commands",        check_commands        },
    {"messages",        check_product_messages},
    {"uploads",         check_uploads         },
    {"log",             check_log             },
    {"no_log",          check_no_log          },
    {"log_counts",      check_log_counts      },
    {"echo",            check_echo            },
    {"refused",         check_refused         },
    {"complaints",      check_complaints      },
    {"calls",           check_calls           },
    {"no_calls",        check_no_calls        },
    {"call_counts",     check_call_counts     },
    {"products",        check_products        },
    {"documents",       check_documents       },
    {"registry",        check_registry        },
    {"keys",            check_keys            },
    {"files",           check_files           },
    {"agent",           check_agent           },
    {"pending_replies", check_pending_replies },
};

/* A complaint or a refused message that nobody expects is a failure of its own. */
static void check_unexpected(const struct scenario &scenario, const std::string &where,
                             const json_value &expect, std::vector<std::string> &failures)
{
    static const struct {
        const char *member;
        enum happening_kind kind;
    } kinds[] = {
        {"complaints", HAPPENED_COMPLAINT},
        {"refused",    HAPPENED_REFUSED  }
    };

    for (const auto &row : kinds)
        if (node_member(&expect, row.member) == NULL)
            for (const happening *what : happenings(row.kind))
                failures.push_back(scenario.file + ": " + where + ": not expected: " + what->text);
}

void expect_check(const struct scenario &scenario, const std::string &where,
                  const json_value &expect, std::vector<std::string> &failures)
{
    for (const auto &row : s_checks) {
        const json_value *value = node_member(&expect, row.member);

        if (value != NULL)
            row.check({scenario, where + "/" + row.member, *value, failures});
    }
    check_unexpected(scenario, where, expect, failures);
    s_from = journal_all().size();
    calls_reset_counts();
}

void expect_no_complaints(const struct scenario &scenario, const std::string &where,
                          std::vector<std::string> &failures)
{
    for (const happening *what : happenings(HAPPENED_COMPLAINT))
        failures.push_back(scenario.file + ": " + where + ": not expected: " + what->text);
    s_from = journal_all().size();
}

void expect_start_boot(void)
{
    s_from = journal_all().size();
    calls_reset_counts();
}
