/* FNV-1a of the texts of calls. */
#include "call_hash.h"

#include <cstdio>
#include <cstring>

#include <algorithm>
#include <map>
#include <set>
#include <string_view>

#include "base/text.h"
#include "calls/calls.h"

static struct {
    uint64_t value;
    std::string folder, folder_with_slashes;
    bool printed;
    std::map<std::string, size_t> timers; /* numbers by handle */
} s_hash;

static bool is_hashed(const char *name)
{
    static const std::set<std::string_view> unseen = {
        "MultiByteToWideChar", "WideCharToMultiByte",      "oxni_free_",
        "oxni_log_output",     "oxni_log_is_regestered",   "oxni_ralloc_",
        "oxni_strdup",         "oxni_str_utf8_to_unicode", "oxni_time",
        "oxni_xhash_create",   "oxni_time_stamp_to_local", "oxni_xhash_delete",
        "oxni_xhash_insert",   "oxni_xhash_destroy",       "oxni_zero_malloc_",
        "wdu_json_delete_ejs", "wdu_json_object",
    };

    return unseen.find(name) == unseen.end();
}

/* Of "oxni_timer_start(1000, *, null) = 7" and "oxni_timer_stop(7)". 0 is no timer. */
static std::string with_timer_number(const std::string &text)
{
    const char *before = text.rfind("oxni_timer_stop", 0) == 0 ? "(" : "= ";
    const size_t begin = text.find(before) + strlen(before);
    const size_t end = std::min(text.find_first_not_of("0123456789", begin), text.size());
    const std::string handle = text.substr(begin, end - begin);

    if (handle == "0")
        return text;
    return text.substr(0, begin) +
           std::to_string(s_hash.timers.emplace(handle, s_hash.timers.size() + 1).first->second) +
           text.substr(end);
}

static void add_call(const std::string &text)
{
    call_hash_add(text.rfind("oxni_timer_", 0) == 0 ? with_timer_number(text) : text);
}

void call_hash_begin(const std::string &folder, bool printed)
{
    s_hash = {0xcbf29ce484222325ull, folder, text_replace(folder, "\\", "/"), printed, {}};
    calls_set_trace(add_call, is_hashed);
}

void call_hash_add(const std::string &text)
{
    const std::string line =
        text_replace(text_replace(text, s_hash.folder, ""), s_hash.folder_with_slashes, "") + "\n";

    for (char c : line)
        s_hash.value = (s_hash.value ^ static_cast<uint8_t>(c)) * 0x100000001b3ull;
    if (s_hash.printed)
        fputs(line.c_str(), stdout);
}

uint64_t call_hash_value(void)
{
    return s_hash.value;
}
