/* Logs of either form, and the lines about their damage. */
#include "log.h"

#include <windows.h>

#include <set>

#include <rapidjson/error/en.h>
#include <rapidjson/reader.h>
#include <rapidjson/memorystream.h>

#include "../base/text.h"

/* More than any System log in this form: another kind of file must not fill the memory. */
static constexpr uint64_t MOST_JSON_BYTES = 1ull << 30;

/* The members of a record. */
static const struct {
    const char *name;
    bool required;
    const char *expected;
} s_members[] = {
    {"record",  false, "a number"                                             },
    {"source",  true,  "a text"                                               },
    {"id",      true,  "a number"                                             },
    {"time",    true,  "a time from 1970 to 2106 such as 2024-03-07T09:05:41Z"},
    {"type",    false, "a number"                                             },
    {"strings", false, "an array of texts"                                    },
};

namespace
{
/* Takes the records from the parser one by one: a tree of all of them would be many times the size of
 * the log. */
class record_reader : public rapidjson::BaseReaderHandler<rapidjson::UTF8<>, record_reader>
{
  public:
    record_reader(const event_filter *filter, evidence_log *log) : filter_(filter), log_(log)
    {
    }

    bool StartArray()
    {
        if (depth_ == 0 || (depth_ == 2 && member_ == "strings"))
            return ++depth_ != 0;
        return bad("expected an event record");
    }
    bool EndArray(rapidjson::SizeType)
    {
        return depth_-- != 0;
    }
    bool StartObject()
    {
        if (depth_ != 1)
            return bad(depth_ == 0 ? "expected an array of event records"
                                   : "expected a text, a number or, for strings, an array");
        depth_++;
        event_ = {};
        event_.type = EVENTLOG_INFORMATION_TYPE;
        seen_.clear();
        return true;
    }
    bool EndObject(rapidjson::SizeType)
    {
        depth_--;
        for (const auto &member : s_members)
            if (member.required && seen_.count(member.name) == 0)
                return bad(std::string("member \"") + member.name + "\" is missing");
        if (event_.number == 0)
            event_.number = last_ + 1;
        if (event_.number <= last_)
            return bad("expected a record number higher than the previous one");
        if (log_->records > 0)
            evidence_note_gap(log_, last_ + 1ull, event_.number);
        last_ = log_->last_number = event_.number;
        if (log_->records++ == 0)
            log_->first_number = event_.number;
        if (filter_ == nullptr || filter_->wants(event_))
            log_->events.push_back(std::move(event_));
        return true;
    }
    bool Key(const char *text, rapidjson::SizeType length, bool)
    {
        member_.assign(text, length);
        for (const auto &member : s_members)
            if (member_ == member.name)
                return seen_.insert(member_).second ||
                       bad("member \"" + member_ + "\" occurs twice");
        return bad("unknown member \"" + member_ + "\"");
    }
    bool Uint(unsigned number)
    {
        if (depth_ == 2 && member_ == "record" && number != 0)
            event_.number = number;
        else if (depth_ == 2 && member_ == "id")
            event_.id = number;
        else if (depth_ == 2 && member_ == "type" && number <= UINT16_MAX)
            event_.type = static_cast<uint16_t>(number);
        else
            return Default();
        return true;
    }
    bool String(const char *text, rapidjson::SizeType length, bool)
    {
        const std::string value(text, length);
        uint64_t time;

        if (depth_ == 3)
            event_.strings.add(text_wide(value));
        else if (depth_ == 2 && member_ == "source")
            event_.source = text_wide(value);
        else if (depth_ == 2 && member_ == "time" && time_parse(value, &time) &&
                 time_unix(time) >= 0 && time_unix(time) <= UINT32_MAX)
            event_.time = static_cast<uint32_t>(time_unix(time));
        else
            return Default();
        return true;
    }
    bool Default()
    {
        if (depth_ < 2)
            return bad("expected an array of event records");
        if (depth_ == 3)
            return bad("expected texts in \"strings\"");
        for (const auto &member : s_members)
            if (member_ == member.name)
                return bad("\"" + member_ + "\": expected " + member.expected);
        return false;
    }

    std::string reason;

  private:
    bool bad(const std::string &what)
    {
        reason = (depth_ > 0 ? "/" + std::to_string(log_->records) + ": " : "") + what;
        return false;
    }

    const event_filter *filter_; /* NULL: every record is wanted */
    evidence_log *log_;
    uint32_t last_ = 0; /* number of the previous record */
    int depth_ = 0;     /* 1 in the array, 2 in a record, 3 in its strings */
    std::string member_;
    std::set<std::string> seen_;
    event_record event_ = {};
};
} // namespace

static void read_json(const evidence_file &file, const event_filter *filter, evidence_log *log)
{
    rapidjson::MemoryStream stream(reinterpret_cast<const char *>(file.data()),
                                   static_cast<size_t>(file.bytes()));
    rapidjson::EncodedInputStream<rapidjson::UTF8<>, rapidjson::MemoryStream> input(stream);
    rapidjson::Reader reader;
    record_reader handler(filter, log);
    const rapidjson::ParseResult result =
        reader.Parse<rapidjson::kParseValidateEncodingFlag>(input, handler);

    if (!handler.reason.empty())
        file.bad(handler.reason);
    if (result.IsError())
        file.bad(text_format("byte %u: ", static_cast<unsigned>(result.Offset())) +
                 rapidjson::GetParseError_En(result.Code()));
}

/* JSON begins with a bracket. */
static bool is_json(const evidence_file &file)
{
    uint64_t at = 0;

    while (at < file.bytes() && strchr(" \t\r\n\xef\xbb\xbf", file.data()[at]) != nullptr &&
           file.data()[at] != '\0')
        at++;
    return at < file.bytes() && (file.data()[at] == '[' || file.data()[at] == '{');
}

void evidence_log_read(const evidence_file &file, enum evidence_damage allowed, evidence_log *log,
                       const event_filter *filter)
{
    *log = {};
    if (file.bytes() == 0)
        file.bad("empty, expected an event log");
    if (evidence_is_evtx(file))
        evidence_read_evtx(file, filter, log);
    else if (!is_json(file))
        file.bad("not an event log: it does not begin with \"ElfFile\"");
    else if (file.bytes() > MOST_JSON_BYTES)
        file.bad("larger than any log in JSON, 1 GiB");
    else
        read_json(file, filter, log);
    if (!log->cut_off.empty() && allowed != EVIDENCE_LENIENT)
        file.bad(log->cut_off + " (--lenient reads the remaining records)");
    if (!log->damage.empty() && allowed == EVIDENCE_STRICT)
        file.bad(log->damage.front());
}

std::vector<std::string> evidence_log_damage(const evidence_log &log, size_t most)
{
    std::vector<std::string> lines;

    if (!log.cut_off.empty())
        lines.push_back(log.cut_off);
    lines.insert(lines.end(), log.damage.begin(), log.damage.end());
    if (lines.empty())
        return lines;
    if (const size_t all = lines.size(); all > most) {
        lines.resize(most);
        lines.push_back("and " + text_count(all - most, "further finding"));
    }
    lines.push_back("damaged: " + text_count(log.records, "record") + " read, " +
                    (log.cut_off.empty() ? "" : "an unknown number missing after them, ") +
                    text_count(log.lost_records, "record") + " missing" +
                    (log.cut_off.empty() ? "" : " between them"));
    return lines;
}

std::string evidence_record_json(const event_record &event)
{
    return json_text<json_line>([&](json_line &writer) { evidence_put_record(writer, event); });
}

std::string evidence_log_json(const evidence_log &log, uint64_t from, uint64_t to)
{
    std::string text = "[";

    for (const event_record &event : log.events) {
        if (event.number < from || event.number > to)
            continue;
        text += (text.size() == 1 ? "\n" : ",\n") + evidence_record_json(event);
    }
    return text + "\n]\n";
}

std::string evidence_event_name(const event_record &event)
{
    return text_narrow(event.source) + " " + std::to_string(event.id & 0xffff);
}
