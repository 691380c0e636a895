/* The analysis of a dump: the search for the engine, what is given back to it, and the modules cut
 * from what it prints. dump_analysis.json has the calls of the engine. */
#include "dbgeng/engine_methods.h"

#include "analyze_dmp.h"

#include "proc_address.h"
#include "unit_support.h"

#include <gtest/gtest.h>

static constexpr wchar_t DUMP[] = L"C:\\d.dmp";
static constexpr char STACK[] = "Call Site\nnt+0x107\n";

typedef HRESULT(WINAPI *create_fn)(REFIID iid, void **client);

static const wchar_t *s_missing_module; /* that cannot be loaded */
static create_fn s_create;              /* the engine's own, but for one test */

/* Before all tests: the engine is searched for only until it is found. */
struct engine_search : public testing::Environment {
    void SetUp() override
    {
        const import_patch load("LoadLibraryW", [](const wchar_t *name) -> HMODULE {
            const bool missing = s_missing_module != nullptr && wcscmp(name, s_missing_module) == 0;
            return missing ? nullptr : LoadLibraryExW(name, nullptr, 0);
        });
        std::string text = "untouched";

        engine_play(DUMP, STACK);
        s_create = proc_address<create_fn>(GetModuleHandleW(L"dbgeng.dll"), "DebugCreate");
        for (const wchar_t *missing : {L"dbghelp.dll", L"dbgeng.dll", L""}) {
            const import_patch address("GetProcAddress");
            s_missing_module = missing;
            EXPECT_FALSE(get_dmp_info(DUMP, 1, &text));
            EXPECT_EQ(text, "untouched");
        }
        const import_patch address("GetProcAddress", [](HMODULE, const char *) {
            const create_fn create = [](REFIID iid, void **client) {
                return s_create(iid, client);
            };
            return reinterpret_cast<void *>(create);
        });
        EXPECT_TRUE(get_dmp_info(DUMP, 1, &text));
        EXPECT_EQ(text, STACK);
    }
};
[[maybe_unused]] static testing::Environment *const s_search =
    testing::AddGlobalTestEnvironment(new engine_search);

/* Whichever call fails, even with a code that is no error, everything is given back. */
TEST(test_get_dmp_info, references)
{
    for (const char *failing :
         {"DebugCreate", "QueryInterface", "SetOutputCallbacks", "OpenDumpFileWide", "WaitForEvent",
          "GetStackTrace", "OutputStackTrace", static_cast<const char *>(nullptr)}) {
        SCOPED_TRACE(failing == nullptr ? "none" : failing);
        const uint64_t blocks = live_blocks();
        std::string text = "untouched";
        engine_play(DUMP, STACK, failing, S_FALSE);
        EXPECT_EQ(get_dmp_info(DUMP, 1, &text), failing == nullptr);
        EXPECT_EQ(text, failing == nullptr ? STACK : "untouched");
        text = std::string();
        EXPECT_EQ(engine_left(), 0u);
        EXPECT_EQ(live_blocks(), blocks);
    }
    std::string text, long_stack;
    for (int line = 0; line < 2000; line++)
        long_stack += std::string(49, 'x') + "\n";
    engine_play(DUMP, (STACK + long_stack).c_str());
    EXPECT_TRUE(get_dmp_info(DUMP, 1, &text));
    EXPECT_EQ(text, STACK + long_stack);
}

/* A client that keeps the callbacks, and opens no dump by a wide path. */
static struct keeping_client {
    /* The control, of which only the release is called. */
    HRESULT query_interface(REFIID iid, void **out)
    {
        *out = IsEqualIID(iid, IID_IDebugControl) ? &face : nullptr;
        return *out != nullptr ? S_OK : E_NOINTERFACE;
    }
    ULONG add_ref()
    {
        return 1;
    }
    ULONG release()
    {
        return 1;
    }
    HRESULT set_output_callbacks(IDebugOutputCallbacks *given)
    {
        if (given != nullptr) {
            callbacks = given;
            given->lpVtbl->AddRef(given);
        }
        return result;
    }

    HRESULT result; /* of setting the callbacks */
    IDebugOutputCallbacks *callbacks;
    engine_face<IDebugClient4, keeping_client> face;
} s_client;

TEST(test_get_dmp_info, callbacks_answer_for_their_two_interfaces)
{
    static IDebugClient4Vtbl methods = engine_methods<IDebugClient4Vtbl, keeping_client>();
    const create_fn engines_own = s_create;
    std::string text;
    void *out = &text;

    engine_put<&keeping_client::set_output_callbacks, keeping_client>(&methods.SetOutputCallbacks);
    s_client.face = {{&methods}, &s_client};
    s_create = [](REFIID, void **client) -> HRESULT {
        *client = &s_client.face;
        return S_OK;
    };
    s_client.result = S_OK;
    log_forget();
    EXPECT_FALSE(get_dmp_info(DUMP, 1, &text));
    EXPECT_TRUE(log_contains("OpenDumpFileWide failed with hr = 0x80004002. "));
    s_client.callbacks->lpVtbl->Release(s_client.callbacks);
    s_client.result = E_FAIL;
    EXPECT_FALSE(get_dmp_info(DUMP, 1, &text));
    s_create = engines_own;
    ASSERT_NE(s_client.callbacks, nullptr);
    IDebugOutputCallbacks *kept = s_client.callbacks;
    EXPECT_EQ(kept->lpVtbl->QueryInterface(kept, IID_IDebugClient, &out), E_NOINTERFACE);
    EXPECT_EQ(out, nullptr);
    for (const IID *iid : {&IID_IUnknown, &IID_IDebugOutputCallbacks}) {
        EXPECT_EQ(kept->lpVtbl->QueryInterface(kept, *iid, &out), S_OK);
        EXPECT_EQ(out, kept);
        EXPECT_EQ(kept->lpVtbl->Release(kept), 1u);
    }
    EXPECT_EQ(kept->lpVtbl->Output(kept, DEBUG_OUTPUT_NORMAL, STACK), S_OK);
    EXPECT_EQ(kept->lpVtbl->Release(kept), 0u);
}

/* A text that lost a part is no text: the rest of a line would name another module. */
TEST(test_get_dmp_info, no_memory_for_the_text)
{
    static const char stack[] = "Call Site\na_driver_with_a_long_name+0x107\nnt+1\n";
    std::string text = "untouched";
    bool taken, stopped = false; /* an exception, before it reached the engine */

    engine_play(DUMP, stack);
    log_forget();
    each_allocation_fails([&] { taken = get_dmp_info(DUMP, 1, &text); },
                          [&](bool failed, uint64_t) {
                              EXPECT_EQ(taken, !failed);
                              EXPECT_EQ(text, taken ? stack : "untouched");
                              EXPECT_EQ(log_contains("[error]"), failed);
                              stopped |= log_contains("Output: exception ");
                              EXPECT_EQ(engine_left(), 0u);
                              text = std::string("untouched");
                              log_forget();
                          },
                          while_malloc_failing);
    EXPECT_TRUE(stopped);
}

TEST(test_analyze_dmp_file, no_path)
{
    crash_module_set modules = {"before"};

    EXPECT_FALSE(analyze_dmp_file(nullptr, 1, &modules));
    EXPECT_FALSE(analyze_dmp_file(L"\0not read", 1, &modules));
    EXPECT_EQ(modules, crash_module_set{"before"});
}

TEST(test_get_module_set_from_dmp_info, texts)
{
    /* clang-format off */
    static const struct {
        const char *text;
        crash_module_set modules; /* none: the result is false */
    } s_rows[] = {
        {"early!x+0x1\nRetAddr : Call Site\nnt!KeBugCheckEx+0x107\nlate+0x2\n", {"late", "nt"}},
        {"a!Call Site\nb+1\n", {"b"}}, /* the marker's own line is no frame */
        {"Call Site\nx!Call Site\ny!Stack unwind\n", {"x", "y"}},
        {"*** Stack unwind information not available\ndrv+0x10", {"drv"}},
        {"Call Site\na+b!c\na!b!c\nd+e+f\n", {"a", "a+b", "d"}},
        {"Call Site\n  drv +0x1\r\n!x\n\nplain\nZ+1\n", {"", "  drv ", "Z"}},
        {"nt!KeBugCheckEx+0x107\n", {}},
        {"call site\nCall Sit\nStack unwin\nnt+1\n", {}},
        {"nt+1\nCall Site", {}},
        {"Call Site\nNT+1\nnt+1\n", {"NT", "nt"}},
        {"Call Site\n00000000`00000000\n", {}},
        {"", {}},
    };
    /* clang-format on */

    for (const auto &row : s_rows) {
        SCOPED_TRACE(row.text);
        crash_module_set modules = {"left over"};
        EXPECT_EQ(get_module_set_from_dmp_info(row.text, &modules), !row.modules.empty());
        EXPECT_EQ(modules, row.modules);
    }
    std::string text = "Call Site\n";
    crash_module_set modules;
    for (int line = 0; line < 300; line++)
        text += std::to_string(line) + "+1\n";
    EXPECT_TRUE(get_module_set_from_dmp_info(text, &modules));
    EXPECT_EQ(modules.size(), 300u); /* however many lines there are */
}
