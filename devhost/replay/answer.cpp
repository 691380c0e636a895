/* The answer of a replay as one sentence. */
#include "replay.h"

#include <algorithm>

#include "../base/text.h"
#include "../scenario/journal.h"
#include "../scenario/scenario.h"

const char *replay_answer_name(enum replay_answer_kind kind)
{
    static const char *const names[] = {"bypass", "no bypass", "cannot tell"};

    return names[kind];
}

std::string replay_dump_fate(const replay_evidence &evidence, const replay_dump &placed,
                             const replay_story &story)
{
    const replay_dump *chosen = evidence.dump_at(story.dump);

    if (!placed.there)
        return "is not on the machine: " + placed.why;
    if (chosen == &placed)
        return "was given to the debugger engine";
    if (story.dump.empty())
        return "was not given to the debugger engine; Windows started at " +
               time_iso(evidence.boot->started_100ns, true);
    return "was passed over for " +
           (chosen != nullptr ? chosen->place + ", written " + time_iso(chosen->written_100ns, true)
                              : story.dump);
}

std::vector<std::string> replay_orders(void)
{
    std::vector<std::string> orders;

    for (const happening &what : journal_all()) {
        rapidjson::Document message;

        if (what.kind != HAPPENED_COMMAND)
            continue;
        message.Parse(what.json.c_str());
        const std::string type = node_text_of(&message, "type", "");

        orders.push_back(what.whom + " " + type);
        if (type == "set_count")
            orders.back() += " " + std::to_string(node_integer_of(&message, "count", 0));
    }
    return orders;
}

/* Products that the plug-in ordered into bypass. */
static size_t count_ordered(const replay_evidence &evidence)
{
    const std::vector<std::string> orders = replay_orders();

    return static_cast<size_t>(std::count_if(
        evidence.products.begin(), evidence.products.end(), [&](const replay_product &product) {
            return std::count(orders.begin(), orders.end(), product.name + " bypass") != 0;
        }));
}

/* The dump that the engine read, as it was handed in. */
static std::string dump_name(const replay_evidence &evidence, const replay_story &story)
{
    const replay_dump *placed = evidence.dump_at(story.dump);

    return placed != nullptr    ? placed->dump.file_name
           : story.dump.empty() ? "the dump"
                                : story.dump;
}

static std::string bypass_sentence(const replay_evidence &evidence, const replay_story &story,
                                   size_t ordered)
{
    std::string who = "one of the platform's own drivers";

    for (const replay_product &product : evidence.products)
        for (const std::string &module : product.modules)
            if (module == story.blamed)
                who = "product \"" + product.name + "\"";
    return std::string("Bypass: ") +
           (ordered == 0 && !evidence.products.empty()
                ? "the plug-in decides on bypass, and no product has to be ordered,"
                : "every product is ordered into bypass") +
           text_format(" %llu s after Windows starts. ", story.blamed_ms / 1000) + story.blamed +
           " (" + who + ") is on the crashed stack of " + dump_name(evidence, story) + ".";
}

static std::string no_bypass_reason(const replay_evidence &evidence, const replay_story &story)
{
    switch (story.verdict) {
    case VERDICT_NORMAL: {
        const evidence_run *before = evidence.before();

        return before != nullptr && before->ending == RUN_ENDED_CLEAN
                   ? text_format("the previous run of Windows was shut down, record %u",
                                 evidence.log.events[before->told_by].number)
                   : "the log records neither a blue screen nor an unexpected shutdown";
    }
    case VERDICT_POWER_LOSS: return "the previous run ended unexpectedly, without a blue screen";
    case VERDICT_CRASH:
        if (story.drivers_updated)
            return "the drivers were updated since the blue screen";
        return story.stack.empty() ? "no stack was read"
                                   : "no registered module is on the crashed stack of " +
                                         dump_name(evidence, story);
    case VERDICT_NONE: return "the plug-in reached no verdict about the previous run";
    case VERDICT_NOT_KNOWN: return "the plug-in cannot determine how the previous run ended";
    }
    return "";
}

/* Without a verdict and without the stack of a crash, nothing acquits the drivers. */
static bool acquits(const replay_story &story)
{
    return story.verdict == VERDICT_NORMAL || story.verdict == VERDICT_POWER_LOSS ||
           (story.verdict == VERDICT_CRASH && (story.drivers_updated || !story.stack.empty()));
}

replay_answer replay_answer_of(const replay_evidence &evidence, const replay_story &story)
{
    const std::vector<replay_doubt> doubts = doubts_of(evidence, story);
    const bool doubted = !doubts.empty() && doubts.front().decides;
    replay_answer answer = {ANSWER_NO_BYPASS, "", {}, count_ordered(evidence)};

    for (const replay_doubt &doubt : doubts)
        answer.doubts.push_back(doubt.text);
    if (!story.blamed.empty() && !story.drivers_updated) {
        answer.kind = ANSWER_BYPASS;
        answer.sentence = bypass_sentence(evidence, story, answer.ordered);
    } else if (doubted || !acquits(story)) {
        answer.kind = ANSWER_CANNOT_TELL;
        answer.sentence = "Cannot tell: " +
                          (doubted ? doubts.front().reason : no_bypass_reason(evidence, story)) +
                          ".";
    } else {
        answer.sentence = "No bypass: " + no_bypass_reason(evidence, story) + ".";
    }
    return answer;
}
