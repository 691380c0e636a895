/* The store at each initialisation, and orders before the evidence for them. */
#include "previous_boot.h"

#include <cstring>

#include <oxni/base/algo.h>
#include <oxni/base/json.h>

#include "agent/agent.h"
#include "base/text.h"
#include "calls/calls.h"
#include "disk/files.h"
#include "evidence/boots.h"
#include "liboxnibase/host.h"
#include "machine/event_log.h"
#include "machine/machine.h"

static constexpr char STORE_FILE[] = "bypass_mgr_persistence.ejs";
static constexpr uint64_t UNIX_EPOCH_SECONDS = 11644473600ull;

/* An agent from its start to its end. */
struct process_lifetime {
    uint64_t boot_seconds;     /* since 1970 */
    std::string before, after; /* the store's bytes at its initialisation; empty: no file */
    bool initialised;
    bool early_bypass; /* ordered before a blue screen was read */
};

static std::vector<process_lifetime> s_lifetimes;
static uint32_t s_last_number;     /* of the event records of previous boots */
static bool s_blue_screen_is_read; /* in this boot */

static std::string store_bytes(void)
{
    std::wstring path = text_wide(agent_data_path(STORE_FILE));

    return machine_file_exists(path) ? machine_read_real_file(path, EXIT_EXPECTATION_FAILED) : "";
}

/* The text follows a header, whose last member is its checksum (libwdu_ejs/ejs.cpp). */
std::string ejs_text(const std::string &bytes)
{
    static constexpr size_t HEADER_BYTES = 16;
    uint32_t sum;

    if (bytes.size() <= HEADER_BYTES)
        return "";
    memcpy(&sum, bytes.data() + HEADER_BYTES - sizeof(sum), sizeof(sum));
    std::string text = bytes.substr(HEADER_BYTES);
    return oxni_crc32_calc(text.data(), text.size()) == sum ? text : "";
}

/* New; NULL for no store and a damaged one. */
static json_t *parse_store(const std::string &bytes)
{
    const std::string text = ejs_text(bytes);

    return json_loadb(text.data(), text.size(), JSON_ALLOW_NUL, nullptr);
}

static int64_t start_time_of(const json_t *store)
{
    return json_integer_value(json_object_get(store, "start_time"));
}

static void on_read_log(const uint64_t *, uint64_t result)
{
    const std::vector<event_record> &events = machine_get().events;
    bool after_start = true; /* a boot whose start is not recorded continues the one before it */

    if (static_cast<int>(result) == 0)
        return;
    for (size_t i = events.size(); i-- > 0 && events[i].number >= machine_last_read().oldest;) {
        after_start = after_start && !evidence_is_start(events[i]);
        if (evidence_is_bug_check(events[i]) && (after_start || events[i].number > s_last_number))
            s_blue_screen_is_read = true;
    }
}

static void on_push(const uint64_t *arguments, uint64_t)
{
    const json_t *message = reinterpret_cast<const json_t *>(arguments[1]);
    const char *type = json_string_value(json_object_get(message, "type"));

    if (type != nullptr && strcmp(type, "bypass") == 0 && !s_blue_screen_is_read &&
        !s_lifetimes.empty())
        s_lifetimes.back().early_bypass = true;
}

void previous_boot_open(void)
{
    s_lifetimes.clear();
    calls_set_watch("ReadEventLogW", on_read_log);
    calls_set_watch("oxni_subscribee_pushback", on_push);
}

void previous_boot_close(void)
{
    calls_set_watch("ReadEventLogW", nullptr);
    calls_set_watch("oxni_subscribee_pushback", nullptr);
}

void previous_boot_note(const happening &what)
{
    if (what.kind == HAPPENED_LOG || what.kind == HAPPENED_CALL || what.kind == HAPPENED_COMPLAINT)
        return; /* may be part of the initialisation */
    previous_boot_initialised();
    if (what.kind == HAPPENED_BOOT) {
        s_last_number = machine_get().events.empty() ? 0 : machine_get().events.back().number;
        s_blue_screen_is_read = false;
    }
    if (what.kind == HAPPENED_AGENT && what.text.rfind("starts", 0) == 0)
        s_lifetimes.push_back({machine_get().boot_100ns / TICKS_PER_SECOND - UNIX_EPOCH_SECONDS,
                               store_bytes(), "", false, false});
}

void previous_boot_initialised(void)
{
    if (s_lifetimes.empty() || s_lifetimes.back().initialised)
        return;
    s_lifetimes.back().initialised = true;
    s_lifetimes.back().after = store_bytes();
}

static void check(const process_lifetime &lifetime, std::vector<std::string> &found)
{
    if (lifetime.before == lifetime.after && !lifetime.early_bypass)
        return;
    json_t *before = parse_store(lifetime.before), *after = parse_store(lifetime.after);
    json_t *data = json_object_get(after, "data");

    if (start_time_of(before) != start_time_of(after) && json_object_size(data) != 0)
        found.push_back("the store of a new boot begins with " + text_of_json(data));
    if (lifetime.early_bypass &&
        (start_time_of(before) != static_cast<int64_t>(lifetime.boot_seconds) ||
         json_object_get(json_object_get(before, "data"), "crash_info") == nullptr))
        found.push_back("\"bypass\" is ordered before a blue screen of this boot was read");
    json_decref(before);
    json_decref(after);
}

std::vector<std::string> previous_boot_violations(void)
{
    std::vector<std::string> found;

    for (const process_lifetime &lifetime : s_lifetimes)
        check(lifetime, found);
    s_lifetimes.clear();
    return found;
}
