/* Evidence that may leave a customer's house: of the log only the strings of records that the
 * plug-in asks for, of dumps only their stacks, of the registry only the keys that it reads. */
#include "replay.h"

#include <stdio.h>

#include <regex>

#include "../evidence/file.h"
#include "../machine/machine.h"
#include "../scenario/scenario.h"
#include "../text.h"

/* A check with the standard number of polls is over by then. */
#define UNTIL_SECONDS 900

#define STACK_FRAMES  99

/* Records whose strings are kept: the plug-in asks for them, or they move the clock. */
static const struct {
    const wchar_t *source;
    uint32_t id;
} s_kept[] = {
    {L"Microsoft-Windows-Kernel-General", 1   },
    {L"Microsoft-Windows-Kernel-General", 12  },
    {L"Microsoft-Windows-Kernel-General", 13  },
    {L"Microsoft-Windows-Kernel-Power",   41  },
    {L"Microsoft-Windows-Winlogon",       7001},
    {L"BugCheck",                         1001},
};

/* Keys that the plug-in reads, in lower case, with all below them. */
static const wchar_t *const s_keys[] = {
    L"system\\currentcontrolset\\control\\crashcontrol",
    L"system\\currentcontrolset\\services\\load_driver",
    L"system\\currentcontrolset\\services\\oxnisp_driver",
};

/* What a person or a computer can be known by, in a text that is kept. */
static std::string without_names(const std::string &text)
{
    static const std::regex sid("S-1-(5-21|12-1)(-[0-9]+)+");
    static const std::regex user_folder("([A-Za-z]:\\\\(Users|Documents and Settings)\\\\).*",
                                        std::regex::icase);
    static const std::regex server("\\\\\\\\[^\\\\]+\\\\.*");
    static const std::regex guid("\\{?[0-9A-Fa-f]{8}(-[0-9A-Fa-f]{4}){3}-[0-9A-Fa-f]{12}\\}?");
    std::string out = std::regex_replace(text, sid, "S-1-5-21-0-0-0-1000");

    out = std::regex_replace(out, user_folder, "$1user");
    out = std::regex_replace(out, server, "\\\\server\\share");
    return std::regex_replace(out, guid, "00000000-0000-0000-0000-000000000000");
}

static machine_event redacted(const machine_event &event)
{
    machine_event out = event;

    out.strings = {};
    for (const auto &kept : s_kept)
        if ((event.id & 0xffff) == kept.id && event.source == kept.source)
            for (size_t i = 0; i < event.strings.count(); i++)
                out.strings.add(text_wide(without_names(text_narrow(event.strings.at(i)))));
    return out;
}

/* A name that Windows gave stays; any other may tell something. */
static std::string dump_name(const evidence_dump &dump, size_t number)
{
    static const std::regex usual("[0-9]{6}-[0-9]+-[0-9]+\\.dmp|MEMORY\\.DMP", std::regex::icase);

    return std::regex_match(dump.file_name, usual)
               ? dump.file_name
               : text_format("dump%u.dmp", static_cast<unsigned>(number));
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
        const std::string folder =
            without_names(placed.place.substr(0, placed.place.find_last_of('\\')));

        number++;
        if (placed.there)
            text += (text.empty() ? "" : ",\n      ") +
                    dump_json(placed, folder + "\\" + dump_name(placed.dump, number));
    }
    return text;
}

static std::string value_json(const evidence_value &value)
{
    std::string data;
    const char *type = "REG_BINARY";

    if (value.type == REG_SZ || value.type == REG_EXPAND_SZ) {
        const std::wstring text(reinterpret_cast<const wchar_t *>(value.data.data()),
                                value.data.size() / sizeof(wchar_t));

        type = value.type == REG_SZ ? "REG_SZ" : "REG_EXPAND_SZ";
        data = text_quoted(without_names(text_narrow(text.c_str())));
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

static std::string registry_json(const evidence_registry &registry)
{
    std::string text;

    for (const evidence_value &value : registry.values)
        for (const wchar_t *key : s_keys)
            if (text_lower(value.key).rfind(key, 0) == 0)
                text += (text.empty() ? "" : ",\n      ") + value_json(value);
    return text;
}

/* The boot's records as steps, each in its time. */
static std::string steps_json(const replay_evidence &evidence)
{
    std::string text;

    for (const replay_moment &moment : replay_moments(evidence, UNTIL_SECONDS * 1000ull)) {
        const machine_event event = redacted(evidence.log.events[moment.index]);
        evidence_log one;

        one.events.push_back(event);
        std::string record = evidence_log_json(one, 0, UINT64_MAX);

        record = record.substr(2, record.size() - 5); /* without the array's brackets */
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
    machine_close();
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
