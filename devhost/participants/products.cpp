/*
 * The products of a scenario: agent modules that register with the plug-in, keep their own status
 * and count over restarts, and answer commands.
 */
#include "products.h"

#include <list>
#include <map>

#include <oxni/base/json.h>
#include <oxni/base/subscribee.h>
#include <oxni/base/subscriber.h>

#include "../../platform/liboxni_core/host.h"
#include "../agent/agent.h"
#include "../base/text.h"
#include "../base/text_json.h"
#include "../scenario/journal.h"
#include "../scenario/timeline.h"

static constexpr double REGISTER_SECONDS = 5.0;
static constexpr double ANSWER_SECONDS = 1.0;

struct product {
    std::string key, ns, name, product_name;
    std::vector<std::string> modules;
    std::string status;
    int64_t count;
    node registration; /* in place of the usual message; may be missing */
    double registers;  /* seconds after the agent's start; negative: not by itself */
    int32_t unreachable;
    double reply_delay; /* negative: never */
    node answers;
    oxni_subscriber *subscriber; /* NULL: not registered */
    int64_t commands;
    std::string last_command; /* for the summary */
};

static std::vector<product> s_products;
/* Handles that were seen since the agent's start, by the names that product_of gives them. The
 * plug-in's own subscribers are among them. */
static std::map<std::string, oxni_subscriber *> s_seen;

/* Commands since the last product_disturb, and the undeliverable ones. */
static struct {
    uint64_t pushes, first, last;
    int32_t error;
} s_disturbed;

static product &product_find(const std::string &key)
{
    for (product &product : s_products)
        if (product.key == key)
            return product;
    throw devhost_error(EXIT_BAD_CALL, "there is no product \"" + key + "\"");
}

static product *product_by_handle(const oxni_subscriber *subscriber)
{
    for (product &product : s_products)
        if (product.subscriber == subscriber)
            return &product;
    return nullptr;
}

/* NULL only when the platform's memory is made to fail, as in the two functions below. */
static json_t *usual_message(const product &product, const char *type)
{
    json_t *modules = json_array();

    for (const std::string &module : product.modules)
        if (json_array_append_new(modules, json_string(module.c_str())) != 0) {
            json_decref(modules);
            modules = nullptr;
        }
    return json_pack("{s:s, s:s, s:I, s:s, s:{s:o}}", "product_name", product.product_name.c_str(),
                     "type", type, "count", product.count, "status", product.status.c_str(), "data",
                     "driver_module", modules);
}

static json_t *message_of(const json_value &value)
{
    const std::string text = node_to_text(value);

    return json_loadb(text.data(), text.size(), 0, nullptr);
}

static json_t *registration_of(const product &product)
{
    return product.registration ? message_of(*product.registration) : usual_message(product, "reg");
}

/* Takes over the message. */
static void push(product &product, json_t *message)
{
    if (message == nullptr || product.subscriber == nullptr ||
        oxni_subscriber_pushforward(product.subscriber, message, nullptr, nullptr) != 0)
        journal_add(HAPPENED_STATE, product.key, "cannot send: it is not registered");
    json_decref(message);
}

/* The status after a command, unless the scenario states another one. */
static std::string usual_status(const std::string &command, const product &product)
{
    if (command == "bypass")
        return "bypass";
    return command == "recover" ? "working" : product.status;
}

struct planned_answer {
    std::string key, status;
    int64_t count;
    bool reports;
};

/* Answers that are due later; the end of the agent's process drops them. */
static std::list<planned_answer> s_answers;

/* An answer is due: the product's state changes, and it reports the state to the plug-in. */
static void answer_now(void *user)
{
    const planned_answer *answer = static_cast<planned_answer *>(user);
    product &product = product_find(answer->key);

    if (product.status != answer->status || product.count != answer->count)
        journal_add(
            HAPPENED_STATE, product.key,
            text_format("changes to %s, count %lld", answer->status.c_str(), answer->count));
    product.status = answer->status;
    product.count = answer->count;
    if (answer->reports)
        push(product, usual_message(product, "modify"));
    s_answers.remove_if([answer](const planned_answer &other) { return &other == answer; });
}

static void plan_answer(const product &product, const std::string &command, int64_t count)
{
    node said = product.answers[command.c_str()];

    if (said && said->IsNull())
        return;
    s_answers.push_back({product.key, said.text("status", usual_status(command, product)),
                         said.integer("count", command == "set_count" ? count : product.count),
                         command != "set_count" || said});
    oxnih_core_post(timeline_ms(said.number("after", ANSWER_SECONDS)), answer_now,
                    &s_answers.back());
}

static void product_cb(oxni_subscriber *subscriber, uint32_t event, void *arg, json_t *message)
{
    product *product = product_by_handle(subscriber);
    const char *type = json_string_value(json_object_get(message, "type"));
    const char *reason = json_string_value(json_object_get(message, "reason"));

    (void)arg;
    if (product == nullptr || event != 1 || type == nullptr)
        return;
    product->commands++;
    product->last_command = std::string(type);
    if (reason != nullptr && std::string(reason) != "none")
        product->last_command += std::string(" (blamed driver: ") + reason + ")";
    product->last_command +=
        " at " + time_span(timeline_now_ms()) + " of boot " + std::to_string(journal_boot());
    plan_answer(*product, type, json_integer_value(json_object_get(message, "count")));
}

static void apply_delivery(const product &product)
{
    if (product.subscriber == nullptr)
        return;
    oxnih_subscriber_set_unreachable(product.subscriber, product.unreachable);
    oxnih_subscriber_set_reply_delay(product.subscriber, product.reply_delay < 0
                                                             ? UINT64_MAX
                                                             : timeline_ms(product.reply_delay));
}

/* Takes over the members that are given. */
static void apply_members(product &product, const node &said)
{
    auto seconds = [&said](const char *member, double present) {
        return said.is_null(member) ? -1 : said.number(member, present);
    };

    product.ns = said.text("ns", product.ns);
    product.name = said.text("name", product.name);
    product.product_name = said.text("product_name", product.product_name);
    product.status = said.text("status", product.status);
    product.count = said.integer("count", product.count);
    product.unreachable = static_cast<int32_t>(said.integer("unreachable", product.unreachable));
    product.registers = seconds("registers", product.registers);
    product.reply_delay = seconds("reply_delay", product.reply_delay);
    if (said["registration"])
        product.registration = said["registration"];
    if (said["answers"])
        product.answers = said["answers"];
    if (said["modules"])
        product.modules.clear();
    for (const node &module : said["modules"].elements())
        product.modules.push_back(module->GetString());
}

void products_open(const node &products)
{
    s_products.clear();
    for (const auto &[key, said] : products.members()) {
        product product = {};

        product.key = product.ns = product.name = product.product_name = key;
        product.status = "working";
        product.count = 1;
        product.registers = REGISTER_SECONDS;
        apply_members(product, said);
        s_products.push_back(std::move(product));
    }
}

void products_agent_started(void)
{
    for (const product &product : s_products) {
        std::string key = product.key;

        if (product.registers >= 0)
            timeline_at(timeline_now_ms() + timeline_ms(product.registers), [key] {
                if (agent_state_get() == AGENT_RUNNING)
                    product_register(key);
            });
    }
}

void products_agent_stopped(void)
{
    for (product &product : s_products)
        product.subscriber = nullptr;
    s_seen.clear();
    s_answers.clear();
}

void product_register(const std::string &key)
{
    product &product = product_find(key);
    oxni_subscriber_attr attr = {product.ns.c_str(), product.name.c_str(), nullptr};
    json_t *message = registration_of(product);

    if (product.subscriber != nullptr) {
        push(product, message);
        return;
    }
    product.subscriber = oxni_subscriber_new(&attr);
    apply_delivery(product);
    (void)oxni_subscriber_subscribe(product.subscriber, "bypass_mgr", message, product_cb);
    json_decref(message);
}

void product_send(const std::string &key, const json_value &message)
{
    push(product_find(key), message_of(message));
}

void product_tell(const std::string &key)
{
    product &product = product_find(key);

    push(product, usual_message(product, "modify"));
}

void product_unsubscribe(const std::string &key)
{
    product &product = product_find(key);

    if (product.subscriber == nullptr)
        return;
    oxnih_subscriber_leave(product.subscriber);
    oxni_subscriber_delete(product.subscriber);
    product.subscriber = nullptr;
}

void product_change(const std::string &key, const node &changes)
{
    product &product = product_find(key);

    apply_members(product, changes);
    apply_delivery(product);
}

void product_disturb(uint64_t nth, bool forever, int32_t error)
{
    s_disturbed = {0, nth != 0 ? nth : UINT64_MAX, forever ? UINT64_MAX : nth, error};
}

uint64_t product_pushes(void)
{
    return s_disturbed.pushes;
}

void product_pushed(oxni_subscriber *subscriber)
{
    s_disturbed.pushes++;
    if (s_disturbed.pushes >= s_disturbed.first && s_disturbed.pushes <= s_disturbed.last)
        oxnih_subscriber_set_unreachable(subscriber, s_disturbed.error);
}

void product_replied(oxni_subscriber *subscriber)
{
    const product *product = product_by_handle(subscriber);

    if (s_disturbed.error != 0)
        oxnih_subscriber_set_unreachable(subscriber, product != nullptr ? product->unreachable : 0);
}

std::string product_state_text(const std::string &key)
{
    const product &product = product_find(key);

    return json_text<json_line>([&](json_line &json) {
        json.StartObject();
        json_member(json, "status", product.status);
        json_member(json, "count", product.count);
        json_member(json, "commands", product.commands);
        json_member(json, "references",
                    product.subscriber != nullptr ? oxnih_subscriber_references(product.subscriber)
                                                  : 0u);
        json.EndObject();
    });
}

std::vector<std::string> product_keys(void)
{
    std::vector<std::string> keys;

    for (const product &product : s_products)
        keys.push_back(product.key);
    return keys;
}

std::string product_summary(const std::string &key)
{
    const product &product = product_find(key);

    return text_format("%-13s count %lld, %s", product.status.c_str(), product.count,
                       product.last_command.empty() ? "never ordered anything"
                                                    : ("ordered " + product.last_command).c_str());
}

std::string product_of(oxni_subscriber *subscriber)
{
    const product *product = product_by_handle(subscriber);
    const oxni_subscriber_attr *attr;
    std::string name = "unknown product";

    if (product != nullptr) {
        name = product->key;
    } else {
        attr = oxni_subscriber_get_attr(subscriber);
        if (attr != nullptr)
            name = text_format("%s/%s", attr->ns, attr->name);
    }
    s_seen[name] = subscriber;
    return name;
}

oxni_subscriber *subscriber_seen(const std::string &whom)
{
    auto seen = s_seen.find(whom);

    return seen != s_seen.end() ? seen->second : nullptr;
}

bool subscriber_order(const std::string &whom, const json_value &message)
{
    oxni_subscriber *handle = subscriber_seen(whom);
    json_t *json;

    if (handle == nullptr)
        return false;
    json = message_of(message);
    (void)oxni_subscribee_pushback(handle, json, nullptr, nullptr);
    json_decref(json);
    return true;
}
