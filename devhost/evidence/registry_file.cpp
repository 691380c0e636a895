/* Registry exports. A line is a value; a value of bytes may take several lines, each but the last ended
 * by a backslash. */
#include "registry_file.h"

#include <cstring>

#include <sstream>

#include "../base/text.h"

/* A complete export of a SYSTEM hive has some tens of megabytes. */
static constexpr uint64_t MOST_BYTES = 256ull << 20;

#define ROOT L"HKEY_LOCAL_MACHINE"
static constexpr wchar_t CONTROL_SET[] = L"SYSTEM\\ControlSet";

namespace
{
struct reader {
    const evidence_file &file;
    std::wistringstream text;
    size_t line = 0; /* number of the last line, the first one of its value */

    [[noreturn]] void bad(const std::string &what) const
    {
        file.bad("line " + std::to_string(line) + ": " + what);
    }
};
} // namespace

static std::wstring decode(const evidence_file &file)
{
    const char *bytes = reinterpret_cast<const char *>(file.data());
    const size_t size = static_cast<size_t>(file.bytes());

    if (size == 0)
        file.bad("empty, expected a registry export");
    if (size >= 2 && memcmp(bytes, "\xff\xfe", 2) == 0) {
        std::wstring text((size - 2) / sizeof(wchar_t), L'\0');

        if (size % sizeof(wchar_t) != 0)
            file.bad("truncated inside the last character");
        memcpy(&text[0], bytes + 2, size - 2);
        return text;
    }
    const size_t skip = size >= 3 && memcmp(bytes, "\xef\xbb\xbf", 3) == 0 ? 3 : 0;

    return text_wide(std::string(bytes + skip, size - skip));
}

/* Reads one line without its end. Result: false after the last one. */
static bool next_raw_line(reader &from, std::wstring *line)
{
    if (!std::getline(from.text, *line))
        return false;
    from.line++;
    if (!line->empty() && line->back() == L'\r')
        line->pop_back();
    return true;
}

/* Whether the line ends inside a quoted text. inside: whether it begins inside one. Only lines of values
 * contain quoted texts. */
static bool ends_in_text(const std::wstring &line, bool inside)
{
    const size_t text = line.find_first_not_of(L" \t");

    if (!inside && (text == std::wstring::npos || (line[text] != L'"' && line[text] != L'@')))
        return false;
    for (size_t i = 0; i < line.size(); i++) {
        if (line[i] == L'"')
            inside = !inside;
        else if (line[i] == L'\\' && inside)
            i++;
    }
    return inside;
}

/* Reads one line with its continuation lines. */
static bool next_line(reader &from, std::wstring *line)
{
    std::wstring more;

    if (!next_raw_line(from, line))
        return false;
    const size_t first = from.line;

    /* A text that contains line ends is written over several lines. */
    for (bool open = ends_in_text(*line, false); open; open = ends_in_text(more, true)) {
        if (!next_raw_line(from, &more)) {
            from.line = first;
            from.bad("expected a closing quotation mark");
        }
        *line += L"\n" + more;
    }
    while (!line->empty() && line->back() == L'\\' && line->front() != L'[') {
        line->pop_back();
        if (!next_raw_line(from, &more))
            from.bad("truncated, expected further bytes");
        const size_t text = more.find_first_not_of(L" \t");

        *line += text == std::wstring::npos ? L"" : more.substr(text);
    }
    from.line = first;
    return true;
}

/* Reads a quoted text from *at on, and sets *at after it. */
static std::wstring quoted(const reader &from, const std::wstring &line, size_t *at)
{
    std::wstring text;

    for (size_t i = *at + 1; i < line.size(); i++) {
        if (line[i] == L'"') {
            *at = i + 1;
            return text;
        }
        if (line[i] == L'\\' && i + 1 < line.size())
            i++;
        text += line[i];
    }
    from.bad("expected a closing quotation mark");
}

static uint32_t hexadecimal(const reader &from, const std::wstring &digits, size_t most)
{
    if (digits.empty() || digits.size() > most ||
        digits.find_first_not_of(L"0123456789abcdefABCDEF") != std::wstring::npos)
        from.bad("expected " + std::to_string(most) + " hexadecimal digits, found \"" +
                 text_narrow(digits) + "\"");
    return static_cast<uint32_t>(wcstoul(digits.c_str(), nullptr, 16));
}

static std::string byte_list(const reader &from, const std::wstring &text)
{
    std::wistringstream list(text);
    std::wstring digits;
    std::string bytes;

    while (std::getline(list, digits, L','))
        bytes += static_cast<char>(hexadecimal(from, digits, 2));
    return bytes;
}

/* Parses the data after the "=" of a line. */
static void parse_data(const reader &from, const std::wstring &text, evidence_value *value)
{
    const std::wstring dword = L"dword:", hex = L"hex";
    size_t at = 0;

    if (!text.empty() && text[0] == L'"') {
        value->type = REG_SZ;
        value->data = text_bytes(quoted(from, text, &at) + L'\0');
    } else if (text.rfind(dword, 0) == 0) {
        value->type = REG_DWORD;
        value->data = text_bytes(hexadecimal(from, text.substr(dword.size()), 8));
    } else if (text.rfind(hex, 0) == 0 && text.find(L':') != std::wstring::npos) {
        const size_t colon = text.find(L':');
        const std::wstring type = text.substr(hex.size(), colon - hex.size());

        if (type.empty())
            value->type = REG_BINARY;
        else if (type.size() > 2 && type.front() == L'(' && type.back() == L')')
            value->type = hexadecimal(from, type.substr(1, type.size() - 2), 8);
        else
            from.bad("expected hex:, or hex(TYPE):");
        value->data = byte_list(from, text.substr(colon + 1));
    } else {
        from.bad("expected a text in quotation marks, dword: or hex:");
    }
}

std::string evidence_value::text() const
{
    const std::wstring whole(reinterpret_cast<const wchar_t *>(data.data()),
                             data.size() / sizeof(wchar_t));

    return text_narrow(whole.substr(0, whole.find(L'\0')));
}

/* The number of "SYSTEM\ControlSetNNN\..."; 0 for any other key. */
static unsigned long control_set_of(const std::wstring &key)
{
    const std::wstring set = CONTROL_SET;
    wchar_t *end = nullptr;

    if (_wcsnicmp(key.c_str(), set.c_str(), set.size()) != 0)
        return 0;
    const unsigned long number = wcstoul(key.c_str() + set.size(), &end, 10);

    return end == key.c_str() + set.size() + 3 && (*end == L'\\' || *end == L'\0') ? number : 0;
}

/* Renames the current control set: the one that Select names, else the first one of the export. */
static void name_current_set(evidence_registry *registry)
{
    uint32_t current = 0;
    unsigned long first = 0;

    for (const evidence_value &value : registry->values) {
        if (value.type == REG_DWORD && value.data.size() == sizeof(current) &&
            _wcsicmp(value.key.c_str(), L"SYSTEM\\Select") == 0 &&
            _wcsicmp(value.name.c_str(), L"Current") == 0)
            memcpy(&current, value.data.data(), sizeof(current));
        first = first != 0 ? first : control_set_of(value.key);
    }
    for (evidence_value &value : registry->values)
        if (control_set_of(value.key) != 0 &&
            control_set_of(value.key) == (current != 0 ? current : first))
            value.key = L"SYSTEM\\CurrentControlSet" + value.key.substr(wcslen(CONTROL_SET) + 3);
}

/* Parses a line in brackets. Result: the key below the root; empty for another root. */
static std::wstring parse_key(const reader &from, const std::wstring &line)
{
    const std::wstring root = ROOT L"\\";

    if (line.back() != L']')
        from.bad("expected a closing bracket");
    if (line[1] == L'-')
        from.bad("expected an export, found a key to delete");
    const std::wstring key = line.substr(1, line.size() - 2);

    return _wcsnicmp(key.c_str(), root.c_str(), root.size()) == 0 ? key.substr(root.size()) : L"";
}

static void parse_value(const reader &from, const std::wstring &line, const std::wstring &key,
                        evidence_registry *registry)
{
    evidence_value value = {key, L"", REG_NONE, ""};
    size_t at = 1;

    if (line[0] == L'"') {
        at = 0;
        value.name = quoted(from, line, &at);
    } else if (line[0] != L'@') {
        from.bad("expected a key in brackets or a value, \"NAME\"=DATA");
    }
    if (at >= line.size() || line[at] != L'=')
        from.bad("expected \"=\" after the name");
    parse_data(from, line.substr(at + 1), &value);
    if (!key.empty()) /* below another root: skipped */
        registry->values.push_back(value);
}

void evidence_registry_read(const evidence_file &file, evidence_registry *registry)
{
    file.limit(MOST_BYTES);
    reader from = {file, std::wistringstream(decode(file))};
    std::wstring line, key;
    bool in_key = false;

    if (!next_line(from, &line) ||
        (line != L"Windows Registry Editor Version 5.00" && line != L"REGEDIT4"))
        file.bad(
            "not a registry export: expected \"Windows Registry Editor Version 5.00\" in line 1");
    while (next_line(from, &line)) {
        const size_t text = line.find_first_not_of(L" \t");

        if (text == std::wstring::npos || line[text] == L';')
            continue;
        line = line.substr(text, line.find_last_not_of(L" \t") + 1 - text);
        if (line[0] == L'[') {
            key = parse_key(from, line);
            in_key = true;
        } else if (!in_key) {
            from.bad("expected a key in brackets before the first value");
        } else {
            parse_value(from, line, key, registry);
        }
    }
    name_current_set(registry);
}
