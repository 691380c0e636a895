/* Expectations of the present state: products, timers, files, registry. */
#include "expect_internal.h"

#include <oxni/base/ejs.h>

#include "../../platform/liboxni_core/host.h"
#include "../agent/agent.h"
#include "../base/text.h"
#include "../disk/files.h"
#include "../machine/registry.h"
#include "../participants/machine_setup.h"
#include "../participants/observe.h"
#include "../participants/products.h"
#include "../scenario/match.h"
#include "../scenario/timeline.h"

void expect_fail(const expect_context &context, const std::string &why)
{
    if (!why.empty())
        context.failures.push_back(context.value.place() + ": " + why);
}

void expect_count(const expect_context &context, const node &expected, uint64_t count,
                  const std::string &what)
{
    if (count != expected->GetUint64())
        expect_fail(context, text_format("%llu%s, expected %llu", count, what.c_str(),
                                         expected->GetUint64()));
}

/* Pending timers by their delay in ms. */
static void check_timers(const expect_context &context)
{
    for (const auto &[delay, value] : context.value.members())
        expect_count(context, value, observe_timers(strtoull(delay.c_str(), nullptr, 10)),
                     " timers of " + delay + " ms");
}

static void check_references(const expect_context &context)
{
    for (const auto &[name, value] : context.value.members()) {
        oxni_subscriber *handle = subscriber_seen(name);

        if (handle == nullptr)
            expect_fail(context,
                        "no subscriber \"" + name + "\" was seen since the start of the agent");
        else
            expect_count(context, value, oxnih_subscriber_references(handle),
                         " references to " + name);
    }
}

static void check_products(const expect_context &context)
{
    for (const auto &[name, value] : context.value.members()) {
        rapidjson::Document actual;

        actual.Parse(product_state_text(name).c_str());
        expect_fail(context, match_json(*value, actual, name));
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
        expect_fail(context, match_json(*value, actual, name));
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
            expect_fail(context,
                        key + ": " + name + " is \"" + text + "\", expected no such value");
        else if (data && (!there || !match_text(text, wanted)))
            expect_fail(context, key + ": " + name +
                                     (there ? " is \"" + text + "\"" : " is missing") +
                                     ", expected \"" + wanted + "\"");
    }
}

static void check_keys(const expect_context &context)
{
    for (const auto &[name, value] : context.value.members())
        if (machine_key_exists(text_wide(name)) != value->GetBool())
            expect_fail(context, name + (value->GetBool() ? " is missing" : " exists"));
}

/* Members of an expected file: what they look at, as text. */
static std::string file_member(const std::wstring &path, const std::string &member)
{
    std::string bytes = machine_read_real_file(machine_real_path(path), EXIT_BAD_CALL);
    machine_times times = machine_file_times(path);

    if (member == "text")
        return bytes;
    if (member == "bytes")
        return text_hex(bytes);
    if (member == "record_count")
        return std::to_string(machine_setup_record_count(bytes));
    if (member == "size")
        return std::to_string(bytes.size());
    return time_iso(member == "written" ? times.written_100ns : times.created_100ns);
}

static void check_file_member(const expect_context &context, const std::string &name,
                              const std::string &member, const node &value)
{
    std::string actual = file_member(machine_setup_path(name), member);
    std::string expected = value->IsString() ? value->GetString() : node_to_text(*value);

    if ((member == "written" || member == "created"))
        expected = time_iso(timeline_time(value, 0));
    if (!match_text(actual, expected))
        expect_fail(context, name + ": " + member + " is \"" + actual + "\", expected \"" +
                                 match_expand(expected) + "\"");
}

/* true or false: whether it exists; a text: its content; a number: the count of a crash record. */
static void check_files(const expect_context &context)
{
    for (const auto &[name, value] : context.value.members()) {
        bool exists = machine_file_exists(machine_setup_path(name));
        bool wanted = !value->IsBool() || value->GetBool();

        if (exists != wanted)
            expect_fail(context, name + (wanted ? " is missing" : " exists"));
        else if (value->IsString())
            check_file_member(context, name, "text", value);
        else if (value->IsInt64())
            check_file_member(context, name, "record_count", value);
        else if (exists)
            for (const auto &[member, its] : value.members())
                check_file_member(context, name, member, its);
    }
}

static void check_agent(const expect_context &context)
{
    static const char *const words[] = {"running", "stopped", "exited"};

    if (words[agent_state_get()] != std::string(context.value->GetString()))
        expect_fail(context, std::string("is ") + words[agent_state_get()] + ", expected " +
                                 context.value->GetString());
}

static void check_pending_replies(const expect_context &context)
{
    expect_count(context, context.value, oxnih_core_pending_replies(), "");
}

static const expect_member s_members[] = {
    {"timers",          check_timers         },
    {"references",      check_references     },
    {"products",        check_products       },
    {"documents",       check_documents      },
    {"registry",        check_registry       },
    {"keys",            check_keys           },
    {"files",           check_files          },
    {"agent",           check_agent          },
    {"pending_replies", check_pending_replies},
};

bool expect_state(const std::string &name, const expect_context &context)
{
    for (const expect_member &member : s_members)
        if (name == member.name) {
            member.check(context);
            return true;
        }
    return false;
}
