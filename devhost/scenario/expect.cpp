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
    const node &value; /* of the member */
    std::vector<std::string> &failures;
};

/* The first journal entry that the next expectation covers. */
static size_t s_from;

static void fail(const expect_context &context, const std::string &why)
{
    context.failures.push_back(context.value.place() + ": " + why);
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

    for (const node &expected : context.value.elements()) {
        rapidjson::Document actual;
        std::string place = "[" + std::to_string(index) + "]";

        if (index == found.size()) {
            fail(context, place + " did not come, expected " + node_to_text(*expected));
            return;
        }
        const std::string &whom = kind == HAPPENED_COMMAND ? found[index]->whom : found[index]->who;
        message_json(*found[index], whom_member, whom, actual);
        check(context, match_json(*expected, actual, place));
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

    if (found.size() != context.value->Size())
        fail(context, text_format("%u came, expected %u", static_cast<unsigned>(found.size()),
                                  context.value->Size()));
    for (; index < found.size() && index < context.value->Size(); index++) {
        rapidjson::Document actual;

        actual.Parse(found[index]->json.c_str());
        check(context, match_json((*context.value)[static_cast<rapidjson::SizeType>(index)], actual,
                                  "[" + std::to_string(index) + "]"));
    }
}

/* The texts in order; others may stand between them. */
static void check_in_order(const expect_context &context, enum happening_kind kind)
{
    std::vector<const happening *> found = happenings(kind);
    size_t at = 0;

    for (const node &expected : context.value.elements()) {
        std::string pattern = "*" + match_expand(expected->GetString()) + "*";
        size_t start = at;

        while (at < found.size() && !text_fits(found[at]->text, pattern))
            at++;
        if (at == found.size()) {
            fail(context,
                 text_format("no \"%s\" behind number %u of %u", expected->GetString(),
                             static_cast<unsigned>(start), static_cast<unsigned>(found.size())));
            return;
        }
        at++;
    }
}

static void check_none(const expect_context &context, enum happening_kind kind)
{
    for (const node &pattern : context.value.elements())
        for (const happening *what : happenings(kind))
            if (text_fits(what->text, "*" + match_expand(pattern->GetString()) + "*")) {
                fail(context, "came although it should not: " + what->text);
                return;
            }
}

/* As many as expected, each fitting. */
static void check_list(const expect_context &context, enum happening_kind kind)
{
    std::vector<const happening *> found = happenings(kind);

    if (found.size() != context.value->Size()) {
        fail(context, text_format("%u came, expected %u%s%s", static_cast<unsigned>(found.size()),
                                  context.value->Size(), found.empty() ? "" : "; the first is ",
                                  found.empty() ? "" : found[0]->text.c_str()));
        return;
    }
    for (size_t i = 0; i < found.size(); i++) {
        const json_value *expected = &(*context.value)[static_cast<rapidjson::SizeType>(i)];

        if (!text_fits(found[i]->text, match_expand(expected->GetString())))
            fail(context, "[" + std::to_string(i) + "] is \"" + found[i]->text + "\", expected \"" +
                              match_expand(expected->GetString()) + "\"");
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
    for (const auto &[name, value] : context.value.members()) {
        std::string pattern = "*" + match_expand(name) + "*";
        int64_t count = 0;

        for (const happening *what : happenings(HAPPENED_LOG))
            count += text_fits(what->text, pattern) ? 1 : 0;
        if (count != value->GetInt64())
            fail(context, text_format("\"%s\" occurs %lld times, expected %lld", name.c_str(),
                                      static_cast<long long>(count),
                                      static_cast<long long>(value->GetInt64())));
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
    for (const auto &[name, value] : context.value.members()) {
        uint64_t count = calls_count(name);

        if (!calls_known(name))
            fail(context, name + " is not a call that is counted");
        if (count != value->GetUint64())
            fail(context, text_format("%s was called %llu times, expected %llu", name.c_str(),
                                      static_cast<unsigned long long>(count),
                                      static_cast<unsigned long long>(value->GetUint64())));
    }
}

static void check_products(const expect_context &context)
{
    for (const auto &[name, value] : context.value.members()) {
        rapidjson::Document actual;

        actual.Parse(product_state_text(name).c_str());
        check(context, match_json(*value, actual, name));
    }
}

/* Documents of the plug-in by file name; null: the file must not be there. */
static void check_documents(const expect_context &context)
{
    for (const auto &[name, value] : context.value.members()) {
        json_t *document = wdu_json_load_file_ejs(agent_data_path(name).c_str());
        rapidjson::Document actual;

        actual.Parse(text_of_json(document).c_str());
        wdu_json_delete_ejs(document);
        check(context, match_json(*value, actual, name));
    }
}

static void check_registry(const expect_context &context)
{
    for (const node &expected : context.value.elements()) {
        std::string key = expected.text("key"), name = expected.text("name"), text;
        bool there = machine_get_value(text_wide(key), text_wide(name), &text);
        node data = expected["data"];
        std::string wanted = !data              ? ""
                             : data->IsString() ? data->GetString()
                                                : node_to_text(*data);

        if (!data && there)
            fail(context, key + ": " + name + " is \"" + text + "\", expected no such value");
        else if (data && (!there || !text_fits(text, match_expand(wanted))))
            fail(context, key + ": " + name + (there ? " is \"" + text + "\"" : " is missing") +
                              ", expected \"" + wanted + "\"");
    }
}

static void check_keys(const expect_context &context)
{
    for (const auto &[name, value] : context.value.members())
        if (machine_key_exists(text_wide(name)) != value->GetBool())
            fail(context, name + (value->GetBool() ? " is missing" : " exists"));
}

/* true or false: there or not; a text: its content; a number: the count of a crash record. */
static void check_files(const expect_context &context)
{
    for (const auto &[name, value] : context.value.members()) {
        std::wstring wide = machine_setup_path(name);
        bool there = machine_file_exists(wide);
        bool wanted = !value->IsBool() || value->GetBool();
        std::string content;

        if (there != wanted) {
            fail(context, name + (wanted ? " is missing" : " exists"));
            continue;
        }
        if (value->IsBool())
            continue;
        content = machine_read_real_file(machine_real_path(wide), EXIT_BAD_CALL);
        if (value->IsInt64())
            content = std::to_string(machine_setup_record_count(content));
        std::string expected =
            value->IsString() ? match_expand(value->GetString()) : node_to_text(*value);
        if (!text_fits(content, expected))
            fail(context, name + " contains \"" + content + "\", expected \"" + expected + "\"");
    }
}

static void check_agent(const expect_context &context)
{
    static const char *const words[] = {"running", "stopped", "exited"};

    if (words[agent_state_get()] != std::string(context.value->GetString()))
        fail(context, std::string("is ") + words[agent_state_get()] + ", expected " +
                          context.value->GetString());
}

static void check_pending_replies(const expect_context &context)
{
    if (oxnih_core_pending_replies() != context.value->GetUint64())
        fail(context, text_format("%llu, expected %llu",
                                  static_cast<unsigned long long>(oxnih_core_pending_replies()),
                                  static_cast<unsigned long long>(context.value->GetUint64())));
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

static void check_unexpected(const node &where, enum happening_kind kind,
                             std::vector<std::string> &failures)
{
    for (const happening *what : happenings(kind))
        failures.push_back(where.place() + ": not expected: " + what->text);
}

void expect_check(const node &expect, std::vector<std::string> &failures)
{
    for (const auto &row : s_checks)
        if (node value = expect[row.member])
            row.check({value, failures});
    if (!expect["complaints"])
        check_unexpected(expect, HAPPENED_COMPLAINT, failures);
    if (!expect["refused"])
        check_unexpected(expect, HAPPENED_REFUSED, failures);
    expect_start_boot();
}

void expect_no_complaints(const node &boot, std::vector<std::string> &failures)
{
    check_unexpected(boot, HAPPENED_COMPLAINT, failures);
    s_from = journal_all().size();
}

void expect_start_boot(void)
{
    s_from = journal_all().size();
    calls_reset_counts();
}
