/* Text of values, as the classic event-log interface shows it. */
#include "evtx_values.h"

#include <algorithm>

#include "../base/text.h"
#include "evtx_layout.h"

/* 400 years, after which the calendar repeats. */
static constexpr uint64_t ERA_100NS = 146097ull * 86400 * TICKS_PER_SECOND;

/* Index: the type. */
static const uint8_t s_sizes[] = {0, 0, 0, 1, 1,  2, 2, 4,  4, 8, 8,
                                  4, 8, 4, 0, 16, 4, 8, 16, 8, 4, 8};

size_t evtx_width(uint8_t type)
{
    return type < sizeof(s_sizes) ? s_sizes[type] : 0;
}

static void append(std::wstring *text, const std::string &ascii)
{
    text->append(ascii.begin(), ascii.end());
}

void evtx_append_text(const uint8_t *bytes, size_t units, std::wstring *text)
{
    for (size_t i = 0; i < units; i++) {
        const wchar_t unit = evtx_load<uint16_t>(bytes + 2 * i);

        if (unit == L'\0')
            return;
        text->push_back(unit);
    }
}

static void append_ansi(const uint8_t *bytes, size_t size, std::wstring *text)
{
    for (size_t i = 0; i < size && bytes[i] != 0; i++)
        text->push_back(bytes[i]);
}

static void append_binary(const uint8_t *bytes, size_t size, std::wstring *text)
{
    static const wchar_t digits[] = L"0123456789ABCDEF";

    for (size_t i = 0; i < size; i++) {
        text->push_back(digits[bytes[i] >> 4]);
        text->push_back(digits[bytes[i] & 15]);
    }
}

/* An unsigned number of 1, 2, 4 or 8 bytes. */
static uint64_t number_of(const uint8_t *bytes, size_t size)
{
    uint64_t number = 0;

    memcpy(&number, bytes, size);
    return number;
}

static int64_t signed_of(const uint8_t *bytes, size_t size)
{
    const int unused = 64 - 8 * static_cast<int>(size); /* bits */

    return static_cast<int64_t>(number_of(bytes, size) << unused) >> unused;
}

/* Windows converts no time in the far future, and logs contain such times. */
static std::string date_text(uint64_t filetime)
{
    const std::string date = time_iso(filetime % ERA_100NS);

    return text_format("%04llu",
                       strtoull(date.c_str(), nullptr, 10) + 400 * (filetime / ERA_100NS)) +
           date.substr(4, 15) + text_format(".%07llu00Z", filetime % TICKS_PER_SECOND);
}

static std::string systemtime_text(const uint8_t *bytes)
{
    const auto field = [bytes](size_t index) {
        return static_cast<unsigned>(evtx_load<uint16_t>(bytes + 2 * index));
    };

    return text_format("%04u-%02u-%02uT%02u:%02u:%02u.%03uZ", field(0), field(1), field(3),
                       field(4), field(5), field(6), field(7));
}

static std::string guid_text(const uint8_t *b)
{
    return text_format("{%08x-%04x-%04x-%02x%02x-%02x%02x%02x%02x%02x%02x}", evtx_load<uint32_t>(b),
                       static_cast<unsigned>(evtx_load<uint16_t>(b + 4)),
                       static_cast<unsigned>(evtx_load<uint16_t>(b + 6)), b[8], b[9], b[10], b[11],
                       b[12], b[13], b[14], b[15]);
}

/* The authority is a number of six bytes, the highest first. */
static std::string sid_text(const uint8_t *bytes, size_t size)
{
    std::string text;
    uint64_t authority = 0;

    if (size < 8u + 4u * bytes[1])
        return text;
    for (size_t i = 2; i < 8; i++)
        authority = authority << 8 | bytes[i];
    text = "S-" + std::to_string(bytes[0]) + "-" + std::to_string(authority);
    for (size_t i = 0; i < bytes[1]; i++)
        text += "-" + std::to_string(evtx_load<uint32_t>(bytes + 8 + 4 * i));
    return text;
}

static std::string ascii_text(uint8_t type, const uint8_t *bytes, size_t size)
{
    const size_t width = std::min<size_t>(s_sizes[type], sizeof(uint64_t));

    switch (type) {
    case EVTX_INT8:
    case EVTX_INT16:
    case EVTX_INT32:
    case EVTX_INT64: return std::to_string(signed_of(bytes, width));
    case EVTX_UINT8:
    case EVTX_UINT16:
    case EVTX_UINT32:
    case EVTX_UINT64: return std::to_string(number_of(bytes, width));
    case EVTX_FLOAT: return text_format("%f", static_cast<double>(evtx_load<float>(bytes)));
    case EVTX_DOUBLE: return text_format("%f", evtx_load<double>(bytes));
    case EVTX_BOOLEAN: return evtx_load<uint32_t>(bytes) != 0 ? "true" : "false";
    case EVTX_GUID: return guid_text(bytes);
    case EVTX_SIZE: return text_format("0x%llx", number_of(bytes, size < 8 ? 4 : 8));
    case EVTX_FILETIME: return date_text(evtx_load<uint64_t>(bytes));
    case EVTX_SYSTEMTIME: return systemtime_text(bytes);
    case EVTX_SID: return sid_text(bytes, size);
    case EVTX_HEX32:
    case EVTX_HEX64: return text_format("0x%llx", number_of(bytes, width));
    default: return "";
    }
}

void evtx_append_value(uint8_t type, const uint8_t *bytes, size_t size, std::wstring *text)
{
    if (type >= sizeof(s_sizes) || size < s_sizes[type])
        return;
    if (type == EVTX_STRING)
        evtx_append_text(bytes, size / 2, text);
    else if (type == EVTX_ANSI_STRING)
        append_ansi(bytes, size, text);
    else if (type == EVTX_BINARY)
        append_binary(bytes, size, text);
    else
        append(text, ascii_text(type, bytes, size));
}

/* Strings follow each other with their NULs. */
static void add_strings(const uint8_t *bytes, size_t size, event_strings *strings)
{
    std::wstring text;

    for (size_t at = 0; at + 2 <= size; at += 2) {
        const wchar_t unit = evtx_load<uint16_t>(bytes + at);

        if (unit != L'\0')
            text.push_back(unit);
        if (unit == L'\0' || at + 4 > size) {
            strings->add(text);
            text.clear();
        }
    }
}

void evtx_add_array(uint8_t type, const uint8_t *bytes, size_t size, event_strings *strings)
{
    const size_t width = evtx_width(type);
    std::wstring text;

    if (type == EVTX_STRING) {
        add_strings(bytes, size, strings);
        return;
    }
    for (size_t at = 0; at < size; at += width != 0 ? width : size) {
        const size_t left = size - at;

        text.clear();
        evtx_append_value(type, bytes + at, width != 0 ? std::min(width, left) : left, &text);
        strings->add(text);
    }
}
