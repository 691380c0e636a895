#include "platform_test.h"

#include <oxni/base/algo.h>
#include <oxni/base/ejs.h>
#include <oxni/base/memory.h>

namespace
{
class ejs : public platform_test
{
  protected:
    static std::string number(size_t value)
    {
        return std::string(reinterpret_cast<const char *>(&value), 4);
    }
    static std::string framed(const std::string &text)
    {
        return "EJS\x1a" + number(1) + number(text.size()) +
               number(oxni_crc32_calc(text.data(), text.size())) + text;
    }
    /* Returns the document read from a file with these bytes, as text; "(none)" for NULL. */
    static std::string read(const std::string &bytes)
    {
        file_write(path("x.ejs"), bytes);
        json_t *document = wdu_json_load_file_ejs(path("x.ejs").c_str());
        char *text = document == nullptr ? nullptr : json_dumps(document, JSON_COMPACT);
        std::string result = text == nullptr ? "(none)" : text;
        oxni_free_(text);
        wdu_json_delete_ejs(document);
        return result;
    }
    static int write(const char *text, const std::string &name)
    {
        return wdu_json_dump_file_ejs(json_of(text), path(name).c_str());
    }
};

const char ONE[] = "{\"z\":1,\"a\":[true,null,\"\xe6\x97\xa5\"],\"data\":{\"k\":-5}}";

TEST_F(ejs, round_trip_keeps_the_order_of_members)
{
    EXPECT_EQ(0, write(ONE, "\xe6\x97\xa5.ejs"));
    EXPECT_EQ(framed(ONE), file_bytes(path("\xe6\x97\xa5.ejs")));
    EXPECT_EQ(ONE, read(framed(ONE)));
    /* A temporary file of an interrupted write affects neither reading nor writing. */
    file_write(path("x.ejs.tmp"), framed("{\"b\":2}").substr(0, 20));
    EXPECT_EQ(ONE, read(framed(ONE)));
    EXPECT_EQ(0, write("{}", "x.ejs"));
    EXPECT_EQ(framed("{}"), file_bytes(path("x.ejs")));
    EXPECT_EQ("(none)", file_bytes(path("x.ejs.tmp")));
}

TEST_F(ejs, a_file_truncated_or_changed_at_any_byte_is_rejected)
{
    const std::string good = framed("{\"start_time\":1768478400}");

    EXPECT_EQ(nullptr, wdu_json_load_file_ejs(path("none/none.ejs").c_str()));
    EXPECT_FALSE(logged("ejs")); /* a missing file is no error */
    for (size_t at = 0; at < good.size(); at++) {
        std::string changed = good;
        changed[at] = static_cast<char>(changed[at] ^ 0x10);
        EXPECT_EQ("(none)", read(good.substr(0, at))) << at;
        EXPECT_EQ("(none)", read(changed)) << at;
    }
    for (const char *said : {"shorter than a header", "begin", "version", "length", "check sum"})
        EXPECT_TRUE(logged(said)) << said;
    EXPECT_EQ("(none)", read(good + " "));
    for (const char *text : {"[1]", "1", "", "{\"a\":", "{\"a\":\"\xff\"}"})
        EXPECT_EQ("(none)", read(framed(text))) << text;
    EXPECT_TRUE(logged("holds no object"));
}

TEST_F(ejs, a_failed_write_keeps_the_old_document)
{
    EXPECT_EQ(0, write("{\"a\":1}", "x.ejs"));
    EXPECT_EQ(-1, write("[]", "x.ejs"));
    EXPECT_EQ(-1, write("{}", "none/x.ejs"));
    json_t *document = json_of("{\"b\":2}");
    oxnih_memory_fail(1, 0);
    EXPECT_EQ(-1, wdu_json_dump_file_ejs(document, path("x.ejs").c_str()));
    oxnih_memory_fail(0, 0);
    std::filesystem::create_directory(path("x.ejs.tmp")); /* blocks the temporary file */
    EXPECT_EQ(-1, write("{\"b\":2}", "x.ejs"));
    std::filesystem::remove(path("x.ejs.tmp"));
    HANDLE held = CreateFileA(path("x.ejs").c_str(), GENERIC_READ, FILE_SHARE_READ, nullptr,
                              OPEN_EXISTING, 0, nullptr);
    EXPECT_EQ(-1, write("{\"b\":2}", "x.ejs"));
    CloseHandle(held);
    EXPECT_EQ(framed("{\"a\":1}"), file_bytes(path("x.ejs")));
    EXPECT_EQ("(none)", file_bytes(path("x.ejs.tmp")));
}

/* The text's buffer grows several times. Whichever allocation fails, no partial document is
 * written. */
TEST_F(ejs, a_failed_allocation_writes_no_partial_document)
{
    std::string text = "{\"a\":1";
    int failed = 0, written = -1;

    for (int i = 0; i < 300; i++)
        text +=
            ",\"" + std::string(static_cast<size_t>(i % 40 + 1), 'k') + std::to_string(i) + "\":1";
    json_t *document = json_of((text + "}").c_str());
    for (uint64_t nth = 1; written != 0; nth++) {
        EXPECT_EQ(0, write("{}", "x.ejs"));
        oxnih_memory_fail(nth, 0);
        written = wdu_json_dump_file_ejs(document, path("x.ejs").c_str());
        oxnih_memory_fail(0, 0);
        failed += written != 0;
        EXPECT_EQ(framed(written == 0 ? text + "}" : "{}"), file_bytes(path("x.ejs"))) << nth;
    }
    EXPECT_LT(3, failed);
    json_decref(document);
}
} // namespace
