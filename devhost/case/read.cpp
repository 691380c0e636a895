/* Reading of all evidence, and the machine that it describes. */
#include "case.h"

#include "../base/text.h"
#include "../base/text_json.h"

static const evidence_run *find_boot(const replay_evidence &evidence, const std::string &text)
{
    const size_t last = evidence.runs.empty() ? 0 : evidence.runs.back().number;
    char *end;
    const unsigned long number = strtoul(text.c_str(), &end, 10);

    if (last == 0)
        throw devhost_error(EXIT_BAD_EVIDENCE, evidence.events_file +
                                                   ": contains no start of Windows, record " +
                                                   "Microsoft-Windows-Kernel-General 12");
    for (const evidence_run &run : evidence.runs)
        if (run.number != 0 &&
            (text == "last" ? run.number == last : *end == '\0' && run.number == number))
            return &run;
    throw devhost_error(EXIT_BAD_CALL, "--boot " + text +
                                           ": expected \"last\" or a number from 1 to " +
                                           std::to_string(last) + " (--boots lists them)");
}

void replay_choose(const struct replay_options &options, const evidence_run &boot,
                   replay_evidence *evidence)
{
    evidence->boot = &boot;
    evidence->zone = zone_of(options.time_zone, *evidence);
}

replay_evidence replay_read(const struct replay_options &options, bool needs_boot)
{
    replay_evidence evidence = {};

    evidence.products = !options.known.empty()
                            ? options.known
                            : products_read(options.products, options.products_file);
    if (!options.source.empty())
        collect_evidence(options, &evidence);
    if (!options.events.empty()) {
        evidence.events_file = options.events;
        evidence_log_read(options.events, options.damage, &evidence.log,
                          needs_boot ? nullptr : &evidence_run_records());
    }
    evidence.runs = evidence_runs(evidence.log);
    for (const std::string &path : options.dumps)
        evidence.dumps.push_back({evidence_dump_read(path, path)});
    for (const std::string &path : options.registries) {
        evidence_registry_read(path, &evidence.registry);
        evidence.registry_files.push_back(path);
    }
    if (!options.images.empty())
        evidence.images = images_read(options.images);
    for (const replay_dump &placed : evidence.dumps)
        if (evidence.images != nullptr)
            images_add_uses(*evidence.images, placed.dump.facts, &evidence.image_uses);
    if (needs_boot)
        replay_choose(options, *find_boot(evidence, options.boot), &evidence);
    return evidence;
}

/* A management side that takes the alarm of each product. */
static void put_management(json_line &writer, const replay_evidence &evidence)
{
    const json_scope management(writer, "management");

    json_member(writer, "link", true);
    json_objects(writer, "devices", evidence.products, [&](const replay_product &product) {
        json_members(writer, "product", product.name, "device_id", "replay", "agent_version",
                     "replay");
    });
}

std::string replay_scenario(const replay_evidence &evidence)
{
    return json_object_text<json_line>([&](json_line &writer) {
        json_products(writer, "products", evidence.products);
        put_management(writer, evidence);
        json_objects(writer, "boots", std::vector{evidence.boot}, [&](const evidence_run *boot) {
            json_member(writer, "at", time_iso(boot->started_100ns, true));
            json_member_or_null(writer, "log", "");
        });
    });
}

/* The strings of a record of a clock change are the new and the old time. */
int64_t replay_clock_change(const event_record &event)
{
    uint64_t to, from;

    if (!event.is(RECORD_CLOCK_CHANGE) || !time_parse(text_narrow(event.strings.at(0)), &to) ||
        !time_parse(text_narrow(event.strings.at(1)), &from))
        return 0;
    return static_cast<int64_t>(to - from);
}

std::vector<replay_moment> replay_moments(const replay_evidence &evidence, uint64_t until_ms)
{
    const evidence_run &boot = *evidence.boot;
    std::vector<replay_moment> moments;
    /* The time of the start by the clock as it is set at a record. */
    uint64_t start = boot.started_100ns, ms = 0;

    for (size_t i = boot.begin + 1; i < boot.end; i++) {
        const event_record &event = evidence.log.events[i];
        const int64_t change = replay_clock_change(event);
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
