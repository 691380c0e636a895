/* Patterns and values of expectations. */
#include <gtest/gtest.h>

#include <rapidjson/document.h>

#include "../../platform/liboxnibase/host.h"
#include "base/text.h"
#include "scenario/match.h"

TEST(test_match, json)
{
    static const struct {
        const char *name, *expected, *actual;
        bool fits;
    } rows[] = {
        {"a text fits the digits of a number",     R"("7")",                               "7",                      true },
        {"also inside exactly",                    R"({"exactly": ["7"]})",                "[7]",                    true },
        {"a number does not fit a text",           "7",                                    R"("7")",                 false},
        {"text accepts a text",                    R"({"text": "a*"})",                    R"("abc")",               true },
        {"text rejects a number",                  R"({"text": "7"})",                     "7",                      false},
        {"text rejects another text",              R"({"text": "b"})",                     R"("abc")",               false},
        {"text inside exactly rejects a number",   R"({"exactly": {"a": {"text": "7"}}})",
         R"({"a": 7})",                                                                                              false},
        {"text inside exactly accepts a text",     R"({"exactly": {"a": {"text": "7"}}})",
         R"({"a": "7"})",                                                                                            true },
        {"number accepts a number",                R"({"number": 7})",                     "7",                      true },
        {"number accepts digits by a pattern",     R"({"number": "7*"})",                  "712",                    true },
        {"number rejects a text",                  R"({"number": "7"})",                   R"("7")",                 false},
        {"number rejects another number",          R"({"number": 8})",                     "7",                      false},
        {"text of an object is a member",          R"({"text": "7"})",                     R"({"text": 7, "b": 1})", true },
        {"text beside another member is a member", R"({"text": "7", "b": 1})",             R"("7")",                 false},
        {"an object is expected as a part",        R"({"a": 1})",                          R"({"b": 2, "a": 1})",    true },
        {"exactly wants the same members",         R"({"exactly": {"a": 1}})",             R"({"a": 1, "b": 2})",
         false                                                                                                            },
        {"exactly wants the same order",           R"({"exactly": {"a": 1, "b": 2}})",     R"({"b": 2, "a": 1})",
         false                                                                                                            },
        {"an array has as many elements",          "[1]",                                  "[1, 2]",                 false},
        {"star is a star",                         R"("a{star}b")",                        R"("a*b")",               true },
        {"star is no other character",             R"("a{star}b")",                        R"("axb")",               false},
        {"star beside a pattern",                  R"("{star}*{star}")",                   R"("*any*")",             true },
        {"a pattern fits a star",                  R"("*{star}c")",                        R"("a*b*c")",             true },
        {"a time in seconds",                      R"("{unix:2024-03-07T09:00:00Z}")",     "1709802000",             true },
        {"braces that are no placeholder",         R"("{unix:today}")",                    R"("{unix:today}")",      true },
    };

    for (const auto &row : rows) {
        rapidjson::Document expected, actual;

        expected.Parse(row.expected);
        actual.Parse(row.actual);
        EXPECT_EQ(match_json(expected, actual, "it").empty(), row.fits) << row.name;
    }
}

/* The clocks of this zone go forward on 2024-03-10 at 07:00 UTC. */
TEST(test_match, event_times_have_the_bias_of_now)
{
    static const struct {
        const char *name, *now, *expected;
    } rows[] = {
        {"before the change", "2024-03-10T06:59:00Z", "3/10/2024 01:58:20"},
        {"after the change",  "2024-03-10T07:01:00Z", "3/10/2024 02:58:20"},
    };
    TIME_ZONE_INFORMATION zone = {};

    zone.Bias = 300;
    zone.StandardDate = {0, 11, 0, 1, 2, 0, 0, 0};
    zone.DaylightDate = {0, 3, 0, 2, 2, 0, 0, 0};
    zone.DaylightBias = -60;
    oxnih_clock_set_zone(&zone);
    for (const auto &row : rows) {
        uint64_t now = 0;

        ASSERT_TRUE(time_parse(row.now, &now));
        oxnih_clock_simulate(now, 0);
        EXPECT_EQ(match_expand("{event:2024-03-10T06:58:20Z}"), row.expected) << row.name;
        EXPECT_EQ(match_expand("{local:2024-03-10T06:58:20Z}"), "2024-03-10 01:58:20") << row.name;
    }
    oxnih_clock_set_zone(nullptr);
    oxnih_clock_real(0);
}
