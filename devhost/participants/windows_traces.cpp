/* What Windows leaves of a run and writes in the next one. */
#include "windows_traces.h"

#include <utility>

#include "../../platform/liboxnibase/host.h"
#include "../base/system_events.h"
#include "../base/text.h"
#include "../disk/files.h"
#include "../machine/event_log.h"
#include "../machine/machine.h"
#include "../machine/modules.h"
#include "../scenario/journal.h"
#include "../scenario/timeline.h"
#include "machine_setup.h"

/* Seconds after the start of Windows at which it writes these. */
static constexpr double START_SECONDS = 0.0;
static constexpr double UNEXPECTED_SECONDS = 3.0;
static constexpr double DUMP_SECONDS = 6.0;
static constexpr double WINLOGON_SECONDS = 20.0;
static constexpr double BUG_CHECK_SECONDS = 25.0;

#define DEFAULT_BUG_CHECK                                                                          \
    "0x0000007e (0xffffffffc0000005, 0xfffff8048b58334c, 0xffff850429891ee8, 0xffff850429891720)"

/* Content of the file of a scripted dump, which nothing reads. */
static constexpr char SCRIPTED_DUMP_TEXT[] = "(the stack of this dump is in the scenario)";

static void log_record(const wchar_t *source, uint32_t id, uint64_t time_100ns,
                       event_strings strings)
{
    uint16_t type = id == EVENT_UNEXPECTED_SHUTDOWN || id == BUG_CHECK_EVENT_ID
                        ? EVENTLOG_ERROR_TYPE
                        : EVENTLOG_INFORMATION_TYPE;

    journal_add(HAPPENED_STEP, "windows",
                text_format("logs event %u of %s", id & 0xffff, text_narrow(source).c_str()));
    machine_log(
        {0, static_cast<uint32_t>(time_unix(time_100ns)), id, type, source, std::move(strings)});
}

/* A record at a moment of this boot; at once when that is past. */
static void plan_record(double seconds, const wchar_t *source, uint32_t id, event_strings strings)
{
    uint64_t ms = timeline_ms(seconds);
    uint64_t time = machine_get().boot_100ns + ms * TICKS_PER_MS;

    if (ms <= timeline_now_ms())
        log_record(source, id, time, std::move(strings));
    else
        timeline_at(ms, [=] { log_record(source, id, oxnih_clock_now_100ns(), strings); });
}

/* Where a dump lies: a path, or true for Windows' own place. Empty: there is none. */
static std::wstring dump_path(const node &said, bool usual, const std::wstring &place)
{
    if (said && said->IsString())
        return text_wide(said->GetString());
    return (said ? said->GetBool() : usual) ? place : L"";
}

static std::wstring usual_minidump(uint64_t crashed_100ns)
{
    std::string date = time_iso(crashed_100ns); /* YYYY-MM-DD... */

    return machine_get().windows_folder + L"\\Minidump\\" +
           text_wide(date.substr(5, 2) + date.substr(8, 2) + date.substr(2, 2) + "-5437-01.dmp");
}

static void write_dump(const std::wstring &path, const node &crash)
{
    std::string bytes = SCRIPTED_DUMP_TEXT;
    uint64_t now = oxnih_clock_now_100ns();

    if (path.empty())
        return;
    machine_get_engine().stacks.erase(path);
    if (crash["dump"])
        bytes = machine_read_real_file(text_wide(crash["dump"].path()), EXIT_BAD_EVIDENCE);
    else
        machine_get_engine().stacks[path] = machine_setup_stack(crash);
    machine_update_engine();
    machine_write_file(path, bytes, now, now);
    journal_add(HAPPENED_STEP, "windows", "writes the dump " + text_narrow(path));
}

/* The dump files and the BugCheck record of a blue screen. */
static void plan_blue_screen(const node &crash, uint64_t crashed_100ns)
{
    bool has_dump = crash["frames"] || crash["stack"] || crash["dump"];
    std::wstring minidump = dump_path(crash["minidump"], has_dump, usual_minidump(crashed_100ns));
    std::wstring complete =
        dump_path(crash["complete"], false, machine_get().windows_folder + L"\\MEMORY.DMP");
    std::wstring named = minidump.empty() ? complete : minidump;

    timeline_at(timeline_ms(crash.number("written", DUMP_SECONDS)), [minidump, complete, crash] {
        write_dump(minidump, crash);
        write_dump(complete, crash);
    });
    if (!crash.is_null("recorded"))
        plan_record(crash.number("recorded", BUG_CHECK_SECONDS), SOURCE_BUG_CHECK,
                    BUG_CHECK_EVENT_ID,
                    {text_wide(crash.text("bug_check", DEFAULT_BUG_CHECK)), named,
                     L"00000000-0000-0000-0000-000000000000"});
}

void windows_traces_plan(const node &boot, const std::string &ended, const node &crash,
                         uint64_t crashed_100ns)
{
    node log = boot["log"];
    uint64_t start = machine_get().boot_100ns;

    if (!boot.is_null("log")) {
        if (!log.is_null("start"))
            plan_record(log.number("start", START_SECONDS), SOURCE_KERNEL_GENERAL,
                        EVENT_WINDOWS_START,
                        {L"10", L"0", L"19041", L"1", L"0", L"0", text_wide(time_iso(start))});
        if (ended != "clean" && !log.is_null("unexpected"))
            plan_record(log.number("unexpected", UNEXPECTED_SECONDS), SOURCE_KERNEL_POWER,
                        EVENT_UNEXPECTED_SHUTDOWN,
                        {L"0", L"0x0", L"0x0", L"0x0", L"0x0", L"false", L"0"});
        if (!log.is_null("winlogon"))
            plan_record(log.number("winlogon", WINLOGON_SECONDS), SOURCE_WINLOGON, EVENT_LOGON,
                        {L"1", L"S-1-5-21-1-2-3-1001"});
    }
    if (ended == "blue_screen")
        plan_blue_screen(crash, crashed_100ns != 0 ? crashed_100ns : start - 60 * TICKS_PER_SECOND);
}

void windows_traces_shutdown(void)
{
    uint64_t now = oxnih_clock_now_100ns();

    log_record(SOURCE_KERNEL_GENERAL, EVENT_CLEAN_SHUTDOWN, now, {text_wide(time_iso(now))});
}
