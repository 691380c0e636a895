/* Benchmarks of the evidence: scanning event records, a whole query of the System log, scanning a log
 * in the format of Windows, and parsing a stack's text. */
#include "analyze_dmp.h"
#include "win_event_parse.h"

#include "bench_support.h"

#include <set>
#include <string_view>

#include <cstring>

#include "../devhost/base/file.h"
#include "../devhost/base/text.h"
#include "../devhost/evidence/boots.h"
#include "../devhost/evidence/log.h"
#include "../devhost/evtx/evtx_writer.h"
#include "../devhost/machine/event_log.h"
#include "../devhost/machine/machine.h"
#include "../devhost/machine/machine_open.h"
#include "../tests/unit/import_patch.h"

static constexpr int LOG_RECORDS = 65536;
static constexpr int BLOCK_BYTES = 4096; /* one read of the log */
static constexpr int FRAMES = 99;
static constexpr int64_t STACK_TEXT_MIB = 1024ll * 1024;
static constexpr int NO_MATCH = 13;

/* The events that the plug-in expects; none of the records below matches. */
static const event_key s_expected_keys[] = {
    {12,   L"Microsoft-Windows-Kernel-General"},
    {1001, L"BugCheck"                        },
};
static const expected_event_map s_expected = {s_expected_keys, ARRAYSIZE(s_expected_keys)};

/* The most common records of a System log. */
/* clang-format off */
static const event_record s_usual[] = {
    {0, 1709802341, 0x40001b7c, 4, L"Service Control Manager", {L"Windows Update", L"running"}},
    {0, 1709802341, 10016, 2, L"DCOM",
     {L"application-specific", L"Local", L"Activation", L"{2593F8B9-4EAF-457C-B68A-50F6B8EA6B54}",
      L"{15C20B67-12E7-4BB6-92BB-7AFF07997402}", L"DESKTOP", L"user",
      L"S-1-5-21-1004336348-1177238915-682003330-512", L"LocalHost"}},
    {0, 1709802341, 16, 4, L"Microsoft-Windows-Kernel-General",
     {L"95", L"\\SystemRoot\\System32\\Config\\DRIVERS", L"1", L"1"}},
    {0, 1709802341, 19, 4, L"Microsoft-Windows-WindowsUpdateClient",
     {L"Security Intelligence Update - KB2267602 (Version 1.407.511.0)",
      L"{b6ad2bb4-4b4c-4b2e-9c0f-6a7c1a4b2b77}", L"200"}},
    {0, 1709802341, 37, 4, L"Microsoft-Windows-Time-Service",
     {L"time.windows.com,0x9 (ntp.m|0x9|0.0.0.0:123->52.148.114.188:123)", L"0"}},
    {0, 1709802341, 0x40001b58, 4, L"Service Control Manager",
     {L"Background Intelligent Transfer Service", L"auto start", L"demand start", L"BITS"}},
};
/* clang-format on */

/* Returns the machine's log; the first call fills it. */
static const std::vector<event_record> &usual_log(void)
{
    std::vector<event_record> &events = machine_get().events;

    while (events.size() < LOG_RECORDS)
        machine_log(s_usual[events.size() % (sizeof(s_usual) / sizeof(s_usual[0]))]);
    return events;
}

template <typename Function> static Function stand_in(const char *name)
{
    return reinterpret_cast<Function>(machine_stand_in(name));
}

/* Returns the log as the reader receives it: one block per read, newest first. */
static const std::vector<std::string> &log_blocks(void)
{
    static std::vector<std::string> blocks;
    std::string block(BLOCK_BYTES, '\0');
    DWORD filled = 0, needed = 0;

    if (!blocks.empty())
        return blocks;
    bench_require(usual_log().size() == LOG_RECORDS, "the log has another size");
    const HANDLE log = stand_in<decltype(&OpenEventLogW)>("OpenEventLogW")(nullptr, L"System");
    for (;;) {
        if (!stand_in<decltype(&ReadEventLogW)>("ReadEventLogW")(
                log, EVENTLOG_SEQUENTIAL_READ | EVENTLOG_BACKWARDS_READ, 0, block.data(),
                BLOCK_BYTES, &filled, &needed))
            break;
        blocks.push_back(block.substr(0, filled));
    }
    stand_in<decltype(&CloseEventLog)>("CloseEventLog")(log);
    return blocks;
}

/* Returns as many concatenated blocks of the log as fit into bytes. */
static std::string log_block(size_t bytes)
{
    std::string joined;

    for (const std::string &block : log_blocks()) {
        if (joined.size() + block.size() > bytes)
            break;
        joined += block;
    }
    return joined;
}

/* The baseline of a scan: reads Length and EventID and finds the end of the source name of each
 * record. */
static uint32_t walk_records(const std::string &block)
{
    uint32_t seen = 0;

    for (size_t at = 0; at + sizeof(EVENTLOGRECORD) <= block.size();) {
        const char *record = block.data() + at;
        uint32_t length, event_id;
        const wchar_t *name = reinterpret_cast<const wchar_t *>(record + sizeof(EVENTLOGRECORD));
        memcpy(&length, record, sizeof(length));
        memcpy(&event_id, record + offsetof(EVENTLOGRECORD, EventID), sizeof(event_id));
        while (*name != L'\0')
            name++;
        seen += event_id + static_cast<uint32_t>(reinterpret_cast<const char *>(name) - record);
        at += length;
    }
    return seen;
}

static void scan(benchmark::State &state)
{
    const std::string block = log_block(static_cast<size_t>(state.range(0)));
    const uint8_t *bytes = reinterpret_cast<const uint8_t *>(block.data());
    bench_pair pair(state);

    for (auto _ : state)
        pair.turn(
            100, [&] { benchmark::DoNotOptimize(walk_records(block)); },
            [&] {
                uint32_t event_id;
                const wchar_t *provider;
                const uint8_t *record;
                bench_require(find_expected_event(bytes, static_cast<uint32_t>(block.size()),
                                                  &event_id, &provider, &record,
                                                  s_expected) == NO_MATCH,
                              "a record matches");
            });
}
BENCHMARK(scan)->Arg(4096)->Arg(65536)->UseManualTime();

/* The baseline of a query: copies the log block by block into one buffer. */
static void copy_log(const std::vector<std::string> &blocks)
{
    static char buffer[BLOCK_BYTES];

    for (const std::string &block : blocks) {
        memcpy(buffer, block.data(), block.size());
        benchmark::DoNotOptimize(buffer);
        benchmark::ClobberMemory();
    }
}

struct stand_in_patch : import_patch {
    explicit stand_in_patch(const char *name)
        : import_patch(name, reinterpret_cast<void (*)()>(machine_stand_in(name)))
    {
    }
};

static void query(benchmark::State &state)
{
    stand_in_patch open("OpenEventLogW"), read("ReadEventLogW"), close("CloseEventLog");
    const std::vector<std::string> &blocks = log_blocks();
    bench_pair pair(state);

    for (auto _ : state)
        pair.turn(
            1, [&] { copy_log(blocks); },
            [&] {
                event_info info = {};
                bench_require(win_event_parse().get_crash_info(&info, s_expected) == NO_MATCH,
                              "the query does not read the log to its end");
            });
}
BENCHMARK(query)->Arg(LOG_RECORDS)->UseManualTime();

/* Returns the path of a new log of about that many MiB. */
static std::string evtx_file(size_t mib)
{
    const std::string path = bench_folder() + "System.evtx";
    std::vector<event_record> events;
    size_t wanted = 1000;

    for (int round = 0; round < 2; round++) {
        while (events.size() < wanted) {
            events.push_back(s_usual[events.size() % (sizeof(s_usual) / sizeof(s_usual[0]))]);
            events.back().number = static_cast<uint32_t>(events.size());
        }
        const std::string bytes = evtx_bytes(events, L"DESKTOP");
        wanted = (mib << 20) / (bytes.size() / events.size());
        evidence_write(path, bytes);
    }
    return path;
}

/* Reads the records that separate the runs of Windows, and the checksums. The baseline copies the file, which
 * is mapped for both. */
static void evtx(benchmark::State &state)
{
    const std::string path = evtx_file(static_cast<size_t>(state.range(0)));
    const evidence_file file(path);
    std::vector<uint8_t> copy(static_cast<size_t>(file.bytes()));
    bench_pair pair(state);

    for (auto _ : state)
        pair.turn(
            1,
            [&] {
                memcpy(copy.data(), file.data(), copy.size());
                benchmark::ClobberMemory();
            },
            [&] {
                evidence_log log;
                evidence_read_evtx(file, &evidence_run_records(), &log);
                bench_require(log.records > 0 && log.gaps.empty(), "the log is not read whole");
            });
}
BENCHMARK(evtx)->Arg(32)->Arg(128)->UseManualTime();

/* Returns a stack of that many frames, as the engine prints it with Windows' symbols. */
static std::string stack_text(size_t frames)
{
    static const char *const sites[] = {
        "nt!KeBugCheckEx+0x107",
        "nt!KiBugCheckDispatch+0x69",
        "nt!KiPageFault+0x46e",
        "guard_flt+0x%zx",
        "guard_flt+0x%zx",
        "fltmgr!FltpPerformPreCallbacks+0x2fd",
        "fltmgr!FltpPassThrough+0x184",
        "fltmgr!FltpDispatch+0x103",
        "nt!IofCallDriver+0x55",
        "nt!IopSynchronousServiceTail+0x361",
        "ntfs!NtfsCommonCreate+0x%zx",
        "ntfs!NtfsFsdCreate+0x202",
        "nt!NtCreateFile+0x79",
        "nt!KiSystemServiceCopyEnd+0x25",
    };
    std::string text = "Call Site\n";

    for (size_t frame = 0; frame < frames; frame++)
        text += text_replace(sites[frame % (sizeof(sites) / sizeof(sites[0]))], "%zx",
                             text_format("%x", static_cast<unsigned>(0x1a2b + frame))) +
                "\n";
    return text;
}

/* The baseline of parsing: takes the name before each line's separator, the first '!' or else the
 * first '+', into a set. */
static void collect_names(const std::string &text, std::set<std::string, std::less<>> *names)
{
    size_t line = 0, mark = 0, plus = 0;

    for (size_t at = 0; at < text.size(); at++) {
        if (text[at] == '!' && mark == 0) {
            mark = at;
        } else if (text[at] == '+' && plus == 0) {
            plus = at;
        } else if (text[at] == '\n') {
            const size_t end = mark != 0 ? mark : plus;

            const std::string_view name(text.data() + line, end != 0 ? end - line : 0);
            if (end != 0 && names->find(name) == names->end())
                names->emplace(name);
            line = at + 1;
            mark = plus = 0;
        }
    }
}

/* Times parsing. Clears the sets between the turns, since that is the caller's work. */
static void cut_stack(benchmark::State &state, const std::string &text)
{
    std::vector<crash_module_set> sets(text.size() > 65536 ? 1 : 100);
    const int calls = static_cast<int>(sets.size());
    bench_pair pair(state);

    for (auto _ : state) {
        size_t next = 0;

        pair.turn(
            calls,
            [&] {
                std::set<std::string, std::less<>> names;

                collect_names(text, &names);
                benchmark::DoNotOptimize(names);
            },
            [&] {
                bench_require(get_module_set_from_dmp_info(text, &sets[next++]),
                              "no module is found");
            });
        for (crash_module_set &modules : sets)
            modules.clear();
    }
}

static void stack_frames(benchmark::State &state)
{
    cut_stack(state, stack_text(FRAMES));
}
BENCHMARK(stack_frames)->Arg(FRAMES)->UseManualTime();

static void stack_bytes(benchmark::State &state)
{
    std::string text = stack_text(STACK_TEXT_MIB / 16);

    text.resize(STACK_TEXT_MIB);
    cut_stack(state, text);
}
BENCHMARK(stack_bytes)->Arg(STACK_TEXT_MIB)->UseManualTime();
