/* From lines and calls of the plug-in to sentences. The table below contains its log lines. */
#include "explain.h"

#include <cstring>

#include <algorithm>

#include "../base/text.h"
#include "../machine/event_log.h"
#include "../machine/machine.h"
#include "../scenario/journal.h"
#include "../view/view.h"

static constexpr char BLAME_LINE[] = "find [*] crach!";
static constexpr char EMPTY_STACK_LINE[] = "dump info is empty. ";
static constexpr char NO_BLAME_LINE[] = "not found quorvel crash module!";
static constexpr char UPDATED_LINE[] = "Upgraded without notification";

/* A log line of the plug-in, in which * matches a value, and its sentence; %1 is the first value. Only
 * the first row that matches counts. */
struct line_row {
    enum reason_topic topic;
    const char *line;
    const char *sentence;
    bool ends_check = false;                    /* one such line a check */
    enum replay_verdict verdict = VERDICT_NONE; /* that the line begins */
};

/* clang-format off */
static const line_row s_lines[] = {
    {REASON_LOG, "system boot up at [*]",
     "takes %1 (local time) as the start of Windows"},
    {REASON_LOG, "windows_winlogin left count[*] time[*]",
     "finds a logon in this run, %2 (local time), and starts to look for a crash"},
    {REASON_LOG, "get_crash_info failed:13 ",
     "reads the whole log and finds no record that it looks for"},
    {REASON_LOG, "get_crash_info failed:* ",
     "cannot read the log, result %1"},
    {REASON_LOG, "windows_nonomal_shutdown time [*], waitting crash event, left count[*] ",
     "finds the record of an unexpected shutdown, and waits for the record of a blue screen"},
    {REASON_DUMP, "dump not found.",
     "finds no dump that was written since the start of Windows"},
    {REASON_DUMP, "* failed with hr = *. ",
     "fails to call %1 of the debugger engine, result %2"},
    {REASON_DUMP, "* failed with out of memory. ",
     "runs out of memory: %1"},
    {REASON_DUMP, "invalid dmp file path. ",
     "has no path to a dump"},
    {REASON_STACK, EMPTY_STACK_LINE,
     "gets no stack from the debugger engine"},
    {REASON_STACK, "can not parse dump info[*] ",
     "finds no module in the output of the debugger engine"},
    {REASON_STACK, "parse dump info success with module size=* ",
     "counts the different modules on the stack: %1"},
    {REASON_STACK, "crash module[*]",
     "finds %1 on the stack, which no product registered"},
    {REASON_VERDICT, BLAME_LINE,
     "blames %1: it is on the stack, and a product registered it"},
    {REASON_VERDICT, NO_BLAME_LINE,
     "blames no product: no registered module is on the stack"},
    {REASON_VERDICT,
     "It is necessary to delete the tag when encountering a blue screen.dump path[]",
     "concludes that the previous run ended with a blue screen, and names no small dump",
     true, VERDICT_CRASH},
    {REASON_VERDICT,
     "It is necessary to delete the tag when encountering a blue screen.dump path[*]",
     "concludes that the previous run ended with a blue screen, and names the small dump %1",
     true, VERDICT_CRASH},
    {REASON_VERDICT, "It is necessary to delete the tag when encountering a nonormal shutdown!",
     "concludes that the previous run ended unexpectedly, without a blue screen",
     true, VERDICT_POWER_LOSS},
    {REASON_VERDICT,
     "The previous shutdown was not due to an abnormal poweroff or blue screen, start check "
     "recover file!",
     "concludes that the previous run ended normally", true, VERDICT_NORMAL},
    {REASON_VERDICT, "Failed to query abnormal shutdown information",
     "cannot determine how the previous run ended", true, VERDICT_NOT_KNOWN},
    {REASON_VERDICT, "The subscriber may have lost contact",
     "drops a verdict: the product has unsubscribed", true},
    {REASON_VERDICT, UPDATED_LINE,
     "blames no product: the drivers were updated in this run"},
    {REASON_VERDICT, "Manually restored or upgraded, no longer sending count calibration",
     "lowers no count: products were restored or drivers updated by hand"},
    {REASON_VERDICT, "find normal shutdown event, but count[*] <= 1, nothing to do!",
     "lowers no count: it is %1"},
    {REASON_VERDICT, "The product (*) has already passed and does not need to set a count",
     "does not lower the count of %1: it is in bypass"},
};
/* clang-format on */

/* The plug-in's own files are in this folder; no dump is. */
static constexpr char RUN_FOLDER[] = "<run>";
static constexpr char CHECK_BEGINS[] = "start bypass_status_check";
static constexpr char RECORD_LINE[] =
    "capture expect event[*][*] provider[*] time[*], stop read event!";
static constexpr char STACK_LINE[] = "dump info * ";

/* The record at which a query of the log ended. */
struct seen_record {
    size_t happening; /* the plug-in's line */
    event_record event;
};

static std::vector<seen_record> s_records;
static size_t s_begun, s_ended;

/* Whether a text begins as a pattern does before its first *. */
static bool begins_as(const std::string &text, const char *pattern)
{
    size_t i = 0;

    while (i < text.size() && pattern[i] != '*' && pattern[i] == text[i])
        i++;
    return pattern[i] == '*' || pattern[i] == '\0';
}

/* Finds the shortest values that the *s of a pattern match. Result: whether the whole text matches. */
static bool captures(const std::string &text, const char *row, std::vector<std::string> *values)
{
    /* Each line is compared with every row, and most differ in their first letters. */
    if (!begins_as(text, row))
        return false;
    const std::string pattern = row;
    size_t star = pattern.find('*'), at = star;

    if (star == std::string::npos)
        return text == pattern;
    while (star != std::string::npos) {
        const size_t next = pattern.find('*', star + 1);
        const std::string literal =
            pattern.substr(star + 1, next == std::string::npos ? next : next - star - 1);
        size_t end = text.find(literal, at);

        if (next == std::string::npos) /* the last one ends the text */
            end = text.size() - at >= literal.size() ? text.size() - literal.size() : text.npos;
        if (end == std::string::npos || text.compare(end, literal.size(), literal) != 0)
            return false;
        values->push_back(text.substr(at, end - at));
        at = end + literal.size();
        star = next;
    }
    return true;
}

static std::string filled(const char *sentence, const std::vector<std::string> &values)
{
    std::string text = sentence;

    for (size_t i = 0; i < values.size(); i++)
        text = text_replace(text, "%" + std::to_string(i + 1), values[i]);
    return text;
}

/* The newest record of the last read with that id and source: the plug-in logs no number. */
static void note_record(size_t happening, const std::vector<std::string> &values)
{
    const machine_read read = machine_last_read();
    const std::vector<event_record> &events = machine_get().events;
    const std::wstring source = text_wide(values[2]);
    const event_kind kind = {source.c_str(),
                             static_cast<uint32_t>(strtoul(values[0].c_str(), nullptr, 10))};

    for (size_t i = events.size(); i > 0; i--) {
        const event_record &event = events[i - 1];

        if (event.number <= read.newest && event.number >= read.oldest && event.is(kind)) {
            s_records.push_back({happening, event});
            return;
        }
    }
}

/* The row of a line, with the values in it; NULL for a line that explains nothing. */
static const line_row *row_of(const std::string &line, std::vector<std::string> *values)
{
    for (const line_row &row : s_lines) {
        values->clear();
        if (captures(line, row.line, values))
            return &row;
    }
    return nullptr;
}

/* Whether a line ends a check. */
static bool is_verdict(const std::string &line)
{
    std::vector<std::string> values;

    return std::any_of(std::begin(s_lines), std::end(s_lines), [&](const line_row &row) {
        return row.ends_check && captures(line, row.line, &values);
    });
}

static void watch(const happening &what, void *user)
{
    std::vector<std::string> values;

    view_happening(what, user);
    if (what.kind != HAPPENED_LOG)
        return;
    const std::string line = text_log_line(what.text).message;

    if (line == CHECK_BEGINS)
        s_begun++;
    else if (captures(line, RECORD_LINE, &values))
        note_record(journal_all().size() - 1, values);
    else if (is_verdict(line))
        s_ended++;
}

void explain_start(void)
{
    s_records.clear();
    s_begun = s_ended = 0;
    journal_set_view(watch, nullptr);
}

void explain_note_call(const std::string &text)
{
    journal_add(HAPPENED_CALL, "plug-in", text);
}

bool explain_is_checking(void)
{
    return s_ended < s_begun;
}

/* A repeated action is one reason. */
static void add_reason(replay_story *story, enum reason_topic topic, size_t index,
                       const std::string &text)
{
    const happening &what = journal_all()[index];

    for (replay_reason &reason : story->reasons)
        if (reason.topic == topic && reason.text == text) {
            reason.times++;
            reason.last_ms = what.ms;
            reason.because.push_back(index);
            return;
        }
    story->reasons.push_back({topic, what.ms, what.ms, 1, text, {index}});
}

static void add_record(replay_story *story, const seen_record &seen, const std::string &name)
{
    const event_record &event = seen.event;
    std::string text =
        text_format("stops reading at record %u, %s %u (%s), written %s", event.number,
                    text_narrow(event.source).c_str(), event.id & 0xffff, name.c_str(),
                    time_iso(time_of_unix(event.time)).c_str());

    add_reason(story, REASON_LOG, seen.happening, text);
    for (const event_record &known : story->records)
        if (known.number == event.number)
            return;
    story->records.push_back(event);
}

/* Takes the stack as the engine printed it; the last one counts. */
static void take_stack(replay_story *story, const std::string &text)
{
    std::vector<std::string> lines = text_split(text, '\n');

    if (lines.back().empty())
        lines.pop_back();
    story->stack.clear();
    for (const std::string &line : lines) {
        const size_t mark = line.find('!'), cut = mark != line.npos ? mark : line.find('+');

        story->stack.push_back({line, cut != line.npos ? line.substr(0, cut) : "", ""});
    }
}

static void explain_line(replay_story *story, size_t index, const std::string &line)
{
    std::vector<std::string> values;

    if (line != EMPTY_STACK_LINE && captures(line, STACK_LINE, &values)) {
        take_stack(story, values[0]);
        add_reason(story, REASON_STACK, index, "gets the stack from the debugger engine");
        return;
    }
    const line_row *row = row_of(line, &values);

    if (row == nullptr)
        return;
    add_reason(story, row->topic, index,
               strcmp(row->line, NO_BLAME_LINE) == 0 && story->stack.empty()
                   ? "blames no product: no stack was read"
                   : filled(row->sentence, values));
    /* One of several checks may have ended before the blue screen was recorded. */
    if (story->verdict == VERDICT_NONE || row->verdict == VERDICT_CRASH)
        story->verdict = row->verdict;
    if (strcmp(row->line, BLAME_LINE) == 0 && story->blamed.empty()) {
        story->blamed = values[0];
        story->blamed_ms = journal_all()[index].ms;
    }
    if (row->topic == REASON_DUMP)
        story->engine_error = filled(row->sentence, values);
    if (row->ends_check)
        story->last_query_ms = journal_all()[index].ms;
    story->drivers_updated = story->drivers_updated || strcmp(row->line, UPDATED_LINE) == 0;
}

/* The search for dumps. */
static void explain_call(replay_story *story, size_t index, const std::string &call)
{
    std::vector<std::string> values;

    if (captures(call, "FindFirstFileW(\"*\") = *", &values)) {
        const std::string folder = values[0].substr(0, values[0].find_last_of('\\'));

        add_reason(story, REASON_DUMP, index,
                   values[1] == "handle" ? "searches " + folder + " for its newest file"
                                         : "finds no folder " + folder);
        return;
    }
    values.clear();
    if (captures(call, "CreateFileW(\"*\", 0x80000000, 0x7, 3, 0x80) = *", &values) &&
        values[0].rfind(RUN_FOLDER, 0) != 0)
        add_reason(story, REASON_DUMP, index,
                   values[1] == "handle" ? "reads the write time of " + values[0]
                                         : "finds no file " + values[0]);
}

/* Without the plug-in as its subject: "blames guard_flt: ...". */
static std::string sentence_of(const std::string &line)
{
    std::vector<std::string> values;
    const line_row *row = row_of(line, &values);

    return row != nullptr ? filled(row->sentence, values) : line;
}

std::vector<page_highlight> explain_decisions(void)
{
    const std::vector<happening> &all = journal_all();
    std::vector<page_highlight> decisions;
    std::vector<std::string> values;

    for (size_t i = 0; i < all.size(); i++) {
        if (all[i].kind != HAPPENED_LOG)
            continue;
        const std::string line = text_log_line(all[i].text).message;

        if (captures(line, BLAME_LINE, &values) || is_verdict(line))
            decisions.push_back({i, sentence_of(line)});
    }
    return decisions;
}

/* News of the engine: "opens PATH", or why it does not. */
static void explain_engine(replay_story *story, size_t index, const std::string &line)
{
    std::vector<std::string> values;

    if (captures(line, "debugger engine opens *", &values)) {
        story->dump = values[0];
        story->engine_error.clear();
        add_reason(story, REASON_DUMP, index, "gives " + values[0] + " to the debugger engine");
        return;
    }
    story->engine_error = "the " + line;
    add_reason(story, REASON_DUMP, index, "learns that the " + line);
}

replay_story explain_story(void)
{
    const std::vector<happening> &all = journal_all();
    replay_story story;
    size_t record = 0;

    story.decisions = explain_decisions();
    for (size_t i = 0; i < all.size(); i++) {
        std::vector<std::string> values;
        const std::string line =
            all[i].kind == HAPPENED_LOG ? text_log_line(all[i].text).message : all[i].text;

        if (record < s_records.size() && s_records[record].happening == i) {
            captures(line, RECORD_LINE, &values);
            add_record(&story, s_records[record++], values[1]);
        } else if (all[i].kind == HAPPENED_LOG) {
            explain_line(&story, i, line);
        } else if (all[i].kind == HAPPENED_CALL) {
            explain_call(&story, i, line);
        } else if (all[i].kind == HAPPENED_STEP && line.rfind("debugger engine ", 0) == 0) {
            explain_engine(&story, i, line);
        }
    }
    return story;
}

const char *explain_verdict_name(enum replay_verdict verdict)
{
    static const char *const names[] = {"none", "normal", "power loss", "blue screen", "not known"};

    return names[verdict];
}
