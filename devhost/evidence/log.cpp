/* Logs of either form, and the lines about their damage. */
#include "log.h"

#include <windows.h>

#include <set>

#include <rapidjson/error/en.h>
#include <rapidjson/reader.h>
#include <rapidjson/memorystream.h>

#include "../base/text.h"
#include "file.h"

/* More than any System log in this form: another kind of file must not fill the memory. */
#define MOST_JSON_BYTES (1ull << 30)

void evidence_note_gap(evidence_log *log, uint64_t first, uint64_t end)
{
    if (first >= end)
        return;
    log->damage.push_back(first + 1 == end ? "record missing: " + std::to_string(first)
                                           : "records missing: " + std::to_string(first) + " to " +
                                                 std::to_string(end - 1));
    log->gaps.push_back({first, end - 1});
    log->lost_records += end - first;
}

namespace
{
/* Takes the records from the parser one by one: a tree of all of them would be many times the size of
 * the log. */
class record_reader : public rapidjson::BaseReaderHandler<rapidjson::UTF8<>, record_reader>
{
  public:
    record_reader(const event_filter *filter, evidence_log *log) : m_filter(filter), m_log(log)
    {
    }

    bool StartArray()
    {
        if (m_depth == 0 || (m_depth == 2 && m_member == "strings"))
            return ++m_depth != 0;
        return bad("expected an event record");
    }
    bool EndArray(rapidjson::SizeType)
    {
        return m_depth-- != 0;
    }
    bool StartObject()
    {
        if (m_depth != 1)
            return bad(m_depth == 0 ? "expected an array of event records"
                                    : "expected a text, a number or, for strings, an array");
        m_depth++;
        m_event = {};
        m_event.type = EVENTLOG_INFORMATION_TYPE;
        m_seen.clear();
        return true;
    }
    bool EndObject(rapidjson::SizeType)
    {
        m_depth--;
        for (const char *name : {"source", "id", "time"})
            if (m_seen.find(name) == m_seen.end())
                return bad(std::string("member \"") + name + "\" is missing");
        if (m_event.number == 0)
            m_event.number = m_last + 1;
        if (m_event.number <= m_last)
            return bad("expected a record number higher than the previous one");
        if (m_log->records > 0)
            evidence_note_gap(m_log, m_last + 1ull, m_event.number);
        m_last = m_log->last_number = m_event.number;
        if (m_log->records++ == 0)
            m_log->first_number = m_event.number;
        if (m_filter == NULL || (m_filter->wants_id(m_event.id & 0xffff) &&
                                 m_filter->wants(m_event.id & 0xffff, m_event.source)))
            m_log->events.push_back(std::move(m_event));
        return true;
    }
    bool Key(const char *text, rapidjson::SizeType length, bool)
    {
        m_member.assign(text, length);
        for (const char *name : {"record", "source", "id", "time", "type", "strings"})
            if (m_member == name)
                return m_seen.insert(m_member).second ||
                       bad("member \"" + m_member + "\" occurs twice");
        return bad("unknown member \"" + m_member + "\"");
    }
    bool Uint(unsigned number)
    {
        if (m_depth == 2 && m_member == "record" && number != 0)
            m_event.number = number;
        else if (m_depth == 2 && m_member == "id")
            m_event.id = number;
        else if (m_depth == 2 && m_member == "type" && number <= UINT16_MAX)
            m_event.type = static_cast<uint16_t>(number);
        else
            return Default();
        return true;
    }
    bool String(const char *text, rapidjson::SizeType length, bool)
    {
        const std::string value(text, length);
        uint64_t time;

        if (m_depth == 3)
            m_event.strings.add(text_wide(value));
        else if (m_depth == 2 && m_member == "source")
            m_event.source = text_wide(value);
        else if (m_depth == 2 && m_member == "time" && time_parse(value, &time) &&
                 time_unix(time) >= 0 && time_unix(time) <= UINT32_MAX)
            m_event.time = static_cast<uint32_t>(time_unix(time));
        else
            return Default();
        return true;
    }
    bool Default()
    {
        if (m_depth < 2)
            return bad("expected an array of event records");
        if (m_depth == 3)
            return bad("expected texts in \"strings\"");
        if (m_member == "time")
            return bad("\"time\": expected a time from 1970 to 2106 such as 2024-03-07T09:05:41Z");
        if (m_member == "strings")
            return bad("\"strings\": expected an array of texts");
        return bad("\"" + m_member + "\": expected " +
                   (m_member == "source" ? "a text" : "a number"));
    }

    std::string reason;

  private:
    bool bad(const std::string &what)
    {
        reason = (m_depth > 0 ? "/" + std::to_string(m_log->records) + ": " : "") + what;
        return false;
    }

    const event_filter *m_filter; /* NULL: every record is wanted */
    evidence_log *m_log;
    uint32_t m_last = 0; /* number of the previous record */
    int m_depth = 0;     /* 1 in the array, 2 in a record, 3 in its strings */
    std::string m_member;
    std::set<std::string> m_seen;
    event_record m_event = {};
};
} // namespace

static void read_json(const std::string &path, const evidence_file &file,
                      const event_filter *filter, evidence_log *log)
{
    rapidjson::MemoryStream stream(reinterpret_cast<const char *>(file.data()),
                                   static_cast<size_t>(file.bytes()));
    rapidjson::EncodedInputStream<rapidjson::UTF8<>, rapidjson::MemoryStream> input(stream);
    rapidjson::Reader reader;
    record_reader handler(filter, log);
    const rapidjson::ParseResult result =
        reader.Parse<rapidjson::kParseValidateEncodingFlag>(input, handler);

    if (!handler.reason.empty())
        evidence_bad(path, handler.reason);
    if (result.IsError())
        evidence_bad(path, text_format("byte %u: ", static_cast<unsigned>(result.Offset())) +
                               rapidjson::GetParseError_En(result.Code()));
}

/* JSON begins with a bracket. */
static bool is_json(const evidence_file &file)
{
    uint64_t at = 0;

    while (at < file.bytes() && strchr(" \t\r\n\xef\xbb\xbf", file.data()[at]) != NULL &&
           file.data()[at] != '\0')
        at++;
    return at < file.bytes() && (file.data()[at] == '[' || file.data()[at] == '{');
}

void evidence_log_read(const std::string &path, enum evidence_damage allowed, evidence_log *log,
                       const event_filter *filter)
{
    const evidence_file file(path, UINT64_MAX);

    *log = {};
    if (file.bytes() == 0)
        evidence_bad(path, "empty, expected an event log");
    if (!evidence_is_evtx(file)) {
        if (!is_json(file))
            evidence_bad(path, "not an event log: it does not begin with \"ElfFile\"");
        if (file.bytes() > MOST_JSON_BYTES)
            evidence_bad(path, "larger than any log in JSON, 1 GiB");
        read_json(path, file, filter, log);
        return;
    }
    evidence_read_evtx(path, file, filter, log);
    if (!log->cut_off.empty() && allowed != EVIDENCE_LENIENT)
        evidence_bad(path, log->cut_off + " (--lenient reads the remaining records)");
    if (!log->damage.empty() && allowed == EVIDENCE_STRICT)
        evidence_bad(path, log->damage.front());
}

std::vector<std::string> evidence_log_damage(const evidence_log &log, size_t most)
{
    std::vector<std::string> lines;

    if (log.cut_off.empty() && log.damage.empty())
        return lines;
    if (!log.cut_off.empty())
        lines.push_back(log.cut_off);
    for (const std::string &damage : log.damage) {
        if (lines.size() >= most)
            break;
        lines.push_back(damage);
    }
    const size_t all = log.damage.size() + (log.cut_off.empty() ? 0 : 1);

    if (all > lines.size())
        lines.push_back("and " + text_count(all - lines.size(), "further finding"));
    lines.push_back("damaged: " + text_count(log.records, "record") + " read, " +
                    (log.cut_off.empty() ? "" : "an unknown number missing after them, ") +
                    text_count(log.lost_records, "record") + " missing" +
                    (log.cut_off.empty() ? "" : " between them"));
    return lines;
}

void evidence_put_record(json_line &writer, const event_record &event)
{
    std::vector<std::string> strings;

    for (size_t i = 0; i < event.strings.count(); i++)
        strings.push_back(text_narrow(event.strings.at(i)));
    writer.StartObject();
    json_member(writer, "record", event.number);
    json_member(writer, "source", text_narrow(event.source));
    json_member(writer, "id", event.id);
    json_member(writer, "time", time_iso(time_of_unix(event.time)));
    json_member(writer, "type", event.type);
    json_member(writer, "strings", strings);
    writer.EndObject();
}

std::string evidence_log_json(const evidence_log &log, uint64_t from, uint64_t to)
{
    std::string text = "[";

    for (const event_record &event : log.events) {
        if (event.number < from || event.number > to)
            continue;
        text += text.size() == 1 ? "\n" : ",\n";
        text +=
            json_text<json_line>([&](json_line &writer) { evidence_put_record(writer, event); });
    }
    return text + "\n]\n";
}

std::string evidence_event_name(const event_record &event)
{
    return text_narrow(event.source) + " " + std::to_string(event.id & 0xffff);
}
