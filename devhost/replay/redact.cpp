/* Evidence that may leave a customer's house: of the log only the strings of records that the
 * plug-in asks for, of dumps only their stacks, of the registry only the keys that it reads. */
#include "replay.h"

#include <stdio.h>

#include <string.h>

#include <algorithm>

#include "../evidence/file.h"
#include "../evidence/system_events.h"
#include "../machine/machine.h"
#include "../scenario/scenario.h"
#include "../base/text.h"

/* A check with the standard number of polls is over by then. */
#define UNTIL_SECONDS 900

#define STACK_FRAMES  99

/* What a dump is called whose name is not one of Windows' own. */
#define OTHER_DUMP "dump.dmp"

/* Records of which strings are kept, and how many of the first: those that the plug-in asks for,
 * and those that move the clock. Behind them stand programs and accounts. */
static const struct {
    const wchar_t *source;
    uint32_t id;
    size_t strings;
} s_kept[] = {
    {SOURCE_KERNEL_GENERAL, EVENT_CLOCK_CHANGE,        2},
    {SOURCE_KERNEL_GENERAL, EVENT_WINDOWS_START,       7},
    {SOURCE_KERNEL_GENERAL, EVENT_CLEAN_SHUTDOWN,      1},
    {SOURCE_KERNEL_POWER,   EVENT_UNEXPECTED_SHUTDOWN, 5},
    {SOURCE_BUG_CHECK,      EVENT_BUG_CHECK,           2},
};

/* Keys that the plug-in reads, and the values of them that are kept: those that it reads, and those
 * that every driver has. In lower case. */
static const wchar_t *const s_keys[] = {
    L"system\\currentcontrolset\\control\\crashcontrol",
    L"system\\currentcontrolset\\services\\load_driver",
    L"system\\currentcontrolset\\services\\oxnisp_driver",
};
static const wchar_t *const s_values[] = {
    L"dumpfile", L"minidumpdir", L"crashdumpenabled", L"timermaxcount", L"crashcount", L"imagepath",
    L"start",    L"type",
};

static bool is_slash(char c)
{
    return c == '\\' || c == '/';
}

/* Where a part of a path begins that is called so; npos: nowhere. */
static size_t find_part(const std::string &text, const std::string &part)
{
    const std::string lower = text_lower(text);

    for (size_t at = lower.find(part); at != std::string::npos; at = lower.find(part, at + 1)) {
        const size_t end = at + part.size();

        if (at > 0 && is_slash(text[at - 1]) && end + 1 < text.size() && is_slash(text[end]))
            return at;
    }
    return std::string::npos;
}

/* A path with what people and servers are called taken out: all behind a folder of users, all from
 * a SID on, all of a path on a server. The same text gives the same, so that a setting and a file
 * still agree. */
static std::string without_names(const std::string &path)
{
    for (const char *folder : {"users", "documents and settings", "docume~1"}) {
        const size_t at = find_part(path, folder);

        if (at != std::string::npos)
            return path.substr(0, at + strlen(folder) + 1) + "user";
    }
    for (const char *account : {"s-1-5-21-", "s-1-12-1-"}) {
        const size_t at = text_lower(path).find(account);

        if (at != std::string::npos)
            return path.substr(0, at) + "account";
    }
    const bool remote = path.size() > 2 && is_slash(path[0]) && is_slash(path[1]) &&
                        (path[2] != '?' || find_part(path, "unc") != std::string::npos);

    return remote ? "\\\\server\\share" : path;
}

/* What Windows writes without naming anybody: times, numbers, "0x0000007e (0x1, 0x2, 0x3, 0x4)". */
static bool is_numbers(const std::string &text)
{
    return text.find_first_not_of("0123456789abcdefABCDEFx(),.:TZ- ") == std::string::npos;
}

/* A name that Windows gave, "MEMORY.DMP" or "030724-5437-01.dmp", stays; any other may tell
 * something. */
static std::string dump_name(const std::string &name, const std::string &other)
{
    const std::string lower = text_lower(name);
    const size_t digits = lower.find_first_not_of("0123456789-");

    return lower == "memory.dmp" || (digits != std::string::npos && digits > 0 &&
                                     lower.compare(digits, lower.npos, ".dmp") == 0)
               ? name
               : other;
}

/* The path of a dump. other: its name when it has not one of Windows' own. */
static std::string redacted_file(const std::string &path, const std::string &other)
{
    const size_t slash = path.find_last_of("\\/");

    if (slash == std::string::npos)
        return dump_name(path, other);
    return without_names(path.substr(0, slash)) + path[slash] +
           dump_name(path.substr(slash + 1), other);
}

static event_record redacted(const event_record &event)
{
    event_record out = event;

    out.strings = {};
    out.source = text_wide(without_names(text_narrow(event.source)));
    for (const auto &kept : s_kept)
        if ((event.id & 0xffff) == kept.id && event.source == kept.source)
            for (size_t i = 0; i < event.strings.count() && i < kept.strings; i++) {
                const std::string text = text_narrow(event.strings.at(i));

                out.strings.add(
                    text_wide(is_numbers(text) ? text : redacted_file(text, OTHER_DUMP)));
            }
    return out;
}

/* The stack as call sites, which is all that a dump says here. */
static std::string dump_json(const replay_dump &placed, const std::string &place)
{
    const evidence_file file(placed.dump.path, UINT64_MAX);
    struct kernel_dump facts;
    std::string reason, frames;

    if (kernel_dump_read(file.data(), file.bytes(), &facts, &reason) != KERNEL_DUMP_OK)
        evidence_bad(placed.dump.path, reason);
    for (const kernel_dump_frame &frame : kernel_dump_walk(facts, STACK_FRAMES))
        frames += (frames.empty() ? "" : ", ") +
                  text_quoted(kernel_dump_call_site(facts, frame.instruction));
    return "{\"path\": " + text_quoted(place) + ", \"written\": \"" +
           time_iso(placed.written_100ns, true) + "\", \"created\": \"" +
           time_iso(placed.written_100ns, true) + "\", \"frames\": [" + frames + "]}";
}

static std::string dumps_json(const replay_evidence &evidence)
{
    std::string text;
    size_t number = 0;

    for (const replay_dump &placed : evidence.dumps) {
        const std::string name = text_format("dump%u.dmp", static_cast<unsigned>(++number));
        const bool small = placed.dump.facts.kind == KERNEL_DUMP_KIND_TRIAGE;

        /* The setting names the file of a large dump, and of small ones the folder. */
        if (placed.there)
            text += (text.empty() ? "" : ",\n      ") +
                    dump_json(placed, redacted_file(placed.place, small ? name : OTHER_DUMP));
    }
    return text;
}

static std::string value_json(const evidence_value &value)
{
    std::string data;
    const char *type = "REG_BINARY";

    if (value.type == REG_SZ || value.type == REG_EXPAND_SZ) {
        const std::wstring whole(reinterpret_cast<const wchar_t *>(value.data.data()),
                                 value.data.size() / sizeof(wchar_t));
        const std::string text = text_narrow(whole.substr(0, whole.find(L'\0')));

        type = value.type == REG_SZ ? "REG_SZ" : "REG_EXPAND_SZ";
        data = text_quoted(text_lower(value.name) == L"dumpfile" ? redacted_file(text, OTHER_DUMP)
                                                                 : without_names(text));
    } else if (value.type == REG_DWORD && value.data.size() == sizeof(uint32_t)) {
        uint32_t number;

        memcpy(&number, value.data.data(), sizeof(number));
        type = "REG_DWORD";
        data = std::to_string(number);
    } else if (value.type == REG_QWORD && value.data.size() == sizeof(uint64_t)) {
        uint64_t number;

        memcpy(&number, value.data.data(), sizeof(number));
        type = "REG_QWORD";
        data = std::to_string(number);
    } else {
        data = "\"\""; /* bytes may hold anything; the plug-in reads none */
    }
    return "{\"key\": " + text_quoted(text_narrow(value.key)) +
           ", \"name\": " + text_quoted(text_narrow(value.name)) + ", \"type\": \"" + type +
           "\", \"data\": " + data + "}";
}

template <size_t size>
static bool is_one_of(const std::wstring &name, const wchar_t *const (&names)[size])
{
    return std::find(names, names + size, text_lower(name)) != names + size;
}

static std::string registry_json(const evidence_registry &registry)
{
    std::string text;

    for (const evidence_value &value : registry.values)
        if (is_one_of(value.key, s_keys) && is_one_of(value.name, s_values))
            text += (text.empty() ? "" : ",\n      ") + value_json(value);
    return text;
}

/* The boot's records as steps, each in its time. */
static std::string steps_json(const replay_evidence &evidence)
{
    std::string text;
    uint64_t start = evidence.boot->started_100ns; /* as the clock stands at a record */

    for (const replay_moment &moment : replay_moments(evidence, UNTIL_SECONDS * 1000ull)) {
        const event_record event = redacted(evidence.log.events[moment.index]);
        evidence_log one;

        one.events.push_back(event);
        std::string record = evidence_log_json(one, 0, UINT64_MAX);

        record = record.substr(2, record.size() - 5); /* without the array's brackets */
        start += static_cast<uint64_t>(moment.clock_change_100ns);
        if (moment.clock_change_100ns != 0)
            text += text_format("%s      {\"at\": %.3f, \"clock\": \"%s\"}",
                                text.empty() ? "" : ",\n", static_cast<double>(moment.ms) / 1000.0,
                                time_iso(start + moment.ms * TICKS_PER_MS, true).c_str());
        text += text_format("%s      {\"at\": %.3f, \"event\": ", text.empty() ? "" : ",\n",
                            static_cast<double>(moment.ms) / 1000.0) +
                record + "}";
    }
    return text;
}

/* The scenario of the boot with what else there is of the machine. */
static std::string scenario_json(const replay_evidence &evidence)
{
    rapidjson::Document base;

    base.Parse(replay_scenario(evidence).c_str());
    return text_format("{\n  \"name\": \"Evidence of a machine, boot %u of its log\",\n",
                       static_cast<unsigned>(evidence.boot->number)) +
           "  \"products\": " + node_to_text(base["products"]) +
           ",\n  \"management\": " + node_to_text(base["management"]) +
           ",\n  \"machine\": {\n    \"registry\": [\n      " + registry_json(evidence.registry) +
           "\n    ],\n    \"files\": [\n      " + dumps_json(evidence) +
           "\n    ],\n    \"events_from\": \"events.json\"\n  },\n" +
           "  \"boots\": [{\n    \"at\": \"" + time_iso(evidence.boot->started_100ns, true) +
           text_format("\", \"until\": %d, \"log\": null,\n    \"steps\": [\n", UNTIL_SECONDS) +
           steps_json(evidence) + "\n    ]\n  }]\n}\n";
}

/* Where they lie depends on the registry, for which there is a machine. */
static void place_dumps(replay_evidence *evidence)
{
    const run_folder machine("");

    machine_open(text_wide(machine.path));
    for (const evidence_value &value : evidence->registry.values)
        machine_set_value(value.key, value.name, value.type, value.data);
    replay_place_dumps(evidence);
}

int replay_redact(const struct replay_options &options, const std::string &folder)
{
    replay_evidence evidence = replay_read(options, true);
    evidence_log before;

    place_dumps(&evidence);
    for (size_t i = 0; i <= evidence.boot->begin; i++)
        before.events.push_back(redacted(evidence.log.events[i]));
    const std::string scenario = scenario_json(evidence),
                      events = evidence_log_json(before, 0, UINT64_MAX);

    if (!CreateDirectoryW(text_wide(folder).c_str(), NULL))
        throw devhost_error(EXIT_BAD_CALL,
                            folder + (GetLastError() == ERROR_ALREADY_EXISTS
                                          ? ": is there already, expected a folder to be made"
                                          : ": cannot be made"));
    evidence_write(folder + "\\events.json", events);
    evidence_write(folder + "\\scenario.json", scenario);
    printf("%s: %u records, %u dumps as stacks; play it with run %s\\scenario.json\n",
           folder.c_str(), static_cast<unsigned>(evidence.records),
           static_cast<unsigned>(evidence.dumps.size()), folder.c_str());
    return EXIT_ALL_HOLD;
}
