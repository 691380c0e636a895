/* Text and time helpers of the development host. Stateless. */
#include "text.h"

#include <cstdarg>
#include <cstdio>
#include <windows.h>

#include <algorithm>
#include <type_traits>

/* 1601 to 1970, in seconds. */
static constexpr int64_t UNIX_EPOCH_SECONDS = 11644473600ll;

/* Most texts are ASCII, and need no call of Windows. */
template <typename Char> static bool is_ascii(const std::basic_string<Char> &text)
{
    return std::all_of(text.begin(), text.end(),
                       [](Char c) { return static_cast<std::make_unsigned_t<Char>>(c) < 0x80; });
}

std::string text_narrow(const std::wstring &wide)
{
    std::string utf8;

    if (is_ascii(wide)) {
        utf8.resize(wide.size());
        std::transform(wide.begin(), wide.end(), utf8.begin(),
                       [](wchar_t c) { return static_cast<char>(c); });
        return utf8;
    }
    int length = static_cast<int>(wide.size());
    int bytes = WideCharToMultiByte(CP_UTF8, 0, wide.data(), length, nullptr, 0, nullptr, nullptr);

    utf8.resize(static_cast<size_t>(bytes));
    WideCharToMultiByte(CP_UTF8, 0, wide.data(), length, utf8.data(), bytes, nullptr, nullptr);
    return utf8;
}

std::wstring text_wide(const std::string &utf8)
{
    std::wstring wide;

    if (is_ascii(utf8))
        return std::wstring(utf8.begin(), utf8.end());
    int length = static_cast<int>(utf8.size());
    int chars = MultiByteToWideChar(CP_UTF8, 0, utf8.data(), length, nullptr, 0);

    wide.resize(static_cast<size_t>(chars));
    MultiByteToWideChar(CP_UTF8, 0, utf8.data(), length, wide.data(), chars);
    return wide;
}

std::string text_format(const char *format, ...)
{
    char usual[256]; /* formatting twice, once for the length, takes twice as long */
    va_list arguments, again;
    std::string text;

    va_start(arguments, format);
    va_copy(again, arguments);
    const int length = vsnprintf(usual, sizeof(usual), format, arguments);
    va_end(arguments);
    const size_t bytes = length > 0 ? static_cast<size_t>(length) : 0;
    text.assign(usual, std::min(bytes, sizeof(usual) - 1));
    if (bytes >= sizeof(usual)) {
        text.resize(bytes);
        vsnprintf(text.data(), bytes + 1, format, again);
    }
    va_end(again);
    return text;
}

std::wstring text_lower(const std::wstring &wide)
{
    std::wstring lower = wide;

    for (wchar_t &c : lower)
        if (c >= L'A' && c <= L'Z')
            c = static_cast<wchar_t>(c - L'A' + L'a');
    if (!is_ascii(lower))
        CharLowerBuffW(lower.data(), static_cast<DWORD>(lower.size()));
    return lower;
}

std::string text_lower(const std::string &ascii)
{
    std::string lower = ascii;

    for (char &c : lower)
        if (c >= 'A' && c <= 'Z')
            c = static_cast<char>(c - 'A' + 'a');
    return lower;
}

std::string text_replace(std::string text, const std::string &from, const std::string &to)
{
    size_t at = 0;

    while (!from.empty() && (at = text.find(from, at)) != std::string::npos) {
        text.replace(at, from.size(), to);
        at += to.size();
    }
    return text;
}

std::string text_hex(const std::string &bytes)
{
    std::string hex;

    for (char byte : bytes)
        hex += text_format("%02x", static_cast<unsigned>(static_cast<uint8_t>(byte)));
    return hex;
}

std::string text_of_hex(const std::string &hex)
{
    std::string bytes;

    for (size_t i = 0; i + 1 < hex.size(); i += 2)
        bytes += static_cast<char>(strtoul(hex.substr(i, 2).c_str(), nullptr, 16));
    return bytes;
}

std::string text_count(uint64_t number, const std::string &noun)
{
    std::string text = std::to_string(number);

    for (size_t at = text.size(); at > 3; at -= 3)
        text.insert(at - 3, ",");
    return text + " " + noun + (number == 1 ? "" : "s");
}

/* The texts of Windows itself are in the user's language, and Wine's are few. */
static const struct {
    DWORD error;
    const char *text;
} s_errors[] = {
    {ERROR_FILE_NOT_FOUND,     "file not found"           },
    {ERROR_PATH_NOT_FOUND,     "path not found"           },
    {ERROR_ACCESS_DENIED,      "access denied"            },
    {ERROR_INVALID_HANDLE,     "invalid handle"           },
    {ERROR_NOT_ENOUGH_MEMORY,  "not enough memory"        },
    {ERROR_WRITE_PROTECT,      "write-protected"          },
    {ERROR_WRITE_FAULT,        "write failed"             },
    {ERROR_SHARING_VIOLATION,  "in use by another program"},
    {ERROR_HANDLE_EOF,         "end of file"              },
    {ERROR_HANDLE_DISK_FULL,   "disk full"                },
    {ERROR_FILE_EXISTS,        "file exists"              },
    {ERROR_DISK_FULL,          "disk full"                },
    {ERROR_INVALID_NAME,       "invalid name"             },
    {ERROR_MOD_NOT_FOUND,      "module not found"         },
    {ERROR_PROC_NOT_FOUND,     "function not found"       },
    {ERROR_DIRECTORY,          "not a folder"             },
    {ERROR_ALREADY_EXISTS,     "already exists"           },
    {ERROR_BAD_EXE_FORMAT,     "not a DLL of this kind"   },
    {ERROR_DLL_INIT_FAILED,    "entry point failed"       },
    {ERROR_NOT_ALL_ASSIGNED,   "privilege not held"       },
    {ERROR_PRIVILEGE_NOT_HELD, "privilege not held"       },
};

std::string text_error(unsigned long error)
{
    std::string text = "error";
    wchar_t own[256] = L"";

    for (const auto &row : s_errors)
        if (row.error == error)
            text = row.text;
    if (text == "error" &&
        FormatMessageW(FORMAT_MESSAGE_FROM_SYSTEM | FORMAT_MESSAGE_IGNORE_INSERTS, nullptr, error,
                       0, own, ARRAYSIZE(own), nullptr) != 0)
        text = text_narrow(std::wstring(own, wcscspn(own, L".\r\n")));
    return text + text_format(" (%lu)", error);
}

std::vector<std::string> text_split(const std::string &text, char separator)
{
    std::vector<std::string> parts;
    size_t at = 0;

    for (size_t end; (end = text.find(separator, at)) != std::string::npos; at = end + 1)
        parts.push_back(text.substr(at, end - at));
    parts.push_back(text.substr(at));
    return parts;
}

std::string text_quoted(const std::string &text)
{
    std::string out = "\"";

    for (char c : text) {
        if (c == '"' || c == '\\')
            (out += '\\') += c;
        else if (c == '\n')
            out += "\\n";
        else if (static_cast<unsigned char>(c) < 0x20)
            out += text_format("\\u%04x", static_cast<unsigned>(c));
        else
            out += c;
    }
    return out + "\"";
}

log_line text_log_line(const std::string &line)
{
    const std::string tag = "[vkl] [";
    const size_t level = line.find(" ["), level_end = line.find(']', level);
    const size_t place = line.find(tag, level_end), place_end = line.find("] ", place + tag.size());

    if (level == std::string::npos || place == std::string::npos || place_end == std::string::npos)
        return {"", "", line};
    return {line.substr(level + 2, level_end - level - 2),
            line.substr(place + tag.size(), place_end - place - tag.size()),
            line.substr(place_end + 2)};
}

bool text_fits(const std::string &text, const std::string &pattern)
{
    size_t t = 0, p = 0, star = std::string::npos, mark = 0;

    while (t < text.size()) {
        if (p < pattern.size() && pattern[p] == '*') {
            star = p++;
            mark = t;
        } else if (p < pattern.size() && pattern[p] == text[t]) {
            p++;
            t++;
        } else if (star != std::string::npos) {
            p = star + 1;
            t = ++mark;
        } else {
            return false;
        }
    }
    while (p < pattern.size() && pattern[p] == '*')
        p++;
    return p == pattern.size();
}

/* space: what follows commas and colons. */
static void append_json(std::string &out, const json_t *json, const char *space)
{
    /* Jansson declares its iterators for non-constant objects. */
    json_t *object = const_cast<json_t *>(json);
    bool first = true;

    switch (json != nullptr ? json_typeof(json) : JSON_NULL) {
    case JSON_OBJECT:
        out += '{';
        for (void *it = json_object_iter(object); it != nullptr;
             it = json_object_iter_next(object, it)) {
            if (!first)
                (out += ',') += space;
            first = false;
            out += text_quoted(json_object_iter_key(it));
            (out += ':') += space;
            append_json(out, json_object_iter_value(it), space);
        }
        out += '}';
        break;
    case JSON_ARRAY:
        out += '[';
        for (size_t index = 0; index < json_array_size(json); index++) {
            if (index != 0)
                (out += ',') += space;
            append_json(out, json_array_get(json, index), space);
        }
        out += ']';
        break;
    case JSON_STRING: out += text_quoted(json_string_value(json)); break;
    case JSON_INTEGER: out += std::to_string(json_integer_value(json)); break;
    case JSON_REAL: out += text_format("%.17g", json_real_value(json)); break;
    case JSON_TRUE: out += "true"; break;
    case JSON_FALSE: out += "false"; break;
    case JSON_NULL: out += "null"; break;
    }
}

std::string text_of_json(const json_t *json, bool compact)
{
    std::string out;

    append_json(out, json, compact ? "" : " ");
    return out;
}

std::string time_iso(uint64_t filetime_100ns, bool milliseconds)
{
    FILETIME time = {static_cast<DWORD>(filetime_100ns), static_cast<DWORD>(filetime_100ns >> 32)};
    SYSTEMTIME parts;

    if (!FileTimeToSystemTime(&time, &parts))
        return "(no date)";
    if (milliseconds)
        return text_format("%04d-%02d-%02dT%02d:%02d:%02d.%03dZ", parts.wYear, parts.wMonth,
                           parts.wDay, parts.wHour, parts.wMinute, parts.wSecond,
                           parts.wMilliseconds);
    return text_format("%04d-%02d-%02dT%02d:%02d:%02dZ", parts.wYear, parts.wMonth, parts.wDay,
                       parts.wHour, parts.wMinute, parts.wSecond);
}

/* Reads digits characters of a decimal number. */
static bool read_digits(const char **at, int digits, unsigned *number)
{
    *number = 0;
    for (int i = 0; i < digits; i++, (*at)++) {
        if (**at < '0' || **at > '9')
            return false;
        *number = *number * 10 + static_cast<unsigned>(**at - '0');
    }
    return true;
}

/* The fraction after the seconds, ".fffffff" of 1 to 9 digits, in 100 ns. */
static uint64_t read_fraction(const char **at)
{
    uint64_t ticks = 0, unit = TICKS_PER_SECOND / 10;

    for ((*at)++; **at >= '0' && **at <= '9'; (*at)++, unit /= 10)
        ticks += static_cast<uint64_t>(**at - '0') * unit;
    return ticks;
}

bool time_parse(const std::string &iso, uint64_t *filetime_100ns)
{
    static const struct {
        int digits;
        char next; /* '\0': the fraction or the Z follows */
    } layout[] = {
        {4, '-' },
        {2, '-' },
        {2, 'T' },
        {2, ':' },
        {2, ':' },
        {2, '\0'}
    };
    unsigned part[6];
    const char *at = iso.c_str();
    uint64_t fraction = 0;
    SYSTEMTIME parts = {};
    FILETIME time;

    for (size_t i = 0; i < 6; i++)
        if (!read_digits(&at, layout[i].digits, &part[i]) ||
            (layout[i].next != '\0' && *at++ != layout[i].next))
            return false;
    if (*at == '.')
        fraction = read_fraction(&at);
    if (at[0] != 'Z' || at[1] != '\0')
        return false;
    parts.wYear = static_cast<WORD>(part[0]);
    parts.wMonth = static_cast<WORD>(part[1]);
    parts.wDay = static_cast<WORD>(part[2]);
    parts.wHour = static_cast<WORD>(part[3]);
    parts.wMinute = static_cast<WORD>(part[4]);
    parts.wSecond = static_cast<WORD>(part[5]);
    if (!SystemTimeToFileTime(&parts, &time))
        return false;
    *filetime_100ns =
        ((static_cast<uint64_t>(time.dwHighDateTime) << 32) | time.dwLowDateTime) + fraction;
    return true;
}

std::string time_span(uint64_t ms)
{
    unsigned long long seconds = ms / 1000, days = seconds / 86400;
    std::string text = days != 0 ? text_format("%llud ", days) : "";

    return text + text_format("%02llu:%02llu:%02llu.%03llu", seconds / 3600 % 24, seconds / 60 % 60,
                              seconds % 60, ms % 1000);
}

int64_t time_unix(uint64_t filetime_100ns)
{
    return static_cast<int64_t>(filetime_100ns / TICKS_PER_SECOND) - UNIX_EPOCH_SECONDS;
}

uint64_t time_of_unix(int64_t seconds)
{
    return static_cast<uint64_t>(seconds + UNIX_EPOCH_SECONDS) * TICKS_PER_SECOND;
}

double time_real_ms(void)
{
    static LARGE_INTEGER s_second; /* constant while Windows runs */
    LARGE_INTEGER now;

    if (s_second.QuadPart == 0)
        QueryPerformanceFrequency(&s_second);
    QueryPerformanceCounter(&now);
    return static_cast<double>(now.QuadPart) * 1000.0 / static_cast<double>(s_second.QuadPart);
}
