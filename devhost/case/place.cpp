/* Which crash a dump is of, and where it lies on the machine. */
#include "case.h"

#include <algorithm>

#include "../base/text.h"
#include "../machine/machine.h"
#include "../machine/registry.h"

static constexpr wchar_t CRASH_CONTROL_KEY[] = L"SYSTEM\\CurrentControlSet\\Control\\CrashControl";

/* Windows writes the dump from the page file soon after the start. */
static constexpr uint64_t WRITTEN_AFTER_100NS = 6 * TICKS_PER_SECOND;

/* Strings of a BugCheck record: code and parameters, and the path of the dump. */
static constexpr int BUG_CHECK_STRING = 0;
static constexpr int DUMP_PATH_STRING = 1;

/* Where Windows writes dumps: the path in the registry, or the default. */
static std::wstring dump_place(const wchar_t *value, const wchar_t *usual)
{
    std::string text;

    if (!machine_get_value(CRASH_CONTROL_KEY, value, &text) || text.empty())
        return machine_get().windows_folder + usual;
    return machine_expand(text_wide(text));
}

static std::string place_of(const evidence_dump &dump)
{
    if (!dump.is_small())
        return text_narrow(dump_place(L"DumpFile", L"\\MEMORY.DMP"));
    return text_narrow(dump_place(L"MinidumpDir", L"\\Minidump") + L"\\") + dump.file_name;
}

std::string replay_dump_path(const event_record &event)
{
    return text_narrow(event.strings.at(DUMP_PATH_STRING));
}

/* The relations of a dump to the crash that this boot reports. */
struct dump_ties {
    enum evidence_fit fit;      /* the best match with a blue screen record of the boot */
    const event_record *record; /* the one that matches, else the first; nullptr: none */
    bool named;                 /* by that record */
    bool in_time;               /* crashed between the previous start and this one */
};

static bool names(const event_record &record, const evidence_dump &dump)
{
    const std::string path = "\\" + text_lower(replay_dump_path(record));
    const std::string file = "\\" + text_lower(dump.file_name);

    return path.size() >= file.size() &&
           path.compare(path.size() - file.size(), file.size(), file) == 0;
}

static dump_ties ties_of(const replay_evidence &evidence, const evidence_dump &dump)
{
    const uint64_t crashed = dump.facts.crash_time_100ns;
    dump_ties ties = {EVIDENCE_FIT_UNKNOWN, nullptr, false, false};

    for (size_t i = evidence.boot->begin; i < evidence.boot->end; i++) {
        const event_record &event = evidence.log.events[i];

        if (!evidence_is_bug_check(event))
            continue;
        const enum evidence_fit fit =
            evidence_dump_fits(dump, text_narrow(event.strings.at(BUG_CHECK_STRING)));

        if (ties.record == nullptr || fit > ties.fit) {
            ties.record = &event;
            ties.fit = fit;
        }
    }
    ties.named = ties.record != nullptr && names(*ties.record, dump);
    ties.in_time = crashed <= evidence.boot->started_100ns &&
                   (evidence.before() == nullptr || crashed >= evidence.before()->started_100ns);
    return ties;
}

/* A crash that repeats at every boot may have the same code and parameters each time: then the dump
 * counts whose name or time matches this boot too. */
static bool has_better(const replay_evidence &evidence, const replay_dump &placed)
{
    for (const replay_dump &other : evidence.dumps) {
        const dump_ties ties = ties_of(evidence, other.dump);

        if (&other != &placed && other.dump.is_small() == placed.dump.is_small() &&
            ties.fit == EVIDENCE_FITS && (ties.named || ties.in_time))
            return true;
    }
    return false;
}

/* Whether the dump is of the crash that this boot reports, and why. */
static bool is_of_this_boot(const replay_evidence &evidence, const replay_dump &placed,
                            std::string *why)
{
    const dump_ties ties = ties_of(evidence, placed.dump);
    const unsigned number = ties.record != nullptr ? ties.record->number : 0;

    /* All complete dumps have the same name, and the previous run may have had a crash without a record:
     * code and parameters count more than name and time. */
    if (ties.fit == EVIDENCE_FITS_NOT) {
        *why = text_format("code and parameters differ from those of record %u", number);
        return false;
    }
    if (ties.fit == EVIDENCE_FITS) {
        *why = text_format("code and parameters are those of record %u", number);
        if ((ties.named && placed.dump.is_small()) || ties.in_time || !has_better(evidence, placed))
            return true;
        *why += ", and another dump matches better";
        return false;
    }
    if (ties.named)
        *why = text_format("record %u names the file", number);
    else if (ties.in_time)
        *why = evidence.before() != nullptr ? "it crashed during the previous run"
                                            : "it crashed before this start, where the log begins";
    else if (placed.dump.facts.crash_time_100ns <= evidence.boot->started_100ns)
        *why = "it crashed before the previous run";
    return ties.named || ties.in_time;
}

/* Copying may have changed the file's time, so it counts only when it is possible: between the start,
 * by the clock as it is set later, and the record of the crash. run: the one that wrote the dump. */
static uint64_t written_of(const replay_evidence &evidence, const evidence_dump &dump,
                           const evidence_run &run, const event_record *bug_check)
{
    const uint64_t own = dump.written_100ns;
    uint64_t start = run.started_100ns;

    for (size_t i = run.begin; bug_check != nullptr && i < run.end; i++) {
        const event_record &event = evidence.log.events[i];
        const uint64_t change = static_cast<uint64_t>(replay_clock_change(event));

        if (own > start && own <= time_of_unix(event.time) - change && &event <= bug_check)
            return own;
        start += change;
    }
    return run.started_100ns + WRITTEN_AFTER_100NS;
}

/* The only run of the log that reports the crash of the dump; nullptr: none, or several. */
static const evidence_run *reported_in(const replay_evidence &evidence, const evidence_dump &dump,
                                       const event_record **record)
{
    const evidence_run *found = nullptr;

    for (const evidence_run &run : evidence.runs)
        for (size_t i = run.begin; i < run.end; i++) {
            const event_record &event = evidence.log.events[i];

            if (!evidence_is_bug_check(event) ||
                evidence_dump_fits(dump, text_narrow(event.strings.at(BUG_CHECK_STRING))) !=
                    EVIDENCE_FITS)
                continue;
            if (found != nullptr && found != &run)
                return nullptr;
            found = &run;
            *record = &event;
        }
    return found != nullptr && found->number != 0 ? found : nullptr;
}

/* A dump of another crash. The order of the records counts more than times, since clocks are set back:
 * then a dump that an earlier run wrote may be newer than this start. */
static void place_other(const replay_evidence &evidence, replay_dump *placed)
{
    const uint64_t crashed = placed->dump.facts.crash_time_100ns,
                   start = evidence.boot->started_100ns;
    const event_record *record = nullptr;
    const evidence_run *run = reported_in(evidence, placed->dump, &record);

    if (run != nullptr && run < evidence.boot) {
        placed->written_100ns = written_of(evidence, placed->dump, *run, record);
        if (placed->written_100ns >= start)
            placed->why =
                text_format("record %u of an earlier boot reports its crash; the clock was "
                            "set back since",
                            record->number);
    } else if (run != nullptr ? run > evidence.boot : crashed >= start) {
        placed->there = false;
        placed->why = "it crashed after this start, so it does not exist yet";
    } else {
        /* Written by an earlier start, however short the run was. */
        placed->written_100ns = std::min(crashed + 60 * TICKS_PER_SECOND, start - TICKS_PER_SECOND);
    }
}

const replay_dump *replay_evidence::dump_at(const std::string &place) const
{
    for (const replay_dump &placed : dumps)
        if (placed.there && text_lower(placed.place) == text_lower(place))
            return &placed;
    return nullptr;
}

static void place_dump(const replay_evidence &evidence, replay_dump *placed)
{
    const dump_ties ties = ties_of(evidence, placed->dump);

    placed->place = place_of(placed->dump);
    placed->there = true;
    placed->record = ties.fit == EVIDENCE_FITS ? ties.record : nullptr;
    placed->is_ours = is_of_this_boot(evidence, *placed, &placed->why);
    if (!placed->is_ours) {
        place_other(evidence, placed);
        return;
    }
    placed->written_100ns = written_of(evidence, placed->dump, *evidence.boot, ties.record);
    placed->why += placed->written_100ns == placed->dump.written_100ns
                       ? "; written at the file's own time"
                       : "; written soon after the start, an assumption";
}

void replay_place_dumps(replay_evidence *evidence)
{
    for (replay_dump &placed : evidence->dumps)
        place_dump(*evidence, &placed);
    /* One path has one file, the newest one. */
    for (replay_dump &placed : evidence->dumps)
        for (replay_dump &other : evidence->dumps)
            if (&placed != &other && placed.there && other.there &&
                text_lower(placed.place) == text_lower(other.place) &&
                placed.written_100ns >= other.written_100ns) {
                other.there = false;
                other.why = "a newer dump replaced it";
            }
}
