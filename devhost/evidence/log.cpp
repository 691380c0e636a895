/* Logs of either form, and what is said of their damage. */
#include "log.h"

#include <windows.h>

#include <set>

#include <rapidjson/error/en.h>
#include <rapidjson/reader.h>
#include <rapidjson/memorystream.h>
#include <rapidjson/stringbuffer.h>
#include <rapidjson/writer.h>

#include "../base/text.h"
#include "file.h"

/* More than any System log in this form; a file of another kind should not fill the memory. */
#define MOST_JSON_BYTES (1ull << 30)

namespace
{
/* Takes the records out of the text as they come: a tree of them all would be many times the size
 * of the log. */
class record_reader : public rapidjson::BaseReaderHandler<rapidjson::UTF8<>, record_reader>
{
  public:
    explicit record_reader(evidence_log *log) : m_log(log)
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
            m_event.number = m_log->events.empty() ? 1 : m_log->events.back().number + 1;
        if (!m_log->events.empty() && m_event.number <= m_log->events.back().number)
            return bad("expected a higher record number than that of the record before");
        m_log->events.push_back(std::move(m_event));
        return true;
    }
    bool Key(const char *text, rapidjson::SizeType length, bool)
    {
        m_member.assign(text, length);
        for (const char *name : {"record", "source", "id", "time", "type", "strings"})
            if (m_member == name)
                return m_seen.insert(m_member).second ||
                       bad("member \"" + m_member + "\" stands twice");
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
        reason = (m_depth > 0 ? "/" + std::to_string(m_log->events.size()) + ": " : "") + what;
        return false;
    }

    evidence_log *m_log;
    int m_depth = 0; /* 1 in the array, 2 in a record, 3 in its strings */
    std::string m_member;
    std::set<std::string> m_seen;
    event_record m_event = {};
};
} // namespace

static void read_json(const std::string &path, const evidence_file &file, evidence_log *log)
{
    rapidjson::MemoryStream stream(reinterpret_cast<const char *>(file.data()),
                                   static_cast<size_t>(file.bytes()));
    rapidjson::EncodedInputStream<rapidjson::UTF8<>, rapidjson::MemoryStream> input(stream);
    rapidjson::Reader reader;
    record_reader handler(log);
    const rapidjson::ParseResult result =
        reader.Parse<rapidjson::kParseValidateEncodingFlag>(input, handler);

    if (!handler.reason.empty())
        evidence_bad(path, handler.reason);
    if (result.IsError())
        evidence_bad(path, text_format("byte %u: ", static_cast<unsigned>(result.Offset())) +
                               rapidjson::GetParseError_En(result.Code()));
}

/* JSON begins with its bracket; anything else is told to be no log at all. */
static bool is_json(const evidence_file &file)
{
    uint64_t at = 0;

    while (at < file.bytes() && strchr(" \t\r\n\xef\xbb\xbf", file.data()[at]) != NULL &&
           file.data()[at] != '\0')
        at++;
    return at < file.bytes() && (file.data()[at] == '[' || file.data()[at] == '{');
}

void evidence_log_read(const std::string &path, enum evidence_damage allowed, evidence_log *log)
{
    *log = {};
    {
        /* The library that reads an .evtx file opens it once more. */
        const evidence_file file(path, UINT64_MAX);

        if (file.bytes() == 0)
            evidence_bad(path, "is empty, expected an event log");
        if (!evidence_is_evtx(file)) {
            if (!is_json(file))
                evidence_bad(path, "no event log, it does not begin with \"ElfFile\" at byte 0");
            if (file.bytes() > MOST_JSON_BYTES)
                evidence_bad(path, "is larger than any log of that form, 1 GiB");
            read_json(path, file, log);
            return;
        }
    }
    evidence_read_evtx(path, log);
    if (!log->cut_off.empty() && allowed != EVIDENCE_LENIENT)
        evidence_bad(path, log->cut_off + " (--lenient reads what is left)");
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
        lines.push_back("and " + std::to_string(all - lines.size()) + " more findings");
    lines.push_back("damaged, " + std::to_string(log.events.size()) + " records read and " +
                    std::to_string(log.lost_records) + " known to be lost");
    return lines;
}

static void put_text(rapidjson::Writer<rapidjson::StringBuffer> &writer, const std::wstring &text)
{
    const std::string utf8 = text_narrow(text);

    writer.String(utf8.data(), static_cast<rapidjson::SizeType>(utf8.size()));
}

std::string evidence_log_json(const evidence_log &log, uint64_t from, uint64_t to)
{
    std::string text = "[";

    for (const event_record &event : log.events) {
        if (event.number < from || event.number > to)
            continue;
        rapidjson::StringBuffer line;
        rapidjson::Writer<rapidjson::StringBuffer> writer(line);

        writer.StartObject();
        writer.Key("record");
        writer.Uint(event.number);
        writer.Key("source");
        put_text(writer, event.source);
        writer.Key("id");
        writer.Uint(event.id);
        writer.Key("time");
        writer.String(time_iso(time_of_unix(event.time)).c_str());
        writer.Key("type");
        writer.Uint(event.type);
        writer.Key("strings");
        writer.StartArray();
        for (size_t i = 0; i < event.strings.count(); i++)
            put_text(writer, event.strings.at(i));
        writer.EndArray();
        writer.EndObject();
        text += text.size() == 1 ? "\n" : ",\n";
        text += line.GetString();
    }
    return text + "\n]\n";
}

std::string evidence_event_name(const event_record &event)
{
    return text_narrow(event.source) + " " + std::to_string(event.id & 0xffff);
}
