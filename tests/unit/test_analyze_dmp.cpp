/* The analysis of a dump: the walk through the engine, and the modules cut from what it prints. */
#include "analyze_dmp.h"

#include "fake_engine.h"
#include "unit_support.h"

#include <gtest/gtest.h>

typedef std::vector<std::string> lines;

/* First in the file, and alone in its process under the test runner: the engine is looked for only
 * until it is found. */
TEST(test_get_dmp_info, engine_is_looked_for_until_found)
{
    /* clang-format off */
    static const struct {
        const char *row;
        bool no_dbghelp, no_dbgeng, no_export;
        lines calls;
    } s_rows[] = {
        {"no dbghelp", true, false, false, {"load dbghelp.dll"}},
        {"no dbgeng", false, true, false,
         {"load dbghelp.dll", "free dbghelp.dll", "load dbgeng.dll"}},
        {"no export", false, false, true,
         {"load dbghelp.dll", "free dbghelp.dll", "load dbgeng.dll", "look up DebugCreate"}},
    };
    /* clang-format on */
    log_capture log;
    std::string text = "untouched";

    if (fake_engine::was_resolved())
        GTEST_SKIP() << "an earlier test of this process has found the engine";
    for (const auto &row : s_rows) {
        SCOPED_TRACE(row.row);
        fake_engine engine;
        engine.dbghelp_missing = row.no_dbghelp;
        engine.dbgeng_missing = row.no_dbgeng;
        engine.export_missing = row.no_export;
        EXPECT_FALSE(get_dmp_info(L"C:\\a.dmp", 1, &text));
        EXPECT_EQ(engine.calls, row.calls);
        EXPECT_EQ(log.take(),
                  lines{"error DebugCreate debug client failed with hr = 0x00000001. "});
    }
    fake_engine engine;
    EXPECT_EQ(text, "untouched");
    EXPECT_TRUE(get_dmp_info(L"C:\\a.dmp", 1, &text));
    EXPECT_EQ(engine.calls[3], "look up DebugCreate");
    engine.calls.clear();
    EXPECT_TRUE(get_dmp_info(L"C:\\a.dmp", 1, &text));
    EXPECT_EQ(engine.calls[0], "create client");
}

/* Everything that is called for a dump, in order; a failing step leaves out the steps behind it
 * and, of the release, what was not made. */
TEST(test_get_dmp_info, calls_and_failures)
{
    const lines release_client = {"reset callbacks", "end session 0", "release client"};
    const lines registered = {"reset callbacks", "callbacks left 0", "end session 0",
                              "release client"};
    /* clang-format off */
    static const struct {
        const char *failing;
        HRESULT failure;
        size_t steps; /* of s_steps that are made */
        const char *message;
    } s_rows[] = {
        {"", S_OK, 9, NULL},
        {"create", E_FAIL, 1, "DebugCreate debug client failed with hr = 0x80004005. "},
        {"create", S_FALSE, 1, "DebugCreate debug client failed with hr = 0x00000001. "},
        {"query control", E_NOINTERFACE, 2,
         "QueryInterface debug control failed with hr = 0x80004002. "},
        {"set callbacks", E_FAIL, 3, "SetOutputCallbacks failed with hr = 0x80004005. "},
        {"query client4", E_NOINTERFACE, 4, "OpenDumpFileWide failed with hr = 0x80004002. "},
        {"query client4", S_FALSE, 4, "OpenDumpFileWide failed with hr = 0x00000001. "},
        {"open", (HRESULT)0x80070002, 6, "OpenDumpFileWide failed with hr = 0x80070002. "},
        {"open", S_FALSE, 6, "OpenDumpFileWide failed with hr = 0x00000001. "},
        {"wait", S_FALSE, 7, "WaitForEvent failed with hr = 0x00000001. "},
        {"get stack", E_FAIL, 8, "GetStackTrace failed with hr = 0x80004005. "},
        {"print stack", E_FAIL, 9, "OutputStackTrace failed with hr = 0x80004005. "},
    };
    /* clang-format on */
    static const lines s_steps = {
        "create client",
        "query control",
        "set callbacks",
        "query client4",
        "open client4 C:\\d.dmp 0",
        "release client4",
        "wait 0 300000",
        "get stack 0 99",
        "print stack 1 1234 2 90",
    };
    log_capture log;

    for (const auto &row : s_rows) {
        SCOPED_TRACE(std::string(row.failing) + " answers " + std::to_string(row.failure));
        fake_engine engine;
        std::string text = "untouched";
        engine.failing_call = row.failing;
        engine.failure = row.failure;
        const bool done = get_dmp_info(L"C:\\d.dmp", 300000, &text);

        lines expected(s_steps.begin(), s_steps.begin() + (ptrdiff_t)row.steps);
        if (row.steps > 2)
            expected.push_back("release control");
        if (row.steps > 3)
            expected.insert(expected.end(), registered.begin(), registered.end());
        else if (row.steps > 1)
            expected.insert(expected.end(), release_client.begin(), release_client.end());
        while (!engine.calls.empty() &&
               (engine.calls[0].substr(0, 4) == "load" || engine.calls[0].substr(0, 4) == "free" ||
                engine.calls[0].substr(0, 4) == "look"))
            engine.calls.erase(engine.calls.begin());
        EXPECT_EQ(engine.calls, expected);
        EXPECT_EQ(done, row.message == NULL);
        EXPECT_EQ(text, row.message == NULL ? "Call Site\nnt!KeBugCheckEx+0x107\n" : "untouched");
        EXPECT_EQ(log.take(),
                  row.message == NULL ? lines{} : lines{std::string("error ") + row.message});
        EXPECT_EQ(engine.client_references, 0);
        EXPECT_EQ(engine.control_references, 0);
    }
}

TEST(test_get_dmp_info, callbacks_answer_for_their_two_interfaces)
{
    fake_engine engine;
    std::string text;

    ASSERT_TRUE(get_dmp_info(L"C:\\d.dmp", 1, &text));
    EXPECT_EQ(
        engine.callback_answers,
        (lines{"unknown 00000000 itself 1", "output 00000000 itself 1", "client 80004002 null 0"}));
}

TEST(test_get_module_set_from_dmp_info, texts)
{
    /* clang-format off */
    static const struct {
        const char *row;
        const char *text;
        crash_module_set modules;
    } s_rows[] = {
        {"frames behind the column names",
         "RetAddr : Call Site\nnt!KeBugCheckEx+0x107\nmydriver+0x1a2b\nnt!KiCopyEnd+0x25\n",
         {"mydriver", "nt"}},
        {"frames behind the note of missing unwind tables",
         "Stack unwind information not available\ndrv+0x10\n", {"drv"}},
        {"a module before the marker is no evidence", "early!x+0x1\nCall Site\nlate!y+0x2\n",
         {"late"}},
        {"the marker's own line is no frame", "a!Call Site\nb+0x1\n", {"b"}},
        {"a second marker is a line like any other", "Call Site\nx!Call Site\ny+1\n", {"x", "y"}},
        {"cut at the bang even behind a plus", "Call Site\na+b!c\n", {"a+b"}},
        {"cut at the first of two", "Call Site\na!b!c\nd+e+f\n", {"a", "d"}},
        {"last line without an end", "Call Site\ndrv+0x1", {"drv"}},
        {"nothing is trimmed", "Call Site\n  drv +0x1\r\nnt+1\r\n", {"  drv ", "nt"}},
        {"nothing before the separator", "Call Site\n!x\n", {""}},
        {"capital letters come first, a prefix before the longer",
         "Call Site\nb+1\nab+1\na+1\nZ+1\n", {"Z", "a", "ab", "b"}},
        {"lines without a separator", "Call Site\n\nplain\ndrv+1\n", {"drv"}},
    };
    /* clang-format on */
    log_capture log;

    for (const auto &row : s_rows) {
        SCOPED_TRACE(row.row);
        crash_module_set modules = {"left over"};
        EXPECT_TRUE(get_module_set_from_dmp_info(row.text, &modules));
        EXPECT_EQ(modules, row.modules);
        EXPECT_EQ(log.take(), (lines{std::string("debug dump info ") + row.text + " ",
                                     "info parse dump info success with module size=" +
                                         std::to_string(row.modules.size()) + " "}));
    }
}

TEST(test_get_module_set_from_dmp_info, texts_without_a_module)
{
    static const struct {
        const char *row;
        const char *text;
    } s_rows[] = {
        {"no marker",               "nt!KeBugCheckEx+0x107\nmydriver+0x1\n"},
        {"marker in other letters", "call site\nnt+1\n"                    },
        {"half a marker",           "Call Sit\nnt+1\nStack unwin\nnt+1\n"  },
        {"marker at the end",       "nt+1\nCall Site\n"                    },
        {"marker and no separator", "Call Site\n00000000`00000000\n"       },
        {"a line end only",         "\n"                                   },
    };
    log_capture log;

    for (const auto &row : s_rows) {
        SCOPED_TRACE(row.row);
        crash_module_set modules = {"left over"};
        EXPECT_FALSE(get_module_set_from_dmp_info(row.text, &modules));
        EXPECT_TRUE(modules.empty());
        EXPECT_EQ(log.take(),
                  (lines{std::string("debug dump info ") + row.text + " ",
                         std::string("warn can not parse dump info[") + row.text + "] "}));
    }
    crash_module_set modules = {"left over"};
    EXPECT_FALSE(get_module_set_from_dmp_info("", &modules));
    EXPECT_TRUE(modules.empty());
    EXPECT_EQ(log.take(), lines{"warn dump info is empty. "});
}

TEST(test_analyze_dmp_file, results)
{
    /* clang-format off */
    static const struct {
        const char *row;
        const wchar_t *path;
        const char *failing;
        const char *output;
        int32_t result;
        crash_module_set modules;
        std::string last_line;
    } s_rows[] = {
        {"modules found", L"C:\\a.dmp", "", "Call Site\ndrv+1\n", 1, {"drv"},
         "info parse dump info success with module size=1 "},
        {"engine fails", L"C:\\a.dmp", "open", "Call Site\ndrv+1\n", 0, {"before"},
         "warn parse dmp info failed. "},
        {"no module", L"C:\\a.dmp", "", "Call Site\n", 0, {},
         "warn get module set from dmp info failed. "},
        {"no output", L"C:\\a.dmp", "", "", 0, {}, "warn get module set from dmp info failed. "},
        {"empty path", L"", "", "Call Site\ndrv+1\n", 0, {"before"},
         "error invalid dmp file path. "},
        {"null path", NULL, "", "Call Site\ndrv+1\n", 0, {"before"},
         "error invalid dmp file path. "},
    };
    /* clang-format on */
    log_capture log;

    for (const auto &row : s_rows) {
        SCOPED_TRACE(row.row);
        fake_engine engine;
        crash_module_set modules = {"before"};
        engine.failing_call = row.failing;
        engine.output = {row.output};
        EXPECT_EQ(analyze_dmp_file(row.path, 1, &modules), row.result);
        EXPECT_EQ(modules, row.modules);
        EXPECT_EQ(log.take().back(), row.last_line);
        EXPECT_EQ(engine.calls.empty(), row.path == NULL || row.path[0] == L'\0');
    }
}
