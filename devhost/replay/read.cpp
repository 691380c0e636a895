/* What was handed in: read, checked, and told where on the machine it belongs. */
#include "replay.h"

#include <algorithm>

#include "../machine/machine.h"
#include "../base/text.h"

#define CRASH_CONTROL_KEY L"SYSTEM\\CurrentControlSet\\Control\\CrashControl"

#define STANDARD_COUNT    3
#define STANDARD_STATUS   "working"

/* Windows writes the dump from the page file soon after the start. */
#define WRITTEN_AFTER_100NS (6 * TICKS_PER_SECOND)

/* The string of a BugCheck record with code and parameters, and that with the dump's path. */
#define BUG_CHECK_STRING 0
#define DUMP_PATH_STRING 1

static std::vector<std::string> split(const std::string &text, char separator)
{
    std::vector<std::string> parts;
    size_t at = 0;

    for (size_t end; (end = text.find(separator, at)) != std::string::npos; at = end + 1)
        parts.push_back(text.substr(at, end - at));
    parts.push_back(text.substr(at));
    return parts;
}

[[noreturn]] static void bad_product(const std::string &text, const std::string &what)
{
    throw devhost_error(EXIT_BAD_CALL, "--product " + text + ": " + what +
                                           "; expected NAME:MODULE,MODULE[:COUNT[:STATUS]]");
}

static replay_product parse_product(const std::string &text)
{
    const std::vector<std::string> parts = split(text, ':');
    replay_product product = {parts[0], {}, STANDARD_COUNT, STANDARD_STATUS};
    char *end = NULL;

    if (parts.size() < 2 || parts.size() > 4)
        bad_product(text, std::to_string(parts.size()) + " parts");
    if (product.name.empty())
        bad_product(text, "no name");
    for (const std::string &module : split(parts[1], ',')) {
        if (module.empty())
            bad_product(text, "a module without a name");
        product.modules.push_back(module);
    }
    if (parts.size() > 2) {
        product.count = strtoll(parts[2].c_str(), &end, 10);
        if (parts[2].empty() || *end != '\0' || product.count < 0 || product.count > INT32_MAX)
            bad_product(text, "count \"" + parts[2] + "\" is no number from 0 on");
    }
    if (parts.size() > 3) {
        product.status = parts[3];
        if (product.status != "working" && product.status != "bypass" &&
            product.status != "initializing")
            bad_product(text, "status \"" + parts[3] + "\" is not working, bypass or initializing");
    }
    return product;
}

static void read_products(const std::vector<std::string> &texts,
                          std::vector<replay_product> *products)
{
    for (const std::string &text : texts) {
        const replay_product product = parse_product(text);

        for (const replay_product &other : *products)
            if (other.name == product.name)
                bad_product(text, "the name stands twice");
        products->push_back(product);
    }
}

static const evidence_run *find_boot(const replay_evidence &evidence, const std::string &text)
{
    const size_t last = evidence.runs.empty() ? 0 : evidence.runs.back().number;
    char *end;
    const unsigned long number = strtoul(text.c_str(), &end, 10);

    if (last == 0)
        throw devhost_error(EXIT_BAD_EVIDENCE, evidence.events_file +
                                                   ": holds no start of Windows, record " +
                                                   "Microsoft-Windows-Kernel-General 12");
    for (const evidence_run &run : evidence.runs)
        if (run.number != 0 &&
            (text == "last" ? run.number == last : *end == '\0' && run.number == number))
            return &run;
    throw devhost_error(EXIT_BAD_CALL, "--boot " + text +
                                           ": expected \"last\" or a number from 1 to " +
                                           std::to_string(last) + " (--boots lists them)");
}

replay_evidence replay_read(const struct replay_options &options, bool needs_boot)
{
    replay_evidence evidence = {};

    evidence.events_file = options.events;
    evidence.registry_file = options.registry;
    read_products(options.products, &evidence.products);
    evidence_log_read(options.events, options.damage, &evidence.log);
    evidence.records = evidence.log.events.size();
    evidence.runs = evidence_runs(evidence.log);
    for (const std::string &path : options.dumps) {
        evidence.dumps.push_back({});
        evidence_dump_read(path, &evidence.dumps.back().dump);
    }
    if (!options.registry.empty())
        evidence_registry_read(options.registry, &evidence.registry);
    if (needs_boot) {
        evidence.boot = find_boot(evidence, options.boot);
        if (evidence.boot != &evidence.runs.front())
            evidence.before = evidence.boot - 1;
    }
    return evidence;
}

std::string replay_scenario(const replay_evidence &evidence)
{
    std::string products, devices;

    for (const replay_product &product : evidence.products) {
        const std::string comma = products.empty() ? "" : ", ", name = text_quoted(product.name);
        std::string modules;

        for (const std::string &module : product.modules)
            modules += (modules.empty() ? "" : ", ") + text_quoted(module);
        products += comma + name + ": {\"modules\": [" + modules +
                    "], \"count\": " + std::to_string(product.count) +
                    ", \"status\": " + text_quoted(product.status) + "}";
        /* A management side that takes its alarm. */
        devices += comma + "{\"product\": " + name +
                   ", \"device_id\": \"replay\", \"agent_version\": \"replay\"}";
    }
    return "{\"products\": {" + products + "}, \"management\": {\"link\": true, \"devices\": [" +
           devices +
           "]}, \"boots\": [{\"at\": " + text_quoted(time_iso(evidence.boot->started_100ns, true)) +
           ", \"log\": null}]}";
}

/* Where Windows puts dumps, as the registry says or by itself. */
static std::wstring dump_place(const wchar_t *value, const wchar_t *usual)
{
    std::string text;

    if (!machine_get_value(CRASH_CONTROL_KEY, value, &text) || text.empty())
        return machine_get().windows_folder + usual;
    return machine_expand(text_wide(text));
}

static bool is_small(const evidence_dump &dump)
{
    return dump.facts.kind == KERNEL_DUMP_KIND_TRIAGE;
}

static std::string place_of(const evidence_dump &dump)
{
    if (!is_small(dump))
        return text_narrow(dump_place(L"DumpFile", L"\\MEMORY.DMP"));
    return text_narrow(dump_place(L"MinidumpDir", L"\\Minidump") + L"\\") + dump.file_name;
}

static std::string string_of(const event_record &event, size_t index)
{
    return text_narrow(event.strings.at(index));
}

/* What ties a dump to the crash that this boot reports. */
struct dump_ties {
    enum evidence_fit fit;      /* to the boot's blue screen records: the best */
    const event_record *record; /* the one that fits, else the first; NULL: there is none */
    bool named;                 /* by that record */
    bool in_time;               /* its crash lies between the start before and this one */
};

static bool names(const event_record &record, const evidence_dump &dump)
{
    const std::string path = "\\" + text_lower(string_of(record, DUMP_PATH_STRING));
    const std::string file = "\\" + text_lower(dump.file_name);

    return path.size() >= file.size() &&
           path.compare(path.size() - file.size(), file.size(), file) == 0;
}

static dump_ties ties_of(const replay_evidence &evidence, const evidence_dump &dump)
{
    const uint64_t crashed = dump.facts.crash_time_100ns;
    dump_ties ties = {EVIDENCE_FIT_UNKNOWN, NULL, false, false};

    for (size_t i = evidence.boot->begin; i < evidence.boot->end; i++) {
        const event_record &event = evidence.log.events[i];

        if (!evidence_is_bug_check(event))
            continue;
        const enum evidence_fit fit = evidence_dump_fits(dump, string_of(event, BUG_CHECK_STRING));

        if (ties.record == NULL || fit > ties.fit) {
            ties.record = &event;
            ties.fit = fit;
        }
    }
    ties.named = ties.record != NULL && names(*ties.record, dump);
    ties.in_time = crashed <= evidence.boot->started_100ns &&
                   (evidence.before == NULL || crashed >= evidence.before->started_100ns);
    return ties;
}

/* A crash that comes back at every boot may have the same code and parameters each time: of such
 * dumps the one counts that name or time tie to this boot, too. */
static bool has_better(const replay_evidence &evidence, const replay_dump &placed)
{
    for (const replay_dump &other : evidence.dumps) {
        const dump_ties ties = ties_of(evidence, other.dump);

        if (&other != &placed && is_small(other.dump) == is_small(placed.dump) &&
            ties.fit == EVIDENCE_FITS && (ties.named || ties.in_time))
            return true;
    }
    return false;
}

/* Whether the dump is of the crash that this boot reports, and how that is known. */
static bool is_of_this_boot(const replay_evidence &evidence, const replay_dump &placed,
                            std::string *why)
{
    const dump_ties ties = ties_of(evidence, placed.dump);
    const unsigned number = ties.record != NULL ? ties.record->number : 0;

    /* Complete dumps are all named alike, and the run before may have had a crash that nobody
     * recorded: what the record says of the crash itself counts more. */
    if (ties.fit == EVIDENCE_FITS_NOT) {
        *why = text_format("its crash is not that of record %u", number);
        return false;
    }
    if (ties.fit == EVIDENCE_FITS) {
        *why = text_format("code and parameters are those of record %u", number);
        if ((ties.named && is_small(placed.dump)) || ties.in_time || !has_better(evidence, placed))
            return true;
        *why += ", as are those of a dump that fits better";
        return false;
    }
    if (ties.named)
        *why = text_format("record %u names the file", number);
    else if (ties.in_time)
        *why = evidence.before != NULL ? "the crash lies in the run before"
                                       : "the crash lies before this start, where the log begins";
    else if (placed.dump.facts.crash_time_100ns <= evidence.boot->started_100ns)
        *why = "the crash lies before the run before";
    return ties.named || ties.in_time;
}

/* The file's own time counts when it can be that of the machine: copying may have changed it. */
static uint64_t written_of(const replay_evidence &evidence, const replay_dump &placed)
{
    const uint64_t start = evidence.boot->started_100ns, own = placed.dump.written_100ns;
    const event_record *bug_check = ties_of(evidence, placed.dump).record;
    const uint64_t recorded = bug_check != NULL ? time_of_unix(bug_check->time) : 0;

    if (own > start && own <= recorded)
        return own;
    return start + WRITTEN_AFTER_100NS;
}

static void place_dump(const replay_evidence &evidence, replay_dump *placed)
{
    const uint64_t crashed = placed->dump.facts.crash_time_100ns,
                   start = evidence.boot->started_100ns;

    placed->place = place_of(placed->dump);
    placed->there = true;
    if (is_of_this_boot(evidence, *placed, &placed->why)) {
        placed->written_100ns = written_of(evidence, *placed);
        placed->why += placed->written_100ns == placed->dump.written_100ns
                           ? "; written when the file says"
                           : "; written soon after the start, which is assumed";
    } else if (crashed < start) {
        /* By an earlier start than this one, however short the run was. */
        placed->written_100ns = std::min(crashed + 60 * TICKS_PER_SECOND, start - TICKS_PER_SECOND);
    } else {
        placed->there = false;
        placed->why = "the crash lies behind this start, so it is not there yet";
    }
}

void replay_place_dumps(replay_evidence *evidence)
{
    for (replay_dump &placed : evidence->dumps)
        place_dump(*evidence, &placed);
    /* One place holds one file, the newest one. */
    for (replay_dump &placed : evidence->dumps)
        for (replay_dump &other : evidence->dumps)
            if (&placed != &other && placed.there && other.there &&
                text_lower(placed.place) == text_lower(other.place) &&
                placed.written_100ns >= other.written_100ns) {
                other.there = false;
                other.why = "a newer one has taken its place";
            }
}

/* A change of the clock as its record tells it: the strings are the new and the old time. */
static int64_t clock_change_100ns(const event_record &event)
{
    uint64_t to, from;

    if (!evidence_is_clock_change(event) || !time_parse(string_of(event, 0), &to) ||
        !time_parse(string_of(event, 1), &from))
        return 0;
    return static_cast<int64_t>(to - from);
}

std::vector<replay_moment> replay_moments(const replay_evidence &evidence, uint64_t until_ms)
{
    const evidence_run &boot = *evidence.boot;
    std::vector<replay_moment> moments;
    /* What the clock would say at the start, were it as it is at a record. */
    uint64_t start = boot.started_100ns, ms = 0;

    for (size_t i = boot.begin + 1; i < boot.end; i++) {
        const event_record &event = evidence.log.events[i];
        const int64_t change = clock_change_100ns(event);
        const uint64_t time = time_of_unix(event.time);

        start += static_cast<uint64_t>(change);
        if (time > start && (time - start) / TICKS_PER_MS > ms)
            ms = (time - start) / TICKS_PER_MS;
        if (ms > until_ms)
            break;
        moments.push_back({ms, i, change});
    }
    return moments;
}
