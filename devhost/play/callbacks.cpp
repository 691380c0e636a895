/* Callbacks of the plug-in, taken from its calls of the platform. */
#include "callbacks.h"

#include <list>

#include <oxni/base/debug_console.h>
#include <oxni/base/json.h>
#include <oxni/base/subscribee.h>
#include <oxni/base/subscriber.h>

#include "../../platform/liboxni_core/host.h"
#include "../base/text.h"
#include "../calls/calls.h"
#include "../participants/products.h"
#include "../scenario/journal.h"

static struct {
    oxni_subscribee_fn service;
    oxni_subscriber_fn subscriber; /* of the plug-in's own subscriber */
    oxni_dbg_fn console;
} s_callbacks;

/* A queued call. */
struct callback_call {
    std::string which;
    node arguments;
    oxni_subscriber *handle;
};

static std::list<callback_call> s_queued;

/* The plug-in subscribes from inside its entry or a timer, products from the host: only its calls
 * pass here. */
static void on_subscribe(const uint64_t *arguments, uint64_t result)
{
    (void)result;
    s_callbacks.subscriber = reinterpret_cast<oxni_subscriber_fn>(arguments[3]);
}

static void on_install(const uint64_t *arguments, uint64_t result)
{
    (void)result;
    s_callbacks.service = reinterpret_cast<oxni_subscribee_fn>(arguments[3]);
}

static void on_declare(const uint64_t *arguments, uint64_t result)
{
    (void)result;
    s_callbacks.console = reinterpret_cast<oxni_dbg_fn>(arguments[3]);
}

void callbacks_open(void)
{
    callbacks_agent_stopped();
    calls_set_watch("oxni_subscribee_install", on_install);
    calls_set_watch("oxni_subscriber_subscribe", on_subscribe);
    calls_set_watch("oxni_dbg_decl", on_declare);
}

void callbacks_agent_stopped(void)
{
    s_callbacks = {};
    s_queued.clear();
}

static void call_console(const node &arguments)
{
    std::vector<node> words = arguments["words"].elements();
    std::vector<std::string> texts;
    std::vector<char *> argv;

    for (const node &word : words)
        texts.push_back(word->GetString());
    for (std::string &text : texts)
        argv.push_back(text.data());
    s_callbacks.console(static_cast<int32_t>(argv.size()), argv.data(), nullptr);
}

static void call_now(void *user)
{
    callback_call *call = static_cast<callback_call *>(user);
    node message = call->arguments["message"];
    std::string text = message ? node_to_text(*message) : "";
    json_t *json = message ? json_loadb(text.data(), text.size(), 0, nullptr) : nullptr;

    if (call->which == "service")
        s_callbacks.service(static_cast<int32_t>(call->arguments.integer("error", 0)), nullptr,
                            static_cast<int32_t>(call->arguments.integer("moment", 0)), json,
                            call->handle);
    else if (call->which == "subscriber")
        s_callbacks.subscriber(call->handle,
                               static_cast<uint32_t>(call->arguments.integer("event", 0)), nullptr,
                               json);
    else
        call_console(call->arguments);
    json_decref(json);
    s_queued.remove_if([call](const callback_call &other) { return &other == call; });
}

void callbacks_call(const std::string &which, const node &arguments)
{
    std::string of = arguments.text("of");
    oxni_subscriber *handle = of.empty() ? nullptr : subscriber_seen(of);

    if (which == "service"   ? s_callbacks.service == nullptr
        : which == "console" ? s_callbacks.console == nullptr
                             : s_callbacks.subscriber == nullptr)
        arguments.bad("the plug-in has given no such callback at this moment");
    if (which != "console" && handle == nullptr)
        arguments.bad("\"of\": no subscriber \"" + of + "\" was seen since the start of the agent");
    s_queued.push_back({which, arguments, handle});
    journal_add(HAPPENED_STEP, "windows",
                "calls the " + which + " callback with " + node_to_text(*arguments));
    oxnih_core_post(0, call_now, &s_queued.back());
}
