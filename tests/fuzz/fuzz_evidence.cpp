/* Files that people hand in, and lists of products: each is read, or refused with a line that names
 * it. */
#include "fuzz.h"

#include <fcntl.h>
#include <io.h>
#include <cstdio>
#include <windows.h>

#include <functional>

#include <oxni/base/algo.h>

#include "base/system_events.h"
#include "base/text.h"
#include "base/file.h"
#include "commands/commands.h"
#include "evidence/log.h"
#include "evidence/registry_file.h"
#include "evtx/evtx_writer.h"
#include "scenario/scenario.h"
#include "synthesis/damage.h"

static constexpr uint32_t EVTX_HEADER_BYTES = 4096u;
static constexpr uint32_t EVTX_CHUNK_BYTES = 65536u;
static constexpr uint32_t EVTX_CHUNK_HEADER_BYTES = 512u;
static constexpr uint32_t EVTX_RECORDS_BYTES = 8192u; /* where the records of a good log are */
static constexpr char NAME[] = "input";               /* of an input that lies in memory */

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

/* An input that lies in memory, since a file would take longer than most readers. */
static evidence_file input(const std::string &text)
{
    return evidence_file(NAME, fuzz_guarded(text.data(), text.size()), text.size());
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

static void read_log(const std::string &text, chance &chance)
{
    static const evidence_damage s_allowed[] = {EVIDENCE_LENIENT, EVIDENCE_STANDARD,
                                                EVIDENCE_STRICT};
    const evidence_damage allowed = chance.of(s_allowed);
    evidence_log log;

    if (!accepts(NAME, [&] { evidence_log_read(input(text), allowed, &log); }))
        return;
    check_log(log);
    if (allowed == EVIDENCE_STRICT && !(log.damage.empty() && log.cut_off.empty()))
        violated("damage was read where none is allowed");
}

static void patch(std::string *log, size_t at, uint32_t value)
{
    memcpy(&(*log)[at], &value, sizeof(value));
}

/* Makes the checksums of a changed log right, so that a reader does not stop at them. */
static void seal(std::string *log)
{
    if (log->size() < EVTX_HEADER_BYTES + EVTX_CHUNK_HEADER_BYTES)
        return;
    patch(log, 0x7C, oxni_crc32_calc(log->data(), 0x78));
    for (size_t chunk = EVTX_HEADER_BYTES; chunk + EVTX_CHUNK_HEADER_BYTES <= log->size();
         chunk += EVTX_CHUNK_BYTES) {
        uint32_t end = 0;

        memcpy(&end, &(*log)[chunk + 0x30], sizeof(end));
        if (end >= EVTX_CHUNK_HEADER_BYTES && end <= EVTX_CHUNK_BYTES && chunk + end <= log->size())
            patch(log, chunk + 0x34,
                  oxni_crc32_calc(&(*log)[chunk + EVTX_CHUNK_HEADER_BYTES],
                                  end - EVTX_CHUNK_HEADER_BYTES));
        const std::string header =
            log->substr(chunk, 0x78) + log->substr(chunk + 0x80, EVTX_CHUNK_HEADER_BYTES - 0x80);

        patch(log, chunk + 0x7C, oxni_crc32_calc(header.data(), header.size()));
    }
}

/* Any text without a NUL, lone surrogates included; some are values of the known fields. */
static std::wstring odd_text(chance &chance)
{
    static const wchar_t *const s_values[] = {
        L"",     L"0",    L"126",      L"0x1f",
        L"true", L"-1",   L"S-1-5-18", L"2024-03-07T09:00:10.000000000Z",
        L"0xff", L"00012"};
    std::wstring text;

    if (chance.one_in(2))
        return chance.of(s_values);
    for (size_t left = chance.below(chance.one_in(64) ? 3000 : 20); left > 0; left--)
        text += static_cast<wchar_t>(1 + chance.below(chance.one_in(2) ? 0x7e : 0xfffe));
    return text;
}

static event_record odd_record(uint32_t number, chance &chance)
{
    static const struct {
        const wchar_t *source;
        uint32_t id;
        size_t strings;
    } s_known[] = {
        {SOURCE_KERNEL_GENERAL, 12,                      7},
        {SOURCE_KERNEL_POWER,   41,                      7},
        {SOURCE_BUG_CHECK,      BUG_CHECK_EVENT_ID,      3},
        {SOURCE_WINLOGON,       EVENT_LOGON,             2},
        {SOURCE_SERVICES,       SERVICE_STATE_EVENT_ID,  2},
        {SOURCE_EVENT_LOG,      LOG_UNEXPECTED_EVENT_ID, 7},
    };
    const auto &known = chance.of(s_known);
    event_record record = {number, static_cast<uint32_t>(chance.next()), known.id, 4, known.source,
                           {}};
    size_t strings = known.strings;

    if (chance.one_in(3)) {
        record.id = static_cast<uint32_t>(chance.next());
        record.source = L"x" + odd_text(chance);
        strings = chance.below(9);
    }
    for (; strings > 0; strings--)
        record.strings.add(odd_text(chance));
    return record;
}

static std::string json_of(const event_record &event)
{
    return json_text<json_line>([&](json_line &writer) { evidence_put_record(writer, event); });
}

static void open_evtx(void)
{
    chance chance(1);

    for (const uint32_t count : {3u, 20u}) {
        std::vector<event_record> records;

        for (uint32_t i = 0; i < count; i++)
            records.push_back(odd_record(5 + i, chance));
        s_good.push_back(evtx_bytes(records, L"DESKTOP"));
    }
}

/* Cuts a log inside its first records or after one of them, so that a read beyond a limit is one
 * beyond the file. */
static void cut_records(std::string *log, chance &chance)
{
    const size_t begin = EVTX_HEADER_BYTES + EVTX_CHUNK_HEADER_BYTES;
    size_t end = begin + chance.below(EVTX_RECORDS_BYTES);

    if (chance.one_in(2)) {
        end = begin;
        for (size_t left = 1 + chance.below(4); left > 0 && end + 8 <= log->size(); left--) {
            uint32_t bytes = 0;

            memcpy(&bytes, &(*log)[end + 4], sizeof(bytes));
            end += bytes;
        }
    }
    if (end < log->size())
        log->resize(end);
}

/* Most damage hits the records, which take a tenth of the file. */
static void try_evtx(chance &chance, uint64_t)
{
    const bool anywhere = chance.one_in(8);
    std::string log = anywhere ? damaged(s_good, chance) : chance.of(s_good);

    if (!anywhere && chance.one_in(2))
        cut_records(&log, chance);
    if (!anywhere && !chance.one_in(4)) {
        change_numbers(&log, EVTX_HEADER_BYTES + EVTX_CHUNK_HEADER_BYTES, EVTX_RECORDS_BYTES,
                       log.size() - EVTX_HEADER_BYTES, chance); /* offsets begin at the chunk */
    } else if (!anywhere) {
        std::string records = log.substr(EVTX_HEADER_BYTES, EVTX_RECORDS_BYTES);

        damage(&records, s_good[0].substr(4608, 6144), chance);
        log.replace(EVTX_HEADER_BYTES, EVTX_RECORDS_BYTES, records);
    }
    if (!chance.one_in(4))
        seal(&log);
    read_log(log, chance);
}
FUZZ_TARGET(evtx, open_evtx, try_evtx, 1, 5000)

/* A log is read as it was written, and what was damaged on purpose is reported. */
static void try_written_log(chance &chance, uint64_t)
{
    const std::string kind = chance.one_in(2) ? "" : chance.of(damage_kinds());
    std::vector<event_record> records;
    damage_report report;
    std::string bytes;
    evidence_log log;
    size_t next = 0;

    for (size_t left = 1 + chance.below(chance.one_in(32) ? 800 : 20); left > 0; left--)
        records.push_back(odd_record(static_cast<uint32_t>(100 + records.size()), chance));
    try {
        bytes = damage_log(records, kind, chance.next(), &report);
    } catch (const devhost_error &) {
        return; /* too short for that damage */
    }
    evidence_log_read(input(bytes), EVIDENCE_LENIENT, &log);
    if (log.records != records.size() - report.gone.size() || log.lost_records != report.lost ||
        log.cut_off.empty() == report.cut_off ||
        (log.damage.empty() && log.cut_off.empty()) == report.damaged)
        violated("damage \"" + kind + "\": " + std::to_string(log.records) + " records of " +
                 std::to_string(records.size()) + ", " + std::to_string(log.lost_records) +
                 " lost");
    for (const event_record &wrote : records) {
        if (report.gone.count(wrote.number) != 0)
            continue;
        const event_record &got = log.events[next++];

        if (got.number != wrote.number || got.id != wrote.id || got.time != wrote.time ||
            got.source != wrote.source || got.strings.packed() != wrote.strings.packed())
            violated("a record is read as another one: " + json_of(wrote) + " as " + json_of(got));
    }
}
FUZZ_TARGET(written_log, nullptr, try_written_log, 1, 200)

static const std::vector<const char *> s_log_keys = {"record", "source", "id",
                                                     "type",   "time",   "strings"};
static const std::vector<const char *> s_log_words = {
    "BugCheck", "Microsoft-Windows-Kernel-General", "2024-03-07T09:00:00Z", "EventLog"};

static void open_json_log(void)
{
    chance chance(1);

    s_good = {"[" + json_of(odd_record(1, chance)) + "," + json_of(odd_record(2, chance)) + "]"};
}

static void try_json_log(chance &chance, uint64_t)
{
    std::string text;

    for (size_t left = chance.below(4); left > 0; left--)
        text += (text.empty() ? "" : ",") + odd_json(s_log_keys, s_log_words, chance);
    read_log(chance.one_in(2) ? damaged(s_good, chance) : "[" + text + "]", chance);
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
    const std::string text = damaged(s_good, chance);
    evidence_registry registry;

    if (accepts(NAME, [&] { evidence_registry_read(input(text), &registry); }))
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
    const std::string good = fuzz_disk.path + "good.json", path = fuzz_disk.path + "fuzz.json";

    evidence_write(good, chance.of(s_good));
    evidence_write(path, damaged(s_good, chance));
    const int result = diff_silently(path, path);

    if (result > 0)
        violated("a result differs from itself");
    if (diff_silently(good, path) < 0 && result == 0)
        violated("a result is refused beside another one");
}
FUZZ_TARGET(results, open_results, try_results, 1, 1000)

static void open_products(void)
{
    evidence_write(
        fuzz_disk.path + "log.json",
        R"([{"record": 1, "source": "Microsoft-Windows-Kernel-General", "id": 12, "type": 4,
                  "time": "2024-03-07T09:00:00Z", "strings": []}])");
    s_good = {"guard:guard_flt,guard_net:3:working", "b:m", "c:x,y:0", "d:z:2147483647:bypass"};
}

/* What is read makes a scenario. */
static void try_products(chance &chance, uint64_t)
{
    replay_options options = {};
    rapidjson::Document scenario;

    options.events = fuzz_disk.path + "log.json";
    options.damage = EVIDENCE_STRICT;
    options.boot = "last";
    for (size_t left = 1 + chance.below(3); left > 0; left--)
        options.products.push_back(chance.one_in(4) ? chance.of(s_good) : damaged(s_good, chance));
    (void)accepts("--product", [&] {
        scenario.Parse(replay_scenario(replay_read(options, true)).c_str());
        if (scenario.HasParseError() || !scenario["products"].IsObject())
            violated("products that make no scenario");
    });
}
FUZZ_TARGET(products, open_products, try_products, 1, 1000)
