/* Doubts, one function a kind. */
#include "replay.h"

#include <algorithm>

#include "../base/text.h"
#include "../base/system_events.h"

/* Where Windows writes dumps by default. */
static constexpr char DEFAULT_SMALL[] = "c:\\windows\\minidump\\";
static constexpr char DEFAULT_COMPLETE[] = "c:\\windows\\memory.dmp";

namespace
{
/* The boot that is played, and the doubts so far. */
struct doubter {
    const replay_evidence &evidence;
    const replay_story &story;
    std::vector<const event_record *> bug_checks, unexpected, logons; /* of the boot */
    std::vector<replay_doubt> doubts;

    void add(bool decides, const std::string &reason, const std::string &text)
    {
        doubts.push_back({reason, text, decides});
    }
    /* A doubt about the log. */
    void add_log(bool decides, const std::string &reason, const std::string &text)
    {
        add(decides, reason, evidence.events_file + ": " + text);
    }
    void add_dump(bool decides, const std::string &reason, const replay_dump &placed,
                  const std::string &text)
    {
        add(decides, reason, placed.dump.shown + ": " + text);
    }
    const event_record &start() const
    {
        return evidence.log.events[evidence.boot->begin];
    }
    bool is_last_boot() const
    {
        return evidence.boot == &evidence.runs.back();
    }
};
} // namespace

static std::string record_name(const event_record &event)
{
    return text_format("record %u (", event.number) + evidence_event_name(event) + ")";
}

static std::string numbers(const evidence_gap &gap)
{
    return gap.first == gap.last ? text_format("record %llu", gap.first)
                                 : text_format("records %llu to %llu", gap.first, gap.last);
}

/* Records that are missing between this start and the next one. */
static void doubt_gaps(doubter &d)
{
    const evidence_log &log = d.evidence.log;
    const uint64_t begin = d.start().number;
    const uint64_t end = d.is_last_boot() ? UINT64_MAX : log.events[d.evidence.boot->end].number;
    bool any = false;

    for (const evidence_gap &gap : log.gaps)
        if (gap.first > begin && gap.first < end) {
            const std::string many = text_count(gap.last - gap.first + 1, "record");

            d.add_log(true,
                      many + " of this boot " + (many == "1 record" ? "is" : "are") + " missing",
                      numbers(gap) + " of boot " + std::to_string(d.evidence.boot->number) +
                          " cannot be read; hand in a complete export of the System log");
            any = true;
        }
    if (!log.cut_off.empty())
        d.add_log(d.is_last_boot(), "the log is truncated",
                  log.cut_off + ", after " + text_format("record %u", log.events.back().number) +
                      "; hand in a complete export of the System log");
    else if (!log.damage.empty() && !any)
        d.add_log(
            false, "the log is damaged",
            log.damage.front() +
                (log.damage.size() > 1
                     ? ", and " + text_count(log.damage.size() - 1, "further finding")
                     : "") +
                ", outside the records of this boot; hand in a complete export of the System log");
}

/* Windows writes the record of a crash after that of the unexpected shutdown, or not at all. */
static void doubt_unexpected(doubter &d)
{
    if (!d.bug_checks.empty())
        return;
    for (const event_record *event : d.unexpected)
        if (evidence_unexpected_code(*event) != 0)
            d.add_log(true, "the record of the blue screen is missing",
                      record_name(*event) +
                          text_format(" contains bug check 0x%x, and no BugCheck 1001 follows; "
                                      "hand in a System log that was exported later, and the dump",
                                      evidence_unexpected_code(*event)));
}

static std::string file_of(const std::string &path)
{
    return text_lower(file_name_of(path));
}

static void doubt_missing_dump(doubter &d, const event_record &event)
{
    const std::string path = replay_dump_path(event);

    for (const replay_dump &placed : d.evidence.dumps)
        if (placed.is_ours)
            return;
    if (path.empty())
        d.add_log(true, "no dump of the crash was handed in",
                  record_name(event) +
                      " reports a blue screen, and no dump of it was handed in; hand in the files "
                      "of C:\\Windows\\Minidump, and C:\\Windows\\MEMORY.DMP");
    else
        d.add_log(true, "the dump " + path + " was not handed in",
                  record_name(event) + " names " + path + ", which was not handed in; hand it in");
}

/* The plug-in prefers the small dump, so a complete one that is missing changes nothing by itself. */
static void doubt_other_dump(doubter &d, const event_record &event)
{
    for (const replay_dump &placed : d.evidence.dumps)
        if (placed.is_ours && !d.story.dump.empty() &&
            &placed != d.evidence.dump_at(d.story.dump) && placed.dump.is_small())
            d.add_dump(true, "the plug-in does not read the dump of the crash", placed,
                       replay_dump_fate(d.evidence, placed, d.story) + ", although it matches " +
                           record_name(event) +
                           "; hand in all files of its folder with their times");
}

/* A log that was exported before the crash, or is of another machine. */
static void doubt_unknown_dump(doubter &d, const replay_dump &placed)
{
    const kernel_dump &facts = placed.dump.facts;
    const evidence_run *before = d.evidence.before();
    /* A run that began before the log was running when the log's first record was written. */
    const uint64_t since = before == nullptr     ? 0
                           : before->number == 0 ? time_of_unix(d.evidence.log.events.front().time)
                                                 : before->started_100ns;
    const bool in_time =
        facts.crash_time_100ns >= since &&
        (facts.crash_time_100ns <= d.evidence.boot->started_100ns || d.is_last_boot());

    for (const event_record &event : d.evidence.log.events)
        if (evidence_is_bug_check(event) &&
            evidence_dump_fits(placed.dump, text_narrow(event.strings.at(0))) == EVIDENCE_FITS)
            return;
    d.add_dump(in_time, "the crash of " + placed.dump.file_name + " is not in the log", placed,
               text_format("bug check 0x%x of ", facts.bug_check & ~KERNEL_DUMP_TRIAGE_FLAG) +
                   time_iso(facts.crash_time_100ns) + " matches no record BugCheck 1001 of " +
                   d.evidence.events_file +
                   "; hand in the System log of that machine, exported after its next start");
}

static void doubt_engine(doubter &d)
{
    const replay_dump *placed = d.evidence.dump_at(d.story.dump);

    if (placed == nullptr)
        return;
    for (const std::string &gap : placed->dump.facts.gaps)
        d.add_dump(true, placed->dump.file_name + " is incomplete", *placed,
                   gap + "; hand in a complete copy, or the small dump of the same crash");
    if (d.story.stack.empty())
        d.add_dump(
            true, "no stack was read from " + placed->dump.file_name, *placed,
            (d.story.engine_error.empty() ? "the engine printed no stack" : d.story.engine_error) +
                "; hand in another dump of the same crash");
}

/* Of images that were handed in: what they leave open. */
static void doubt_images(doubter &d)
{
    const replay_scanned &scanned = d.story.scanned;

    if (!scanned.wanted.empty())
        d.add(true, "the frame of " + scanned.module + " was found by scanning the stack",
              file_of(d.story.dump) + ": the frame of " + scanned.module +
                  (d.story.blamed.empty() ? " is found only by scanning the whole stack"
                                          : " was found by scanning") +
                  ", so its address may be stale; " + scanned.wanted);
    for (const replay_image_use &use : d.evidence.image_uses)
        if (!use.why.empty())
            d.add(false, use.file + " was not used",
                  use.file + ": " + use.why + "; hand in the file of that machine");
}

static void doubt_ignored(doubter &d)
{
    for (const replay_ignored &ignored : d.evidence.ignored) {
        const std::string name = text_lower(ignored.file);
        const size_t dot = name.find_last_of('.');
        const std::string end = dot == std::string::npos ? "" : name.substr(dot);

        if (end == ".dmp" || end == ".evtx" || end == ".reg")
            d.add(false, ignored.file + " was not used",
                  ignored.file + ": not used, " + ignored.why +
                      "; hand in an intact copy if it is "
                      "of this crash");
    }
}

/* The seconds after the start at which a record was written; negative: before it. */
static int64_t seconds_after_start(const doubter &d, const event_record &event)
{
    return static_cast<int64_t>(event.time) - time_unix(d.evidence.boot->started_100ns);
}

/* The plug-in skips a logon and dumps that seem older than the start. */
static void doubt_clock(doubter &d)
{
    for (const auto &events : {d.bug_checks, d.unexpected, d.logons})
        for (const event_record *event : events) {
            if (seconds_after_start(d, *event) >= 0)
                continue;
            const bool logon = event->source == SOURCE_WINLOGON;

            d.add_log(!logon || !d.bug_checks.empty() || !d.unexpected.empty(),
                      "the clock was set back during this boot",
                      record_name(*event) + " has the time " + time_iso(time_of_unix(event->time)) +
                          ", before the start at " + time_iso(d.evidence.boot->started_100ns) +
                          ": the clock was set back, and the plug-in skips a logon and dumps that "
                          "seem older than the start; hand in the agent's log of this boot");
        }
}

static const char *const s_verdicts[] = {
    "reaches no verdict", "concludes a normal end", "concludes an unexpected shutdown",
    "concludes a blue screen", "reaches no verdict: its queries failed"};

/* What the records of the boot show, against what the plug-in made of them. */
static void doubt_disagreement(doubter &d)
{
    const event_record *proof = !d.bug_checks.empty()   ? d.bug_checks.front()
                                : !d.unexpected.empty() ? d.unexpected.front()
                                                        : nullptr;

    if (proof == nullptr || d.story.verdict == VERDICT_CRASH ||
        (d.bug_checks.empty() && d.story.verdict == VERDICT_POWER_LOSS))
        return;
    d.add_log(true,
              std::string("the log shows ") +
                  (d.bug_checks.empty() ? "an unexpected shutdown" : "a blue screen") +
                  ", and the plug-in " + s_verdicts[d.story.verdict],
              record_name(*proof) +
                  text_format(", %lld s after the start, contradicts the plug-in, which ",
                              seconds_after_start(d, *proof)) +
                  s_verdicts[d.story.verdict] +
                  (d.story.last_query_ms != 0
                       ? text_format(" after %llu s", d.story.last_query_ms / 1000)
                       : "") +
                  "; hand in the agent's log of this boot");
}

/* Without blanks, folder and the ending of a file, in lower case. */
static std::string normalised(const std::string &name)
{
    std::string text = file_of(name);

    text.erase(std::remove_if(text.begin(), text.end(),
                              [](char c) { return c == ' ' || c == '\t' || c == '"'; }),
               text.end());
    for (const char *end : {".sys", ".dll", ".exe"})
        if (text.size() > 4 && text.compare(text.size() - 4, 4, end) == 0)
            text.resize(text.size() - 4);
    return text;
}

static void doubt_names(doubter &d)
{
    std::vector<std::string> seen;

    for (const replay_product &product : d.evidence.products)
        for (const std::string &module : product.modules)
            for (const replay_frame &frame : d.story.stack) {
                const std::string pair = product.name + "/" + module + "/" + frame.module;

                if (frame.module.empty() || frame.module == module ||
                    normalised(frame.module) != normalised(module) ||
                    std::find(seen.begin(), seen.end(), pair) != seen.end())
                    continue;
                seen.push_back(pair);
                d.add(true,
                      "\"" + module + "\" is registered, and \"" + frame.module +
                          "\" is on the stack",
                      "product \"" + product.name + "\" registers \"" + module +
                          "\", and the stack of " + file_of(d.story.dump) + " contains \"" +
                          frame.module +
                          "\"; names match only letter by letter: check the name that the product "
                          "registers, and pass it with --product");
            }
}

static void doubt_products(doubter &d)
{
    if (d.evidence.products.empty())
        d.add(d.story.verdict != VERDICT_NORMAL && d.story.verdict != VERDICT_POWER_LOSS,
              "no product was named",
              "no product was named, so only the platform's own drivers register; hand in the "
              "products of the machine with --products FILE or --product NAME:MODULE");
}

/* Default paths are a guess, unless a record names the same. */
static void doubt_registry(doubter &d)
{
    if (!d.evidence.registry_files.empty() || d.bug_checks.empty())
        return;
    const event_record &event = *d.bug_checks.front();
    const std::string path = text_lower(replay_dump_path(event));
    const bool usual =
        path.empty() || path.rfind(DEFAULT_SMALL, 0) == 0 || path == DEFAULT_COMPLETE;

    d.add(!usual,
          usual ? "no registry export was handed in"
                : "no registry export was handed in, and the dump is not in the default folder",
          "no registry export was handed in: Windows' default folders are assumed, " +
              (path.empty() ? "and " + record_name(event) + " names no dump"
                            : "and " + record_name(event) + " names " + replay_dump_path(event)) +
              "; hand in an export of HKEY_LOCAL_MACHINE\\SYSTEM\\CurrentControlSet\\Control");
}

/* A log that was exported soon after the start may lack the record of the crash. */
static void doubt_early_end(doubter &d)
{
    const event_record &last = d.evidence.log.events.back();
    const evidence_run *before = d.evidence.before();
    const int64_t seconds = seconds_after_start(d, last);
    const int64_t searched = static_cast<int64_t>(d.story.last_query_ms / 1000);

    if (!d.is_last_boot() || !d.bug_checks.empty() || seconds >= searched || seconds < 0)
        return;
    const bool clean = before != nullptr && before->ending == RUN_ENDED_CLEAN;

    d.add_log(!clean && d.unexpected.empty() && before != nullptr,
              "the log ends soon after the start",
              text_format("%s, the last one, was written %lld s after the start, and the plug-in "
                          "searches until %lld s; hand in a System log that was exported later",
                          record_name(last).c_str(), seconds, searched));
}

static void doubt_unknown_end(doubter &d)
{
    const evidence_run *before = d.evidence.before();

    if (before != nullptr && before->ending == RUN_ENDED_UNKNOWN && d.doubts.empty())
        d.add_log(false, "the log does not show how the previous run ended",
                  text_format("no record shows how the run before record %u ended; hand in a log "
                              "that covers it, if there is one",
                              d.start().number));
}

std::vector<replay_doubt> doubts_of(const replay_evidence &evidence, const replay_story &story)
{
    doubter d = {evidence, story, {}, {}, {}, {}};

    for (size_t i = evidence.boot->begin; i < evidence.boot->end; i++) {
        const event_record &event = evidence.log.events[i];

        if (evidence_is_bug_check(event))
            d.bug_checks.push_back(&event);
        else if (event.is(RECORD_UNEXPECTED))
            d.unexpected.push_back(&event);
        else if (event.is(RECORD_LOGON))
            d.logons.push_back(&event);
    }
    doubt_gaps(d);
    doubt_unexpected(d);
    if (!d.bug_checks.empty()) {
        doubt_missing_dump(d, *d.bug_checks.front());
        doubt_other_dump(d, *d.bug_checks.front());
    }
    for (const replay_dump &placed : evidence.dumps)
        doubt_unknown_dump(d, placed);
    doubt_engine(d);
    doubt_images(d);
    doubt_clock(d);
    doubt_disagreement(d);
    if (story.blamed.empty())
        doubt_names(d);
    doubt_products(d);
    doubt_registry(d);
    doubt_ignored(d);
    doubt_early_end(d);
    doubt_unknown_end(d);
    std::stable_sort(
        d.doubts.begin(), d.doubts.end(),
        [](const replay_doubt &a, const replay_doubt &b) { return a.decides && !b.decides; });
    return d.doubts;
}
