/* The text of values in event records, as the classic event-log interface shows it. */
#include <cstring>

#include <string>

#include <gtest/gtest.h>

#include "base/text.h"
#include "evtx/evtx_values.h"

namespace
{
struct row {
    uint8_t type;
    std::string bytes;
    const char *text;
};

TEST(event_values, are_shown_as_windows_shows_them)
{
    const row rows[] = {
        {EVTX_INT8,                                               "\x80",                                                  "-128"                                                                                  },
        {EVTX_INT16,                                              "\x4c\xff",                                              "-180"                                                                                  },
        {EVTX_INT32,                                              "\x4c\xff\xff\xff",                                      "-180"                                                                                  },
        {EVTX_INT64,                                              std::string("\0\0\0\0\0\0\0\x80",                        8),                                                                                       "-9223372036854775808"},
        {EVTX_UINT32,                                                       "\xff\xff\xff\xff",                                                                                                    "4294967295"                                                                                                                   },
        {EVTX_UINT64,                                                       "\xff\xff\xff\xff\xff\xff\xff\xff",                                                                                                    "18446744073709551615"},
        {EVTX_HEX32,                                                       std::string("\xe7\x03\0\0",                                                                                                     4),                                                                                                                             "0x3e7"},
        {EVTX_SIZE,                                                std::string("\x10\0\0\0\0\0\0\0",                                                                                                       8),                                                           "0x10"},
        {EVTX_BOOLEAN,                                                     std::string("\1\0\0\0",4),                              "true"},
        {EVTX_BINARY,"\x0f\xa0",                                   "0FA0"                                                                                       },
        {EVTX_STRING,                                             std::string("a\0\xac\x20\0\0x\0",                                                                                                              8),                                                                                                                                                              "a\xe2\x82\xac"},
        {EVTX_STRING,                                             "\x3d\xd8\x42\xde",                        "\xf0\x9f\x99\x82"},
        {EVTX_FILETIME,                                                       std::string("\0\0\0\0\0\0\0\0",                                                                                                    8),                                                                                                                              "1601-01-01T00:00:00.000000000Z"},
        {EVTX_FILETIME,                                                       std::string("\x87\x9f\xbd\xdb\x6d\x70\xda\x01",                                                                                                  8),
         "2024-03-07T09:00:10.123456700Z"},
        {EVTX_FILETIME,                       "\xff\xff\xff\xff\xff\xff\xff\x7f",                                                                              "30828-09-14T02:48:05.477580700Z"                            },
        {EVTX_SYSTEMTIME,                                                     std::string("\xe8\7\3\0\4\0\7\0\x09\0\0\0\x0a\0\x05\0",                                                                                 16),
         "2024-03-07T09:00:10.005Z"},
        {EVTX_SID,std::string("\1\1\0\0\0\0\0\5\x12\0\0\0",12),    "S-1-5-18"},
        {EVTX_SID,std::string("\1\2\0\0\0\0\0\5\x12\0\0\0",12),                                                                                                                                                                                 ""},
        {EVTX_INT32,                                                "\xff",                                                                 ""                                                                                                                                                                                                              },
        {0x7f,                                                       "\xff",                                                                                                       ""                                                                                                                                                                                                          },
    };

    for (const row &each : rows) {
        std::wstring text;

        evtx_append_value(each.type, reinterpret_cast<const uint8_t *>(each.bytes.data()),
                          each.bytes.size(), &text);
        EXPECT_EQ(each.text, text_narrow(text)) << static_cast<int>(each.type);
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
