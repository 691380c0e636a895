/* Files that people hand in, and lists of products: each is read, or refused with a line that names
 * it. */
#include "fuzz.h"

#include <fcntl.h>
#include <io.h>
#include <stdio.h>
#include <windows.h>

#include <functional>

#include "base/text.h"
#include "evidence/log.h"
#include "evidence/registry_file.h"
#include "evtx_builder.h"
#include "replay/replay.h"
#include "scenario/scenario.h"

#define MOMENT_FILETIME 133542759410000000ULL

/* Bytes of good files, one of which is damaged. */
static std::vector<std::string> s_good;

/* Reads a file, unless it is refused. Result: whether it was read. */
static bool accepts(const std::string &named, const std::function<void()> &read)
{
    try {
        read();
        return true;
    } catch (const devhost_error &error) {
        if (std::string(error.what()).find(named) == std::string::npos)
            violated("an error that does not name " + named + ": " + error.what());
        return false;
    }
}

/* Writes an input. Result: its path. */
static std::string put_input(const char *name, const std::string &text)
{
    std::string path = fuzz_real_folder() + name;

    put_file(path, text);
    return path;
}

static std::string damaged_good(chance &chance)
{
    std::string text = chance.of(s_good);

    damage(&text, chance.of(s_good), chance);
    return text;
}

/* Numbers rise, and each damage has a line. */
static void check_log(const evidence_log &log)
{
    for (size_t i = 1; i < log.events.size(); i++)
        if (log.events[i - 1].number >= log.events[i].number)
            violated("record numbers that do not rise");
    for (const std::string &line : log.damage)
        if (line.empty() || line.find('\n') != std::string::npos)
            violated("a damage that is not one line: " + line);
    (void)evidence_log_json(log, 0, UINT64_MAX);
}

static void read_log(const std::string &path, chance &chance)
{
    static const evidence_damage s_allowed[] = {EVIDENCE_LENIENT, EVIDENCE_STANDARD,
                                                EVIDENCE_STRICT};
    const evidence_damage allowed = chance.of(s_allowed);
    evidence_log log;

    if (!accepts(path, [&] { evidence_log_read(path, allowed, &log); }))
        return;
    check_log(log);
    if (allowed == EVIDENCE_STRICT && !(log.damage.empty() && log.cut_off.empty()))
        violated("damage was read where none is allowed");
}

static void open_evtx(void)
{
    const std::string path = fuzz_real_folder() + "good.evtx";
    std::vector<evtx_record> records;
    evidence_log log;

    for (uint32_t id : {12u, 7001u, 0x400003E9u, 41u})
        records.push_back({records.size() + 5, MOMENT_FILETIME + records.size() * 10000000, id,
                           "Source" + std::to_string(id), "0x0000007e (0x1)"});
    s_good = {evtx_build(records), evtx_build({records[2], records[0], records[0]})};
    put_file(path, s_good[0]);
    evidence_log_read(path, EVIDENCE_STRICT, &log);
    if (log.events.size() != 4 || log.events[2].id != 0x400003E9 ||
        log.events[2].source != L"Source1073742825" ||
        log.events[2].strings.at(0) != L"0x0000007e (0x1)")
        violated("the good log is not read as it was built");
}

/* Most damage hits the records, which take a tenth of the file. */
static void try_evtx(chance &chance, uint64_t)
{
    std::string log = chance.of(s_good);

    if (chance.one_in(4)) {
        damage(&log, chance.of(s_good), chance);
    } else {
        std::string records = log.substr(4096, 4096);
        damage(&records, s_good[0].substr(4608, 2048), chance);
        log.replace(4096, 4096, records);
    }
    if (!chance.one_in(4))
        evtx_seal(&log);
    read_log(put_input("fuzz.evtx", log), chance);
}
FUZZ_TARGET(evtx, open_evtx, try_evtx, 1, 1000)

static const std::vector<const char *> s_log_keys = {"record", "source", "id",
                                                     "type",   "time",   "strings"};
static const std::vector<const char *> s_log_words = {
    "BugCheck", "Microsoft-Windows-Kernel-General", "2024-03-07T09:00:00Z", "EventLog"};

static void open_json_log(void)
{
    s_good = {R"([{"record": 1, "source": "Microsoft-Windows-Kernel-General", "id": 12, "type": 4,
                   "time": "2024-03-07T09:00:00Z", "strings": ["a", "b"]},
                  {"record": 2, "source": "BugCheck", "id": 1073742825, "type": 1,
                   "time": "2024-03-07T09:01:00Z", "strings": ["0x0000007e"]}])"};
}

static void try_json_log(chance &chance, uint64_t)
{
    std::string text;

    for (size_t left = chance.below(4); left > 0; left--)
        text += (text.empty() ? "" : ",") + odd_json(s_log_keys, s_log_words, chance);
    read_log(put_input("fuzz.json", chance.one_in(2) ? damaged_good(chance) : "[" + text + "]"),
             chance);
}
FUZZ_TARGET(json_log, open_json_log, try_json_log, 1, 1000)

static void open_registry(void)
{
    const std::string key =
        "[HKEY_LOCAL_MACHINE\\SYSTEM\\ControlSet001\\Control\\CrashControl]\r\n";
    std::string text =
        "\xEF\xBB\xBFWindows Registry Editor Version 5.00\r\n\r\n" + key +
        "\"DumpFile\"=hex(2):25,00,53,00,\\\r\n  00,00\r\n\"Count\"=dword:0000001f\r\n"
        "@=\"a \\\\ \\\"b\\\"\"\r\n\"Q\"=hex(b):01,02,03,04,05,06,07,08\r\n";
    std::string wide = "\xFF\xFE";

    for (const char c : text.substr(3)) {
        wide += c;
        wide += '\0';
    }
    s_good = {text, wide,
              "REGEDIT4\r\n\r\n" + key + "\"a\"=\"b\"\r\n\"d\"=-\r\n[-HKEY_USERS\\x]\r\n"};
}

static void try_registry(chance &chance, uint64_t)
{
    const std::string path = put_input("fuzz.reg", damaged_good(chance));
    evidence_registry registry;

    if (accepts(path, [&] { evidence_registry_read(path, &registry); }))
        for (const evidence_value &value : registry.values)
            if (value.key.empty())
                violated("a value without a key");
}
FUZZ_TARGET(registry, open_registry, try_registry, 1, 1000)

static void open_results(void)
{
    s_good = {
        R"({"schema": "bypass_mgr.replay", "version": 1, "plugin": {"version": "1"}, "boot": 2,
                  "verdict": "crash", "blamed": "m", "records": [{"record": 1, "source": "s",
                  "id": 12}], "dumps": [{"file": "a.dmp", "fate": "read"}],
                  "stack": [{"text": "m+0x1"}], "commands": [{"to": "a", "message": {"count": 1}}],
                  "alarms": [{"message": {}}], "products": [{"name": "a", "at_the_end": {}}],
                  "reasons": [{"topic": "dump", "text": "t"}]})",
        R"({"schema": "bypass_mgr.replay", "version": 1, "plugin": {}, "boot": 2,
                  "verdict": "normal", "blamed": null, "records": [], "dumps": [], "stack": [],
                  "commands": [], "alarms": [], "products": [], "reasons": []})"};
}

/* The differences are printed; only crash messages of the watch reach the real output. */
static int diff_silently(const std::string &old_file, const std::string &new_file)
{
    const int real = _dup(1), nowhere = _open("NUL", _O_WRONLY);
    int result;

    fflush(stdout);
    _dup2(nowhere, 1);
    SetStdHandle(STD_OUTPUT_HANDLE, reinterpret_cast<HANDLE>(_get_osfhandle(real)));
    try {
        result = replay_diff(old_file, new_file);
    } catch (const devhost_error &) {
        result = -1;
    }
    fflush(stdout);
    _dup2(real, 1);
    _close(real);
    _close(nowhere);
    return result;
}

static void try_results(chance &chance, uint64_t)
{
    const std::string good = put_input("good.json", chance.of(s_good));
    const std::string text = damaged_good(chance), path = put_input("fuzz.json", text);
    const int result = diff_silently(path, path);

    if (result > 0)
        violated("a result differs from itself");
    if (diff_silently(good, path) < 0 && result == 0)
        violated("a result is refused beside another one");
}
FUZZ_TARGET(results, open_results, try_results, 1, 1000)

static void open_products(void)
{
    put_file(fuzz_real_folder() + "log.json",
             R"([{"record": 1, "source": "Microsoft-Windows-Kernel-General", "id": 12, "type": 4,
                  "time": "2024-03-07T09:00:00Z", "strings": []}])");
    s_good = {"guard:guard_flt,guard_net:3:working", "b:m", "c:x,y:0", "d:z:2147483647:bypass"};
}

/* What is read makes a scenario. */
static void try_products(chance &chance, uint64_t)
{
    replay_options options = {};
    rapidjson::Document scenario;

    options.events = fuzz_real_folder() + "log.json";
    options.damage = EVIDENCE_STRICT;
    options.boot = "last";
    for (size_t left = 1 + chance.below(3); left > 0; left--)
        options.products.push_back(chance.one_in(4) ? chance.of(s_good) : damaged_good(chance));
    (void)accepts("--product", [&] {
        scenario.Parse(replay_scenario(replay_read(options, true)).c_str());
        if (scenario.HasParseError() || !scenario["products"].IsObject())
            violated("products that make no scenario");
    });
}
FUZZ_TARGET(products, open_products, try_products, 1, 1000)
