#include "platform_test.h"

#include <oxni/base/algo.h>
#include <oxni/base/ejs.h>
#include <oxni/base/path.h>

namespace
{
class ejs : public platform_test
{
  protected:
    static std::string number(uint32_t value)
    {
        return std::string(reinterpret_cast<const char *>(&value), sizeof(value));
    }
    static std::string framed(const std::string &text)
    {
        return "EJS\x1a" + number(1) + number(static_cast<uint32_t>(text.size())) +
               number(oxni_crc32_calc(text.data(), text.size())) + text;
    }
    /* The document that is read from such a file, as text; "(none)" without one. */
    static std::string read(const std::string &bytes)
    {
        file_write(path("x.ejs"), bytes);
        json_t *document = wdu_json_load_file_ejs(path("x.ejs").c_str());
        char *text = document == NULL ? NULL : json_dumps(document, JSON_COMPACT);
        std::string result = text == NULL ? "(none)" : text;
        json_free_t release;
        json_get_alloc_funcs(NULL, &release);
        release(text);
        wdu_json_delete_ejs(document);
        return result;
    }
};

TEST_F(ejs, a_document_comes_back_in_its_order)
{
    const char *const text = "{\"z\":1,\"a\":[true,null,\"\xe6\x97\xa5\"],\"data\":{\"k\":-5}}";
    json_t *document = json_of(text);
    std::string file = path("\xe6\x97\xa5.ejs");

    EXPECT_EQ(0, wdu_json_dump_file_ejs(document, file.c_str()));
    EXPECT_EQ(framed(text), file_bytes(file));
    EXPECT_EQ(text, read(file_bytes(file)));
    EXPECT_EQ(0, wdu_json_dump_file_ejs(json_of("{}"), file.c_str())); /* replaces it */
    EXPECT_EQ(framed("{}"), file_bytes(file));
    EXPECT_EQ("(none)", file_bytes(file + ".tmp"));
    EXPECT_EQ(5,
              -json_integer_value(json_object_get(wdu_json_object_get_ejs(document, "data"), "k")));
    EXPECT_EQ(nullptr, wdu_json_object_get_ejs(document, "none"));
    EXPECT_EQ(1U, document->refcount);
    wdu_json_delete_ejs(NULL);
}

TEST_F(ejs, damaged_files_are_as_none_and_logged)
{
    const std::string good = framed("{\"a\":1}"), text = "{\"a\":1}";
    const struct {
        const char *row;
        std::string bytes;
        const char *said;
    } rows[] = {
        {"empty",                           "",                           "shorter than a header"        },
        {"wrong magic",                     "ejs\x1a" + good.substr(4),   "begin"                        },
        {"later version",                   good.substr(0,                4) + number(2) + good.substr(8), "version"},
        {"too short",                                 good.substr(0,                                                   good.size() - 1),                                     "length"},
        {"too long",                         good + " ",                                                     "length"                                      },
        {"wrong length",                         good.substr(0, 8) + number(6) + good.substr(12),"length"},
        {"wrong sum", good.substr(0,                     12) + number(1) + text,                                                                        "check sum"},
        {"a list",                    framed("[1]"),      "holds no object"},
        {"a number",                          framed("1"),                      "not read"                              },
        {"no text",                        framed(""),                "not read"               },
        {"no JSON",                         framed("{\"a\":"),                    "not read"                         },
        {"not UTF-8",                         framed("{\"a\":\"\xff\"}"),            "not read"             },
        {"plain JSON",                       text + text + text, "begin"          },
    };

    EXPECT_EQ(text, read(good));
    for (const auto &row : rows) {
        EXPECT_EQ("(none)", read(row.bytes)) << row.row;
        EXPECT_NE("", logged(row.said)) << row.row;
    }
}

TEST_F(ejs, a_file_torn_or_changed_at_any_byte_is_none)
{
    const std::string good = framed("{\"start_time\":1768478400}");

    for (size_t at = 0; at < good.size(); at++) {
        std::string changed = good;
        changed[at] = static_cast<char>(changed[at] ^ 0x10);
        EXPECT_EQ("(none)", read(good.substr(0, at))) << at;
        EXPECT_EQ("(none)", read(changed)) << at;
    }
}

TEST_F(ejs, a_missing_file_is_silent)
{
    EXPECT_EQ(nullptr, wdu_json_load_file_ejs(path("none.ejs").c_str()));
    EXPECT_EQ(nullptr, wdu_json_load_file_ejs(path("none/none.ejs").c_str()));
    EXPECT_EQ("", logged("ejs"));
    EXPECT_EQ(nullptr, wdu_json_load_file_ejs(NULL));
}

TEST_F(ejs, what_cannot_be_written_leaves_the_old_document)
{
    std::string file = path("x.ejs");
    json_t *document = json_of("{\"a\":1}");

    EXPECT_EQ(0, wdu_json_dump_file_ejs(document, file.c_str()));
    EXPECT_EQ(-1, wdu_json_dump_file_ejs(json_of("[]"), file.c_str()));
    EXPECT_EQ(-1, wdu_json_dump_file_ejs(NULL, file.c_str()));
    EXPECT_EQ(-1, wdu_json_dump_file_ejs(document, NULL));
    EXPECT_EQ(-1, wdu_json_dump_file_ejs(document, path("none/x.ejs").c_str()));
    for (uint64_t nth = 1; nth <= 2; nth++) {
        oxnih_memory_fail(nth, 0);
        EXPECT_EQ(-1, wdu_json_dump_file_ejs(document, file.c_str())) << nth;
    }
    oxnih_memory_fail(0, 0);
    HANDLE held =
        CreateFileA(file.c_str(), GENERIC_READ, FILE_SHARE_READ, NULL, OPEN_EXISTING, 0, NULL);
    EXPECT_EQ(-1, wdu_json_dump_file_ejs(json_of("{\"b\":2}"), file.c_str()));
    CloseHandle(held);
    EXPECT_EQ(framed("{\"a\":1}"), file_bytes(file));
    EXPECT_EQ("(none)", file_bytes(file + ".tmp"));
    EXPECT_NE("", logged("not written, error "));
}

TEST_F(ejs, a_stop_while_the_sibling_is_written_leaves_the_old_document)
{
    std::string file = path("x.ejs"), next = framed("{\"b\":2}");

    EXPECT_EQ(0, wdu_json_dump_file_ejs(json_of("{\"a\":1}"), file.c_str()));
    for (size_t written = 0; written <= next.size(); written++) {
        file_write(file + ".tmp", next.substr(0, written));
        json_t *document = wdu_json_load_file_ejs(file.c_str());
        EXPECT_EQ(1, json_integer_value(json_object_get(document, "a"))) << written;
        wdu_json_delete_ejs(document);
    }
    EXPECT_EQ(0, wdu_json_dump_file_ejs(json_of("{\"c\":3}"), file.c_str())); /* over the remains */
    EXPECT_EQ(framed("{\"c\":3}"), file_bytes(file));
}
} // namespace
