/* The debug console: declared commands, and calls to other modules' commands. The host's thread. */
#include "core.h"

#include <map>
#include <sstream>
#include <vector>

#include <oxni/base/debug_console.h>

struct oxni_dbg_context {
    std::string ns;
};

struct command {
    std::string help;
    oxni_dbg_fn fn;
};

/* One call to another module without an answer so far. Its handle is its number. */
struct call {
    std::string ns;
    oxni_dbg_echo_fn fn;
};

struct console_handler {
    oxnih_dbg_handler_fn fn;
    void *user;
};

/* Commands and calls belong to the agent's process and end with it. Handlers belong to the host and
 * stay. */
struct console_table {
    std::map<std::pair<std::string, std::string>, command> commands; /* by namespace and name */
    std::map<std::string, console_handler> handlers;
    std::map<uint64_t, call> calls;
    const oxni_dbg_context *running = nullptr; /* a context is valid for one call only */
};

static console_table &s_console = *new console_table;

static void notify(enum oxnih_event_kind kind, const std::string &ns, int32_t error,
                   const char *text)
{
    oxnih_event event = {};

    event.kind = kind;
    event.name = ns.c_str();
    event.error = error;
    event.text = text;
    dispatcher_tell(event);
}

int oxni_dbg_decl(const char *ns, const char *word, const char *help, oxni_dbg_fn fn)
{
    if (ns == nullptr || word == nullptr || help == nullptr || fn == nullptr)
        return -1;
    return s_console.commands.emplace(std::make_pair(ns, word), command{help, fn}).second ? 0 : -1;
}

void oxni_dbg_echo(oxni_dbg_context *context, int reserved, const char *text)
{
    (void)reserved;
    if (context == nullptr || context != s_console.running) {
        oxnih_complain("oxni_dbg_echo: no command runs with that context");
        return;
    }
    if (text != nullptr)
        notify(OXNIH_EVENT_ECHO, context->ns, 0, text);
}

/* Clears the running command at the end of its scope, also after an exception. */
class running_command
{
  public:
    explicit running_command(const oxni_dbg_context *context)
    {
        s_console.running = context;
    }
    running_command(const running_command &) = delete;
    running_command &operator=(const running_command &) = delete;
    ~running_command()
    {
        s_console.running = nullptr;
    }
};

static void run_line(const std::string &ns, const std::string &line)
{
    std::istringstream blanks_between(line);
    std::vector<std::string> words;
    std::vector<char *> argv;
    oxni_dbg_context context = {ns};

    for (std::string word; blanks_between >> word;)
        words.push_back(word);
    auto at = s_console.commands.find({ns, words.empty() ? "" : words[0]});
    if (at == s_console.commands.end()) {
        std::string why = "no such command: " + line;
        notify(OXNIH_EVENT_REFUSED, ns, OXNIH_ERROR_UNREACHABLE, why.c_str());
        return;
    }
    /* A command may modify its arguments, as main may. */
    for (std::string &word : words)
        argv.push_back(word.data());
    argv.push_back(nullptr);
    notify(OXNIH_EVENT_COMMAND, ns, 0, line.c_str());
    running_command mark(&context);
    at->second.fn(static_cast<int32_t>(words.size()), argv.data(), &context);
}

void oxnih_dbg_run(const char *ns, const char *command_line)
{
    dispatcher_queue(
        0, [ns = std::string(ns), line = std::string(command_line)] { run_line(ns, line); });
}

const char *oxnih_dbg_help(const char *ns, const char *word)
{
    auto at = s_console.commands.find({ns, word});

    return at == s_console.commands.end() ? nullptr : at->second.help.c_str();
}

void oxnih_dbg_set_handler(const char *ns, oxnih_dbg_handler_fn fn, void *user)
{
    s_console.handlers[ns] = {fn, user};
}

static void run_answer(const call &asked, int32_t error, const char *echo)
{
    notify(OXNIH_EVENT_EXEC_ANSWER, asked.ns, error, echo);
    asked.fn(error, echo);
}

static void run_exec(uint64_t id, const std::string &line)
{
    call asked = s_console.calls.at(id);
    auto at = s_console.handlers.find(asked.ns);

    notify(OXNIH_EVENT_EXEC, asked.ns, 0, line.c_str());
    if (at == s_console.handlers.end() || at->second.fn == nullptr) {
        s_console.calls.erase(id);
        dispatcher_queue(0, [asked] { run_answer(asked, OXNIH_ERROR_UNREACHABLE, nullptr); });
        return;
    }
    at->second.fn(reinterpret_cast<oxnih_request *>(static_cast<uintptr_t>(id)), line.c_str(),
                  at->second.user);
}

int oxni_dbg_exec(const char *ns, const char *command_line, int reserved, oxni_dbg_echo_fn fn)
{
    uint64_t id;

    (void)reserved;
    if (ns == nullptr || command_line == nullptr || fn == nullptr)
        return -1;
    id = dispatcher_new_id();
    s_console.calls.emplace(id, call{ns, fn});
    dispatcher_queue(0, [id, line = std::string(command_line)] { run_exec(id, line); });
    return 0;
}

void oxnih_dbg_answer(oxnih_request *handle, int32_t error, const char *echo, uint64_t delay_ms)
{
    auto at = s_console.calls.find(reinterpret_cast<uintptr_t>(handle));

    if (at == s_console.calls.end()) {
        oxnih_complain("oxnih_dbg_answer: call %p is unknown or answered already",
                       static_cast<void *>(handle));
        return;
    }
    dispatcher_queue(delay_ms, [asked = at->second, error, text = std::string(echo ? echo : ""),
                                given = echo != nullptr] {
        run_answer(asked, error, given ? text.c_str() : nullptr);
    });
    /* The handle becomes unknown, so that a second answer is detected. */
    s_console.calls.erase(at);
}

void console_reset()
{
    s_console.commands.clear();
    s_console.calls.clear();
}
