/* The journal of a run. */
#include "journal.h"

#include "../../platform/liboxnibase/host.h"
#include "../base/text.h"

static const char *const s_kind_names[] = {
    "boot",    "end",   "agent", "step", "message",   "refused",  "left",
    "command", "reply", "state", "link", "upload",    "response", "asked",
    "console", "echo",  "log",   "call", "complaint",
};

static std::vector<happening> s_all;
static int s_boot;
static std::string s_folder, s_folder_slashes, s_folder_json, s_shown;
static journal_view_fn s_view;
static void *s_view_user;

/* The run's folder in each spelling that texts have of it. */
static std::string shorten(const std::string &text)
{
    return text_replace(text_replace(text_replace(text, s_folder_json, s_shown), s_folder, s_shown),
                        s_folder_slashes, s_shown);
}

const std::vector<happening> &journal_all(void)
{
    return s_all;
}

void journal_add(enum happening_kind kind, const std::string &who, const std::string &text,
                 const std::string &json, int32_t number, const std::string &whom)
{
    s_all.push_back({kind, s_boot, oxnih_clock_tick_ms(), oxnih_clock_now_100ns(), who,
                     shorten(text), shorten(json), number, whom});
    if (s_view != nullptr)
        s_view(s_all.back(), s_view_user);
}

void journal_set_boot(int boot)
{
    s_boot = boot;
}

int journal_boot(void)
{
    return s_boot;
}

void journal_set_folder(const std::string &folder, const std::string &shown)
{
    s_folder = folder;
    s_folder_slashes = text_replace(folder, "\\", "/");
    s_folder_json = text_replace(folder, "\\", "\\\\");
    s_shown = shown;
}

void journal_set_view(journal_view_fn view, void *user)
{
    s_view = view;
    s_view_user = user;
}

void journal_clear(void)
{
    s_all.clear();
    s_boot = 0;
}

const char *journal_kind_name(enum happening_kind kind)
{
    return s_kind_names[kind];
}

enum happening_kind journal_kind(const std::string &name)
{
    int kind = HAPPENED_COMPLAINT;

    while (kind > HAPPENED_BOOT && name != s_kind_names[kind])
        kind--;
    return static_cast<enum happening_kind>(kind);
}
