/* From a history to files. */
#include "synthesis.h"

#include <cstdio>

#include "../base/file.h"
#include "../base/run_folder.h"
#include "../base/system_events.h"
#include "../base/text.h"
#include "../base/text_json.h"
#include "../machine/registry.h"
#include "../play/load.h"

#define CONTROL_KEY L"SYSTEM\\CurrentControlSet\\Control\\"
#define SERVICE_KEY L"SYSTEM\\CurrentControlSet\\Services\\"

/* Values of the machine that replay restores. */
static const struct {
    const wchar_t *key, *name;
    DWORD type;
} s_values[] = {
    {CONTROL_KEY L"CrashControl",  L"DumpFile",      REG_EXPAND_SZ},
    {CONTROL_KEY L"CrashControl",  L"MinidumpDir",   REG_EXPAND_SZ},
    {SERVICE_KEY L"load_driver",   L"ImagePath",     REG_EXPAND_SZ},
    {SERVICE_KEY L"load_driver",   L"TimerMaxCount", REG_SZ       },
    {SERVICE_KEY L"oxnisp_driver", L"ImagePath",     REG_EXPAND_SZ},
};

bool synthesis::has(uint32_t number) const
{
    return damage.gone.count(number) == 0;
}

bool synthesis::shows(const history_boot &boot) const
{
    return boot.start_record != 0 && has(boot.start_record);
}

static std::wstring hex_of(const std::string &bytes)
{
    std::wstring text;

    for (const char byte : bytes)
        text += (text.empty() ? L"" : L",") +
                text_wide(text_format("%02x", static_cast<unsigned>(static_cast<uint8_t>(byte))));
    return text;
}

static std::wstring number_line(const wchar_t *name, LONG number)
{
    return std::wstring(L"\"") + name + L"\"=dword:" +
           text_wide(text_format("%08lx", static_cast<unsigned long>(number))) + L"\r\n";
}

static std::wstring zone_lines(const std::string &name, const TIME_ZONE_INFORMATION &zone)
{
    return L"\r\n[HKEY_LOCAL_MACHINE\\" CONTROL_KEY L"TimeZoneInformation]\r\n" +
           number_line(L"Bias", zone.Bias) + number_line(L"StandardBias", zone.StandardBias) +
           number_line(L"DaylightBias", zone.DaylightBias) + L"\"StandardStart\"=hex:" +
           hex_of(text_bytes(zone.StandardDate)) + L"\r\n\"DaylightStart\"=hex:" +
           hex_of(text_bytes(zone.DaylightDate)) + L"\r\n" +
           (name.empty() ? L"" : L"\"TimeZoneKeyName\"=\"" + text_wide(name) + L"\"\r\n");
}

/* As "reg export" writes it. */
static std::string registry_text(const synthesis &made)
{
    std::wstring text = L"\uFEFFWindows Registry Editor Version 5.00\r\n", key;

    for (const evidence_value &value : made.values) {
        if (key != value.key)
            text += std::wstring(L"\r\n[HKEY_LOCAL_MACHINE\\") + value.key + L"]\r\n";
        key = value.key;
        text += L"\"" + value.name + L"\"=hex(" + std::to_wstring(value.type) + L"):" +
                hex_of(value.data) + L"\r\n";
    }
    text += zone_lines(made.history.time_zone, made.history.zone);
    return text_bytes(text);
}

/* The values of the machine that was played. */
static std::vector<evidence_value> values_now(void)
{
    std::vector<evidence_value> values;
    std::string text;

    for (const auto &value : s_values)
        if (machine_get_value(value.key, value.name, &text))
            values.push_back(
                {value.key, value.name, value.type, text_bytes(text_wide(text) + L'\0')});
    return values;
}

synthesis synthesis_make(const struct scenario &scenario, const history_options &options,
                         const std::string &damage)
{
    const run_folder folder("");
    synthesis made = {};

    made.history = history_of(scenario, folder.path, options);
    made.log = damage_log(made.history.records, damage, options.seed, &made.damage);
    made.values = values_now();
    return made;
}

static bool any_gone(const synthesis &made, const history_boot &boot)
{
    for (size_t i = boot.records; i < boot.end; i++)
        if (!made.has(made.history.records[i].number))
            return true;
    return false;
}

static bool has_record(const history &history, const history_boot &boot, const event_kind &kind)
{
    for (size_t i = boot.records; i < boot.end; i++)
        if (history.records[i].is(kind))
            return true;
    return false;
}

/* Whether the scenario itself logs that a run ended otherwise than it did. */
static bool contradicts(const history &history, const std::string &ended, const history_boot &next)
{
    return (ended != "blue_screen" && has_record(history, next, RECORD_BUG_CHECK)) ||
           (ended == "clean" && has_record(history, next, RECORD_UNEXPECTED));
}

/* A run's end is shown by its own last records and by the first ones of the next run. */
static std::string shown_end(const synthesis &made, size_t number)
{
    const std::vector<history_boot> &boots = made.history.boots;

    if (number + 1 == boots.size())
        return any_gone(made, boots[number]) ? "" : "unknown";
    /* Without its start, the boot after the next one seems to be part of that. */
    if (number + 2 < boots.size() && !made.shows(boots[number + 2]))
        return "";
    if (!made.shows(boots[number + 1]) || any_gone(made, boots[number]) ||
        any_gone(made, boots[number + 1]) ||
        contradicts(made.history, boots[number].ended, boots[number + 1]))
        return "";
    return text_replace(boots[number].ended, "_", " ");
}

void synthesis_finish(synthesis *made)
{
    std::vector<history_boot> &boots = made->history.boots;

    for (size_t i = 0; i < boots.size(); i++) {
        history_truth &truth = boots[i].truth;

        truth.ended = shown_end(*made, i);
        if (any_gone(*made, boots[i]) && truth.why.empty() && truth.answer.empty())
            truth.why = "records of it are lost";
    }
}

static std::string products_text(const history &history)
{
    return json_text<json_lines>(
               [&](json_lines &writer) { json_products(writer, nullptr, history.products); }) +
           "\n";
}

static void put_ms(json_lines &writer, const char *name, uint64_t ms)
{
    json_member_as_is(writer, name, ms != 0 ? std::to_string(ms) : "");
}

static void put_boot(json_lines &writer, const history_boot &boot, unsigned number)
{
    const history_truth &truth = boot.truth;
    const json_scope object(writer);

    json_members(writer, "boot", number, "started", time_iso(boot.started_100ns));
    json_member_or_null(writer, "ended", truth.ended);
    json_member_or_null(writer, "not_known", truth.why);
    json_member_or_null(writer, "answer", truth.answer);
    json_member_or_null(writer, "verdict", truth.verdict);
    json_member_or_null(writer, "blamed", truth.blamed);
    put_ms(writer, "blamed_ms", truth.blamed_ms);
    put_ms(writer, "decided_ms", truth.decided_ms);
    json_member(writer, "all_orders", truth.all_orders);
    json_objects(writer, "orders", truth.orders, [&](const history_order &order) {
        json_members(writer, "to", order.to, "type", order.type, "reason", order.reason);
        if (order.type == "set_count")
            json_member(writer, "count", order.count);
    });
}

static void put_log(json_lines &writer, const synthesis &made)
{
    const damage_report &damage = made.damage;
    const json_scope log(writer, "log");

    json_members(writer, "records", made.history.records.size() - damage.gone.size(),
                 "lost_records", damage.lost, "cut_off", damage.cut_off, "damaged", damage.damaged);
}

static std::string truth_text(const synthesis &made)
{
    unsigned number = 0;

    return json_file_text([&](json_lines &writer) {
        json_members(writer, "schema", SYNTHESIS_TRUTH_SCHEMA, "version", 1, "name",
                     made.history.name);
        put_log(writer, made);
        json_list(writer, "boots", made.history.boots, [&](const history_boot &boot) {
            if (made.shows(boot))
                put_boot(writer, boot, ++number);
        });
    });
}

namespace
{
/* The folder of the evidence, which goes unless the work is complete. */
class new_folder
{
  public:
    explicit new_folder(const std::string &path) : path_(path), made_(!folder_exists(path))
    {
        if (!files_find(path + "\\*").empty())
            throw devhost_error(EXIT_BAD_CALL, "the folder '" + path + "' is not empty");
        if (made_)
            folder_make(path);
    }
    ~new_folder()
    {
        if (complete)
            return;
        folder_empty(path_);
        if (made_)
            RemoveDirectoryW(text_wide(path_).c_str());
    }
    new_folder(const new_folder &) = delete;
    new_folder &operator=(const new_folder &) = delete;

    void write(const std::string &name, const std::string &bytes, uint64_t written_100ns = 0)
    {
        evidence_write(path_ + "\\" + name, bytes);
        if (written_100ns != 0)
            set_time(text_wide(path_ + "\\" + name), written_100ns);
    }

    bool complete = false;

  private:
    static void set_time(const std::wstring &path, uint64_t time_100ns)
    {
        const FILETIME time = {static_cast<DWORD>(time_100ns),
                               static_cast<DWORD>(time_100ns >> 32)};
        const HANDLE file = CreateFileW(path.c_str(), FILE_WRITE_ATTRIBUTES, FILE_SHARE_READ,
                                        nullptr, OPEN_EXISTING, 0, nullptr);

        if (file == INVALID_HANDLE_VALUE)
            return;
        (void)SetFileTime(file, nullptr, nullptr, &time);
        CloseHandle(file);
    }

    std::string path_;
    bool made_;
};
} // namespace

static void write_dumps(const history &history, const std::string &path, new_folder *folder)
{
    const std::string small = path + "\\Minidump";
    std::vector<std::string> loaded;

    for (const history_product &product : history.products)
        loaded.insert(loaded.end(), product.modules.begin(), product.modules.end());
    for (const history_boot &boot : history.boots)
        for (const crash_dump &dump : boot.dumps) {
            if (dump.replaced)
                continue;
            if (!dump.complete && !folder_exists(small))
                folder_make(small);
            folder->write((dump.complete ? "" : "Minidump\\") + file_name_of(dump.path),
                          crash_dump_bytes(dump, loaded), dump.written_100ns);
        }
}

void synthesis_write(const synthesis &made, const std::string &path)
{
    new_folder folder(path);

    folder.write("System.evtx", made.log);
    write_dumps(made.history, path, &folder);
    folder.write("machine.reg", registry_text(made));
    folder.write("products.json", products_text(made.history));
    folder.write("truth.json", truth_text(made));
    folder.complete = true;
}

int synthesize_command(const synthesize_arguments &arguments)
{
    struct scenario scenario;

    scenario_load(scenario, arguments.scenario, {});
    synthesis made = synthesis_make(scenario, arguments.options, arguments.damage);

    history_expect(scenario, &made.history);
    synthesis_finish(&made);
    synthesis_write(made, arguments.folder);
    size_t dumps = 0;
    for (const history_boot &boot : made.history.boots)
        for (const crash_dump &dump : boot.dumps)
            dumps += dump.replaced ? 0 : 1;
    printf("%s: %s of %s, %s; ./dev replay %s plays them\n", arguments.folder.c_str(),
           text_count(made.history.records.size() - made.damage.gone.size(), "record").c_str(),
           text_count(made.history.boots.size(), "boot").c_str(), text_count(dumps, "dump").c_str(),
           arguments.folder.c_str());
    return EXIT_ALL_HOLD;
}
