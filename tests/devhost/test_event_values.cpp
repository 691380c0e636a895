/* The text of values in event records, as the classic event-log interface shows it. */
#include <cstring>

#include <string>

#include <gtest/gtest.h>

#include "base/text.h"
#include "evtx/evtx_values.h"

namespace
{
/* A value of a type, as hexadecimal digits, and its text. */
const struct row {
    uint8_t type;
    const char *hex;
    const char *text;
} s_rows[] = {
    {EVTX_INT8,       "80",                               "-128"                           },
    {EVTX_INT16,      "4cff",                             "-180"                           },
    {EVTX_INT32,      "4cffffff",                         "-180"                           },
    {EVTX_INT64,      "0000000000000080",                 "-9223372036854775808"           },
    {EVTX_UINT32,     "ffffffff",                         "4294967295"                     },
    {EVTX_UINT64,     "ffffffffffffffff",                 "18446744073709551615"           },
    {EVTX_HEX32,      "e7030000",                         "0x3e7"                          },
    {EVTX_SIZE,       "1000000000000000",                 "0x10"                           },
    {EVTX_BOOLEAN,    "01000000",                         "true"                           },
    {EVTX_BINARY,     "0fa0",                             "0FA0"                           },
    {EVTX_STRING,     "6100ac2000007800",                 "a\xe2\x82\xac"                  },
    {EVTX_STRING,     "3dd842de",                         "\xf0\x9f\x99\x82"               },
    {EVTX_FILETIME,   "0000000000000000",                 "1601-01-01T00:00:00.000000000Z" },
    {EVTX_FILETIME,   "879fbddb6d70da01",                 "2024-03-07T09:00:10.123456700Z" },
    {EVTX_FILETIME,   "ffffffffffffff7f",                 "30828-09-14T02:48:05.477580700Z"},
    {EVTX_SYSTEMTIME, "e807030004000700090000000a000500", "2024-03-07T09:00:10.005Z"       },
    {EVTX_SID,        "010100000000000512000000",         "S-1-5-18"                       },
    {EVTX_SID,        "010200000000000512000000",         ""                               },
    {EVTX_INT32,      "ff",                               ""                               },
    {0x7f,            "ff",                               ""                               },
};

std::string bytes_of(const std::string &hex)
{
    std::string bytes;

    for (size_t at = 0; at < hex.size(); at += 2)
        bytes += static_cast<char>(std::stoi(hex.substr(at, 2), nullptr, 16));
    return bytes;
}

TEST(event_values, are_shown_as_windows_shows_them)
{
    for (const row &row : s_rows) {
        const std::string bytes = bytes_of(row.hex);
        std::wstring text;

        evtx_append_value(row.type, reinterpret_cast<const uint8_t *>(bytes.data()), bytes.size(),
                          &text);
        EXPECT_EQ(row.text, text_narrow(text)) << static_cast<int>(row.type) << " " << row.hex;
    }
}

TEST(event_values, elements_of_arrays_are_strings)
{
    const std::string texts("a\0\0\0\0\0b\0", 8), numbers("\1\0\xff\xff", 4);
    event_strings strings, integers;

    evtx_add_array(EVTX_STRING, reinterpret_cast<const uint8_t *>(texts.data()), texts.size(),
                   &strings);
    evtx_add_array(EVTX_INT16, reinterpret_cast<const uint8_t *>(numbers.data()), numbers.size(),
                   &integers);
    EXPECT_EQ(3u, strings.count());
    EXPECT_EQ(L"b", strings.at(2));
    EXPECT_EQ(2u, integers.count());
    EXPECT_EQ(L"-1", integers.at(1));
}
} // namespace
