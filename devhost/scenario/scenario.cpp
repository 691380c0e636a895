/* Reading scenario files, and the values in them. */
#include "scenario.h"

#include <algorithm>

#include <rapidjson/error/en.h>

#include "../base/file.h"
#include "../base/text.h"
#include "../disk/files.h"

static constexpr int MOST_LEVELS = 100;

/* Returns ":3:7", line and column of a byte of a text. */
static std::string position_of(const std::string &text, size_t offset)
{
    const std::string before = text.substr(0, offset);
    const size_t line_start = before.rfind('\n') + 1; /* npos + 1 is 0 */

    return text_format(":%u:%u",
                       static_cast<unsigned>(std::count(before.begin(), before.end(), '\n') + 1),
                       static_cast<unsigned>(before.size() - line_start + 1));
}

/* Where arrays and objects are nested too deep for the recursive parser and its stack; npos:
 * nowhere. */
static size_t too_deep(const std::string &text)
{
    bool inside = false; /* a string */
    int depth = 0;

    for (size_t i = 0; i < text.size(); i++) {
        if (inside && text[i] == '\\')
            i++;
        else if (text[i] == '"')
            inside = !inside;
        else if (!inside && (text[i] == '[' || text[i] == '{') && ++depth > MOST_LEVELS)
            return i;
        else if (!inside && (text[i] == ']' || text[i] == '}'))
            depth--;
    }
    return std::string::npos;
}

std::string scenario_load_json(rapidjson::Document &document, const std::string &file, int status)
{
    std::string text = machine_read_real_file(text_wide(file), status);
    const size_t deep = too_deep(text);

    if (deep != std::string::npos)
        throw devhost_error(status, file + position_of(text, deep) +
                                        text_format(": expected %d levels at most", MOST_LEVELS));
    document.Parse<rapidjson::kParseValidateEncodingFlag>(text.data(), text.size());
    if (document.HasParseError())
        throw devhost_error(status, file + position_of(text, document.GetErrorOffset()) + ": " +
                                        rapidjson::GetParseError_En(document.GetParseError()));
    return text;
}

void scenario_load_evidence(rapidjson::Document &document, const std::string &file,
                            uint64_t most_bytes, int status)
{
    evidence_file(file).limit(most_bytes);
    scenario_load_json(document, file, status);
}

node node::operator[](const char *member) const
{
    node found = *this;

    found.value_ = node_member(value_, member);
    return found;
}

std::vector<node> node::elements() const
{
    std::vector<node> found;

    if (value_ != nullptr && value_->IsArray())
        for (const json_value &element : value_->GetArray())
            found.emplace_back(*scenario_, &element);
    return found;
}

std::vector<std::pair<std::string, node>> node::members() const
{
    std::vector<std::pair<std::string, node>> found;

    if (value_ != nullptr && value_->IsObject())
        for (const auto &member : value_->GetObject())
            found.emplace_back(member.name.GetString(), node(*scenario_, &member.value));
    return found;
}

std::string node::path() const
{
    std::string full = value_->GetString();
    size_t open = full.find('{'), end = full.find('}', open);

    if (open != std::string::npos && end != std::string::npos) {
        std::string name = full.substr(open + 1, end - open - 1);
        auto define = scenario_->defines.find(name);

        if (define == scenario_->defines.end() || define->second.empty())
            throw devhost_error(EXIT_SKIPPED, scenario_->file + ": needs --define " + name +
                                                  "=FOLDER, which is missing");
        full.replace(open, end - open + 1, define->second);
    }
    bool absolute = full[0] == '/' || full[0] == '\\' || (full.size() > 1 && full[1] == ':');
    return absolute ? full : scenario_->folder + full;
}

/* Finds a value by its address. path receives its JSON pointer, number its place among all values in
 * the order of the text. */
static bool find(const json_value &here, const json_value *wanted, std::string *path,
                 size_t *number)
{
    const std::string before = *path;

    if (&here == wanted)
        return true;
    ++*number;
    if (here.IsObject())
        for (const auto &member : here.GetObject()) {
            *path = before + "/" + member.name.GetString();
            if (find(member.value, wanted, path, number))
                return true;
        }
    if (here.IsArray())
        for (rapidjson::SizeType i = 0; i < here.Size(); i++) {
            *path = before + "/" + std::to_string(i);
            if (find(here[i], wanted, path, number))
                return true;
        }
    return false;
}

/* The end of a string that begins at a quote, the closing quote included. */
static size_t end_of_string(const std::string &text, size_t at)
{
    for (at++; at < text.size() && text[at] != '"'; at++)
        if (text[at] == '\\')
            at++;
    return at + 1;
}

/* The offset of a value in valid JSON by its number: strings before a colon are names. */
static size_t offset_of(const std::string &text, size_t number)
{
    size_t at = 0, end;

    while ((at = text.find_first_not_of(" \t\r\n,:]}", at)) < text.size()) {
        if (text[at] == '"')
            end = end_of_string(text, at);
        else if (text[at] == '{' || text[at] == '[')
            end = at + 1;
        else
            end = std::min(text.find_first_of(" \t\r\n,]}", at), text.size());
        size_t next = text.find_first_not_of(" \t\r\n", end);
        bool is_name = text[at] == '"' && next < text.size() && text[next] == ':';
        if (!is_name && number-- == 0)
            return at;
        at = end;
    }
    return 0;
}

std::string node::place() const
{
    std::string path, place = scenario_->file;
    size_t number = 0;

    (void)find(scenario_->document, value_, &path, &number);
    if (!scenario_->text.empty())
        place += position_of(scenario_->text, offset_of(scenario_->text, number));
    return place + ": " + (path.empty() ? "/" : path);
}

void node::bad(const std::string &what) const
{
    throw devhost_error(EXIT_BAD_CALL, place() + ": " + what);
}
