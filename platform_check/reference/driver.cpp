/* The driver of the reference platform, on the real clock unless a row simulates time. */
#include "reference.h"

#include <utility>

#include <filesystem>

static std::string s_complaints, s_printed, s_log;

std::string complaints()
{
    return std::exchange(s_complaints, "");
}

bool sunk(const std::string &text)
{
    return s_log.find(text) != std::string::npos;
}

oxnih_memory_stats memory_stats()
{
    oxnih_memory_stats now;

    oxnih_memory_get_stats(&now);
    return now;
}

static void on_event(const oxnih_event *event, void *)
{
    if (event->kind == OXNIH_EVENT_ECHO)
        s_printed += event->text;
}

/* Back to a process whose agent has just started. */
static void reset()
{
    oxnih_core_reset();
    oxnih_memory_fail(0, 0);
    oxnih_memory_set_mode(OXNIH_MEMORY_PLAIN);
    oxnih_core_set_observer(on_event, nullptr);
    oxnih_core_set_lenient(0);
    oxnih_log_close();
    oxnih_set_process_path(nullptr);
    oxnih_clock_set_zone(nullptr);
    oxnih_clock_real(GetTickCount64());
}

static void start(const std::string &folder)
{
    reset();
    s_log = s_printed = s_complaints = "";
    oxnih_set_install_dir(folder.c_str());
    oxnih_set_log_dir(folder.c_str());
    oxnih_set_complaint(
        [](const char *text, void *) {
            s_complaints += (s_complaints.empty() ? "" : "\n") + std::string(text);
        },
        nullptr);
    oxnih_log_set_sink([](int, const char *line, void *) { s_log += line; }, nullptr);
    oxnih_set_exit(nullptr, nullptr);
}

static std::string finish()
{
    reset();
    std::string said = complaints();
    const uint64_t leaked = memory_stats().live_blocks;
    oxnih_memory_drop_all();
    if (!said.empty())
        return said;
    return leaked == 0 ? "" : std::to_string(leaked) + " blocks are lost";
}

/* What a delivery leads to is due when it is made; on a busy machine that can be after the end. */
static void run(unsigned ms)
{
    uint64_t until = oxni_time_get_tick_cout() + ms, end;

    do {
        end = until;
        SAME(0, oxnih_core_run_until(end));
        until = oxni_time_get_tick_cout();
    } while (until > end);
}

static void answer_requests(const char *path)
{
    oxnih_res_set_handler(
        path,
        [](oxnih_request *asked, json_t *message, void *) {
            oxnih_res_answer(asked, 0, message, 0);
        },
        nullptr);
}

static void answer_commands(const char *ns)
{
    oxnih_dbg_set_handler(
        ns,
        [](oxnih_request *call, const char *line, void *) { oxnih_dbg_answer(call, 0, line, 0); },
        nullptr);
}

const platform_driver g_driver = {
    start,
    run,
    oxnih_subscriber_leave,
    [](const char *path, int state) { oxnih_res_set_state(path, state); },
    answer_requests,
    oxnih_dbg_run,
    [] { return std::exchange(s_printed, ""); },
    answer_commands,
    finish};
