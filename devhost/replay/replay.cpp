/* Replay: reads evidence, plays its boots on the machine, and prints the result. */
#include "replay.h"

#include <cstdio>
#include <cstring>

#include <algorithm>

#include "../../platform/liboxnibase/host.h"
#include "../base/file.h"
#include "../base/terminal.h"
#include "../base/text.h"
#include "../calls/calls.h"
#include "../disk/files.h"
#include "../machine/event_log.h"
#include "../machine/modules.h"
#include "../machine/registry.h"
#include "../participants/products.h"
#include "../play/play.h"
#include "../scenario/journal.h"
#include "../scenario/timeline.h"
#include "../view/view.h"

/* A check takes 13 polls of 30 s, or as many as the registry names, and alarms follow within minutes. No
 * replay is longer than a day. */
static constexpr uint64_t USUAL_MS = 8ull * 60 * 1000;
static constexpr uint64_t STEP_MS = 60ull * 1000;
static constexpr uint64_t AFTER_MS = 4ull * 60 * 1000;
static constexpr uint64_t LONGEST_MS = 24ull * 60 * 60 * 1000;

static void log_now(const event_record &event, int64_t clock_change)
{
    if (clock_change != 0) {
        oxnih_clock_set_wall(oxnih_clock_now_100ns() + static_cast<uint64_t>(clock_change));
        journal_add(HAPPENED_STEP, "windows",
                    "the clock is set to " + time_iso(oxnih_clock_now_100ns()));
    }
    journal_add(HAPPENED_STEP, "windows",
                text_format("logs event %u of %s, record %u", event.id & 0xffff,
                            text_narrow(event.source).c_str(), event.number));
    machine_log(event);
}

/* The records up to the boot's start exist already, the others are logged in their time. */
static void place_log(const replay_evidence &evidence)
{
    const std::vector<event_record> &events = evidence.log.events;

    for (size_t i = 0; i <= evidence.boot->begin; i++)
        machine_log(events[i]);
    for (const replay_moment &moment : replay_moments(evidence, LONGEST_MS)) {
        const event_record &event = events[moment.index];

        timeline_at(moment.ms, [&event, moment] { log_now(event, moment.clock_change_100ns); });
    }
}

/* The file on the machine has only the times; the bytes are not copied. */
static void place_dumps(replay_evidence *evidence)
{
    replay_place_dumps(evidence);
    for (const replay_dump &dump : evidence->dumps) {
        if (!dump.there)
            continue;
        const std::wstring place = text_wide(dump.place);

        machine_get_engine().dump_files[text_lower(place)] = text_wide(dump.dump.path);
        machine_write_file(place, "", dump.written_100ns, dump.written_100ns);
    }
    images_place(evidence->images.get());
    machine_update_engine();
}

/* Plays until every check has reached its verdict, and some minutes more for its consequences. */
static void play(void)
{
    uint64_t end = USUAL_MS;

    play_run_until(end);
    while (explain_is_checking() && end < LONGEST_MS)
        play_run_until(end += STEP_MS);
    play_run_until(end + AFTER_MS);
}

/* Sentences are made of no other calls; all of them would be many times the log. */
static bool is_noted(const char *name)
{
    return strcmp(name, "CreateFileW") == 0 || strcmp(name, "FindFirstFileW") == 0;
}

replay_story replay_play(replay_evidence *evidence, const struct run_options &options)
{
    std::unique_ptr<run_folder> own;
    struct play_options play_options = {};
    struct scenario scenario;

    scenario.file = "replay";
    scenario.document.Parse(replay_scenario(*evidence).c_str());
    if (options.reused != nullptr)
        options.reused->empty();
    else
        own = std::make_unique<run_folder>(options.keep);
    play_options.run_folder = own != nullptr ? own->path : options.reused->path;
    play_options.plugin_path = options.plugin_path;
    oxnih_memory_set_mode(options.guard_memory ? OXNIH_MEMORY_GUARD : OXNIH_MEMORY_PLAIN);
    oxnih_memory_find_sites(options.guard_memory);
    calls_set_trace(explain_note_call, is_noted);
    try {
        play_open(scenario, play_options);
        oxnih_clock_set_zone(&evidence->zone.rules);
        explain_start();
        (void)play_begin_boot();
        for (const evidence_value &value : evidence->registry.values)
            machine_set_value(value.key, value.name, value.type, value.data);
        place_dumps(evidence);
        place_log(*evidence);
        play();
        evidence->states.clear();
        for (const replay_product &product : evidence->products)
            evidence->states.push_back(product_state_text(product.name));
    } catch (...) {
        (void)play_close();
        throw;
    }
    (void)play_close();
    replay_story story = explain_story();

    images_judge(*evidence, &story);
    return story;
}

std::vector<replay_row> replay_play_all(const struct replay_options &options,
                                        replay_evidence *evidence, replay_story *story)
{
    const evidence_run *wanted = evidence->boot;
    std::vector<const evidence_run *> order;
    std::vector<replay_row> rows;

    for (const evidence_run &run : evidence->runs)
        if (run.number != 0 && &run != wanted)
            order.push_back(&run);
    order.push_back(wanted);
    for (const evidence_run *run : order) {
        terminal_progress(text_format("playing boot %u of %u", static_cast<unsigned>(run->number),
                                      static_cast<unsigned>(order.size())));
        replay_choose(options, *run, evidence);
        *story = replay_play(evidence, options.session);
        rows.push_back({run, replay_answer_of(*evidence, *story), story->blamed, replay_orders()});
    }
    std::sort(rows.begin(), rows.end(), [](const replay_row &a, const replay_row &b) {
        return a.run->number < b.run->number;
    });
    return rows;
}

int replay_run(const struct replay_options &options)
{
    const double start = time_real_ms();
    replay_evidence evidence = replay_read(options, true);
    const double read = time_real_ms();
    replay_story story;
    std::vector<replay_row> rows;

    if (options.source.empty())
        story = replay_play(&evidence, options.session);
    else
        rows = replay_play_all(options, &evidence, &story);
    terminal_progress_end();
    const replay_answer answer = replay_answer_of(evidence, story);
    const std::string json =
        replay_json(evidence, story, answer, rows, options.session.plugin_path, true);

    if (!options.html.empty())
        evidence_write(options.html, page_of(json));
    terminal_write(options.json ? json : replay_text(evidence, story, answer, rows));
    if (options.timing)
        fprintf(stderr, "timing: %.0f ms for reading %s, %.0f ms for the rest\n", read - start,
                text_count(evidence.log.records, "record").c_str(), time_real_ms() - read);
    return EXIT_ALL_HOLD;
}

int replay_list_boots(const struct replay_options &options)
{
    const replay_evidence evidence = replay_read(options, false);

    terminal_progress_end();
    terminal_write(options.json ? replay_boots_json(evidence) : replay_boots_text(evidence, {}));
    return EXIT_ALL_HOLD;
}
