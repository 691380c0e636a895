/* Resources addressed by path: watches, requests and responses. The host's thread. */
#include "core.h"

#include <map>
#include <vector>

#include <oxni/base/resource.h>

struct oxnir_rsp {
    int32_t error;
    json_t *answer;
};

/* One request without a response so far. Its handle is its unique number. */
struct request {
    std::string path;
    json_ref message;
    void *user;
    oxni_res_reply_fn reply;
};

struct resource_handler {
    oxnih_res_handler_fn fn;
    void *user;
};

/* Watches and requests belong to the agent's process and end with it. States and handlers belong to
 * the host and stay. */
struct resource_table {
    std::map<std::string, int32_t> states;
    std::multimap<std::string, oxni_res_state_fn> watches;
    std::map<std::string, resource_handler> handlers;
    std::map<uint64_t, request> requests;
};

static resource_table &s_table = *new resource_table;

static void notify(enum oxnih_event_kind kind, const std::string &path, int32_t error,
                   json_t *message)
{
    oxnih_event event = {};

    event.kind = kind;
    event.name = path.c_str();
    event.error = error;
    event.message = message;
    dispatcher_tell(event);
}

/* Queues the state by value: it may have changed again by the time of the delivery. */
static void queue_state(const std::string &path, int32_t state, oxni_res_state_fn fn)
{
    dispatcher_queue(0, [path, state, fn] {
        notify(OXNIH_EVENT_LINK, path, state, nullptr);
        fn(path.c_str(), state);
    });
}

int oxni_res_require(const char *path, int reserved, oxni_res_state_fn fn)
{
    (void)reserved;
    if (path == nullptr || fn == nullptr)
        return -1;
    s_table.watches.emplace(path, fn);
    queue_state(path, s_table.states[path], fn);
    return 0;
}

void oxnih_res_report_state(const char *path, int32_t state)
{
    s_table.states[path] = state;
    auto watches = s_table.watches.equal_range(path);
    for (auto at = watches.first; at != watches.second; ++at)
        queue_state(path, state, at->second);
}

void oxnih_res_set_state(const char *path, int32_t state)
{
    if (s_table.states[path] != state)
        oxnih_res_report_state(path, state);
}

void oxnih_res_set_handler(const char *path, oxnih_res_handler_fn fn, void *user)
{
    s_table.handlers[path] = {fn, user};
}

static void run_response(const request &asked, int32_t error, json_t *answer)
{
    oxnir_rsp response = {error, answer};

    notify(OXNIH_EVENT_RESPONSE, asked.path, error, answer);
    asked.reply(&response, asked.user);
}

static void run_request(uint64_t id)
{
    auto at = s_table.handlers.find(s_table.requests.at(id).path);

    if (at == s_table.handlers.end() || at->second.fn == nullptr) {
        request unheard = s_table.requests.at(id);
        s_table.requests.erase(id);
        dispatcher_queue(0, [unheard] { run_response(unheard, OXNIH_ERROR_UNREACHABLE, nullptr); });
        return;
    }
    /* A copy, because the handler may answer immediately, which erases the request. */
    request asked = s_table.requests.at(id);
    notify(OXNIH_EVENT_REQUEST, asked.path, 0, asked.message.get());
    at->second.fn(reinterpret_cast<oxnih_request *>(static_cast<uintptr_t>(id)),
                  asked.message.get(), at->second.user);
}

int oxni_res_deliver(const char *path, json_t *message, void *user, oxni_res_reply_fn reply,
                     int reserved)
{
    json_ref kept(message);
    uint64_t id;

    (void)reserved;
    json_decref(message); /* the caller's reference */
    if (path == nullptr || message == nullptr || reply == nullptr)
        return -1;
    id = dispatcher_new_id();
    s_table.requests.emplace(id, request{path, kept, user, reply});
    dispatcher_queue(0, [id] { run_request(id); });
    return 0;
}

void oxnih_res_answer(oxnih_request *handle, int32_t error, json_t *answer, uint64_t delay_ms)
{
    auto at = s_table.requests.find(reinterpret_cast<uintptr_t>(handle));

    if (at == s_table.requests.end()) {
        oxnih_complain("oxnih_res_answer: request %p is unknown or answered already",
                       static_cast<void *>(handle));
        return;
    }
    dispatcher_queue(delay_ms, [asked = at->second, error, kept = json_ref(answer)] {
        run_response(asked, error, kept.get());
    });
    s_table.requests.erase(at);
}

int32_t oxnir_rsp_get_errno(oxnir_rsp *response)
{
    return response == nullptr ? OXNIH_ERROR_UNREACHABLE : response->error;
}

json_t *oxnir_rsp_get_resp(oxnir_rsp *response)
{
    return response == nullptr ? nullptr : response->answer;
}

void resource_reset()
{
    s_table.watches.clear();
    s_table.requests.clear();
}
