/* Events of the platform, recorded as sentences. */
#include "observe.h"

#include <map>

#include <oxni/base/json.h>

#include "../../platform/liboxni_core/host.h"
#include "../../platform/liboxnibase/host.h"
#include "../base/text.h"
#include "../machine/modules.h"
#include "../scenario/journal.h"
#include "products.h"

static void log_sink(int level, const char *line, void *user)
{
    std::string text = line;

    (void)user;
    while (!text.empty() && text.back() == '\n')
        text.pop_back();
    journal_add(HAPPENED_LOG, "plug-in", text, "", level);
}

static void complaint_sink(const char *text, void *user)
{
    (void)user;
    journal_add(HAPPENED_COMPLAINT, "platform", text);
}

static std::string text_member(const json_t *object, const char *name)
{
    const char *text = json_string_value(json_object_get(object, name));

    return text != nullptr ? text : "";
}

/* A product's message as a sentence; an unusual one verbatim. */
static std::string message_words(const json_t *message)
{
    std::string type = text_member(message, "type"), status = text_member(message, "status");
    const json_t *modules = json_object_get(json_object_get(message, "data"), "driver_module");
    std::string words;

    if (status.empty() || (type != "reg" && type != "modify"))
        return "sends the plug-in " + text_of_json(message);
    words =
        (type == "reg" ? "registers as " : "reports status ") + status +
        text_format(", count %lld, modules", json_integer_value(json_object_get(message, "count")));
    for (size_t i = 0; i < json_array_size(modules); i++)
        words += std::string(" ") + text_of_json(json_array_get(modules, i));
    return words;
}

/* A command of the plug-in to a product as a phrase. */
static std::string command_words(const std::string &who, const json_t *message)
{
    const std::string reason = text_member(message, "reason"), type = text_member(message, "type");
    const json_t *count = json_object_get(message, "count");

    if (type == "bypass")
        return "orders " + who + " into bypass" +
               (reason == "none" ? "" : " (blamed driver: " + reason + ")");
    return "orders " + who + ": " + type + (count != nullptr ? " " + text_of_json(count) : "");
}

/* An upload as a phrase. */
static std::string upload_words(const std::string &path, const json_t *message)
{
    const json_t *alarm =
        json_object_get(json_object_get(json_object_get(message, "data"), "content"), "data");

    return "uploads to " + path + ": " + text_member(alarm, "alarmName") + " of " +
           text_member(alarm, "productType");
}

/* Events between the plug-in and the products. */
static bool observe_product(const oxnih_event *event, const std::string &who,
                            const std::string &message)
{
    switch (event->kind) {
    case OXNIH_EVENT_LEFT: journal_add(HAPPENED_LEFT, who, "unsubscribes"); return true;
    case OXNIH_EVENT_TO_SERVICE:
        journal_add(HAPPENED_MESSAGE, who, message_words(event->message), message);
        return true;
    case OXNIH_EVENT_PUSHED:
        product_pushed(event->subscriber);
        journal_add(HAPPENED_COMMAND, "plug-in", command_words(who, event->message), message, 0,
                    who);
        return true;
    case OXNIH_EVENT_REPLY:
        product_replied(event->subscriber);
        journal_add(HAPPENED_REPLY, who,
                    event->error == 0 ? "receives the order"
                                      : text_format("cannot be reached, error %d", event->error),
                    message, event->error);
        return true;
    default: return false;
    }
}

/* Delays of the pending timers in ms, by timer. */
static std::map<uint64_t, uint64_t> s_timers;

void observe_agent_stopped(void)
{
    s_timers.clear();
}

uint64_t observe_timers(uint64_t delay_ms)
{
    uint64_t count = 0;

    for (const auto &timer : s_timers)
        count += timer.second == delay_ms ? 1 : 0;
    return count;
}

static void observe(const oxnih_event *event, void *user)
{
    std::string who = event->subscriber != nullptr ? product_of(event->subscriber) : "";
    std::string message = event->message != nullptr ? text_of_json(event->message) : "";
    std::string name = event->name != nullptr ? event->name : "";
    std::string text = event->text != nullptr ? event->text : "";

    (void)user;
    if (observe_product(event, who, message))
        return;
    switch (event->kind) {
    case OXNIH_EVENT_REFUSED:
        journal_add(HAPPENED_REFUSED, who.empty() ? name : who, "is rejected: " + text, message);
        break;
    case OXNIH_EVENT_LINK:
        journal_add(HAPPENED_LINK, "management", event->error != 0 ? "link is up" : "link is down",
                    "", event->error);
        break;
    case OXNIH_EVENT_REQUEST:
        journal_add(HAPPENED_UPLOAD, "plug-in", upload_words(name, event->message), message);
        break;
    case OXNIH_EVENT_RESPONSE:
        journal_add(HAPPENED_RESPONSE, "management",
                    event->error == 0 ? "answers " + message
                                      : text_format("transport error %d", event->error),
                    message, event->error);
        break;
    case OXNIH_EVENT_EXEC: journal_add(HAPPENED_ASKED, "plug-in", "asks: " + text); break;
    case OXNIH_EVENT_EXEC_ANSWER:
        journal_add(HAPPENED_ASKED, "management",
                    event->error == 0 ? "answers: " + text : text_format("error %d", event->error));
        break;
    case OXNIH_EVENT_COMMAND: journal_add(HAPPENED_CONSOLE, "person", "types: " + text); break;
    case OXNIH_EVENT_ECHO: journal_add(HAPPENED_ECHO, "plug-in", text); break;
    case OXNIH_EVENT_TIMER_ARMED: s_timers[event->timer] = event->delay_ms; break;
    case OXNIH_EVENT_TIMER_FIRED:
    case OXNIH_EVENT_TIMER_STOPPED: s_timers.erase(event->timer); break;
    default: break;
    }
}

static void engine_sink(const std::string &news)
{
    journal_add(HAPPENED_STEP, "windows", "debugger engine " + news);
}

void observe_platform(void)
{
    observe_agent_stopped();
    machine_watch_engine(engine_sink);
    oxnih_log_set_sink(log_sink, nullptr);
    oxnih_set_complaint(complaint_sink, nullptr);
    oxnih_core_set_observer(observe, nullptr);
}
