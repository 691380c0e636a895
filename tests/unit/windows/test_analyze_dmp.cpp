/* The analysis of a dump: what the engine is asked and gets back, and the modules cut from what it
 * prints. */
#include "analyze_dmp.h"

#include "proc_address.h"
#include "status_check.h"
#include "unit_support.h"
#include "win_event_parse.h"

#include <cstring>

#include <initguid.h>
#include <dbgeng.h>
#include <gtest/gtest.h>

#include <oxni/base/timer.h>

static constexpr wchar_t DUMP[] = L"C:\\d.dmp";
static constexpr char STACK[] = "Call Site\nnt+0x107\n";

/* Slot of the client's function, as the debugger's SDK publishes it, and how many are copied. */
static constexpr int SET_OUTPUT_CALLBACKS = 34;
static constexpr int WATCHED_SLOTS = 70;

typedef HRESULT(WINAPI *create_fn)(REFIID iid, void **client);
typedef HRESULT(STDMETHODCALLTYPE *set_callbacks_fn)(IDebugClient *, IDebugOutputCallbacks *);

static const wchar_t *s_missing_module; /* that cannot be loaded */
static void *s_watched[WATCHED_SLOTS];  /* the client's functions, one of them of the test */
static create_fn s_create;              /* the engine's own, as is the next */
static set_callbacks_fn s_set_callbacks;
static bool s_keep_callbacks;
static IDebugOutputCallbacks *s_callbacks; /* with a reference of the test's own, if kept */

static HRESULT STDMETHODCALLTYPE set_callbacks(IDebugClient *client,
                                               IDebugOutputCallbacks *callbacks)
{
    if (callbacks != nullptr && s_keep_callbacks) {
        s_callbacks = callbacks;
        callbacks->AddRef();
    }
    return s_set_callbacks(client, callbacks);
}

static HRESULT WINAPI create_watched(REFIID iid, void **client)
{
    const HRESULT hr = s_create(iid, client);

    if (hr == S_OK) {
        void ***object = static_cast<void ***>(*client);
        memcpy(s_watched, *object, sizeof(s_watched));
        s_set_callbacks = reinterpret_cast<set_callbacks_fn>(s_watched[SET_OUTPUT_CALLBACKS]);
        s_watched[SET_OUTPUT_CALLBACKS] = reinterpret_cast<void *>(set_callbacks);
        *object = s_watched;
    }
    return hr;
}

static HMODULE WINAPI load(const wchar_t *name)
{
    if (s_missing_module != nullptr && wcscmp(name, s_missing_module) == 0)
        return nullptr;
    return LoadLibraryExW(name, nullptr, 0);
}

static FARPROC WINAPI no_address(HMODULE, const char *)
{
    return nullptr;
}

static FARPROC WINAPI watched_address(HMODULE, const char *)
{
    return reinterpret_cast<FARPROC>(reinterpret_cast<void *>(create_watched));
}

/* Before all tests: the engine is searched for only until it is found. */
struct engine_search : public testing::Environment {
    void SetUp() override
    {
        import_patch load_patch("LoadLibraryW", load);
        std::string text = "untouched";

        engine_play(DUMP, STACK);
        s_create = proc_address<create_fn>(GetModuleHandleW(L"dbgeng.dll"), "DebugCreate");
        for (const wchar_t *missing : {L"dbghelp.dll", L"dbgeng.dll", L""}) {
            import_patch address_patch("GetProcAddress", no_address);
            s_missing_module = missing;
            EXPECT_FALSE(get_dmp_info(DUMP, 1, &text));
            EXPECT_EQ(text, "untouched");
        }
        import_patch address_patch("GetProcAddress", watched_address);
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
        std::string text = "untouched";
        engine_play(DUMP, STACK, failing, S_FALSE);
        s_callbacks = nullptr;
        s_keep_callbacks = true;
        EXPECT_EQ(get_dmp_info(DUMP, 1, &text), failing == nullptr);
        EXPECT_EQ(text, failing == nullptr ? STACK : "untouched");
        EXPECT_EQ(engine_left(), 0u);
        s_keep_callbacks = false;
        if (s_callbacks != nullptr) {
            EXPECT_EQ(s_callbacks->Release(), 0u);
        }
    }
}

TEST(test_get_dmp_info, callbacks_answer_for_their_two_interfaces)
{
    std::string text;
    void *out = &text;

    engine_play(DUMP, STACK);
    s_keep_callbacks = true;
    ASSERT_TRUE(get_dmp_info(DUMP, 1, &text));
    s_keep_callbacks = false;
    EXPECT_EQ(s_callbacks->QueryInterface(IID_IDebugClient, &out), E_NOINTERFACE);
    EXPECT_EQ(out, nullptr);
    for (const IID *iid : {&IID_IUnknown, &IID_IDebugOutputCallbacks}) {
        EXPECT_EQ(s_callbacks->QueryInterface(*iid, &out), S_OK);
        EXPECT_EQ(out, s_callbacks);
        EXPECT_EQ(s_callbacks->Release(), 1u);
    }
    EXPECT_EQ(s_callbacks->Release(), 0u);
}

/* A text that lost a part is no text: the rest of a line would name another module. */
TEST(test_get_dmp_info, no_memory_for_the_text)
{
    static const char stack[] = "Call Site\na_driver_with_a_long_name+0x107\n";
    bool reached = true, stopped = false; /* an exception, before it reached the engine */

    engine_play(DUMP, stack);
    for (uint64_t nth = 1; nth < 100 && reached; nth++) {
        std::string text = "untouched";
        bool taken;
        log_forget();
        {
            failing_allocations failing(nth, false);
            taken = get_dmp_info(DUMP, 1, &text);
            reached = failing.reached();
        }
        EXPECT_EQ(taken, !reached);
        EXPECT_EQ(text, taken ? stack : "untouched");
        EXPECT_EQ(log_contains("[error]"), reached) << "allocation " << nth;
        stopped |= log_contains("Output: exception ");
        EXPECT_EQ(engine_left(), 0u);
    }
    EXPECT_FALSE(reached);
    EXPECT_TRUE(stopped);
}

/* An engine of this test, which records its calls. */
static constexpr int ENGINE_SLOTS = 128;

struct recording_object {
    void **functions;
    const char *name;
};

static void *s_client_functions[ENGINE_SLOTS], *s_control_functions[ENGINE_SLOTS];
static recording_object s_client = {s_client_functions, "client"};
static recording_object s_control = {s_control_functions, "control"};
static std::string s_asked;

static void note(const std::string &word)
{
    s_asked += word + "; ";
}

static HRESULT STDMETHODCALLTYPE note_query(recording_object *, REFIID iid, void **out)
{
    const bool control = IsEqualIID(iid, IID_IDebugControl);

    note(control ? "query control" : IsEqualIID(iid, IID_IDebugClient4) ? "query client" : "query");
    *out = control ? &s_control : &s_client;
    return S_OK;
}

static ULONG STDMETHODCALLTYPE note_release(recording_object *object)
{
    note(std::string("release ") + object->name);
    return 1;
}

/* The engine keeps no reference of its own, so releasing the callbacks frees them. */
static HRESULT STDMETHODCALLTYPE note_callbacks(recording_object *, IDebugOutputCallbacks *given)
{
    note(given != nullptr ? "callbacks" : "no callbacks");
    s_callbacks = given;
    return S_OK;
}

static HRESULT STDMETHODCALLTYPE note_open(recording_object *, const wchar_t *path, ULONG64 handle)
{
    note("open " + std::to_string(wcscmp(path, DUMP)) + " " + std::to_string(handle));
    return S_OK;
}

static HRESULT STDMETHODCALLTYPE note_wait(recording_object *, ULONG flags, ULONG timeout)
{
    note("wait " + std::to_string(flags) + " " + std::to_string(timeout));
    return S_OK;
}

static HRESULT STDMETHODCALLTYPE note_frames(recording_object *, ULONG64 frame, ULONG64 stack,
                                             ULONG64 instruction, DEBUG_STACK_FRAME *frames,
                                             ULONG size, ULONG *filled)
{
    note("frames " + std::to_string(frame + stack + instruction) + " of " + std::to_string(size));
    EXPECT_EQ(frames[size].InstructionOffset, 0u); /* the array has one more element, zeroed */
    *filled = 7;
    return S_OK;
}

static HRESULT STDMETHODCALLTYPE note_print(recording_object *, ULONG control, DEBUG_STACK_FRAME *,
                                            ULONG frames, ULONG flags)
{
    note("print " + std::to_string(frames) + " to " + std::to_string(control) + " as " +
         std::to_string(flags));
    return s_callbacks->Output(DEBUG_OUTPUT_NORMAL, STACK);
}

static HRESULT STDMETHODCALLTYPE note_end(recording_object *, ULONG flags)
{
    note("end " + std::to_string(flags));
    return S_OK;
}

static HRESULT WINAPI note_create(REFIID iid, void **client)
{
    note(IsEqualIID(iid, IID_IDebugClient) ? "create client" : "create");
    s_client.functions = s_client_functions;
    *client = &s_client;
    return S_OK;
}

/* Puts a function into the slot of a virtual one. */
template <typename Member, typename Function>
static void put(void **functions, Member member, Function *function)
{
    uintptr_t slot; /* one more than its offset, as this compiler has it */

    memcpy(&slot, &member, sizeof(slot));
    functions[(slot - 1) / sizeof(void *)] = reinterpret_cast<void *>(function);
}

TEST(test_get_dmp_info, what_the_engine_is_asked)
{
    const create_fn engines_own = s_create;
    std::string text;

    put(s_client_functions, &IDebugClient::QueryInterface, note_query);
    put(s_client_functions, &IDebugClient::Release, note_release);
    put(s_client_functions, &IDebugClient::SetOutputCallbacks, note_callbacks);
    put(s_client_functions, &IDebugClient::EndSession, note_end);
    put(s_client_functions, &IDebugClient4::OpenDumpFileWide, note_open);
    put(s_control_functions, &IDebugControl::Release, note_release);
    put(s_control_functions, &IDebugControl::WaitForEvent, note_wait);
    put(s_control_functions, &IDebugControl::GetStackTrace, note_frames);
    put(s_control_functions, &IDebugControl::OutputStackTrace, note_print);
    s_create = note_create;
    s_asked.clear();
    EXPECT_TRUE(get_dmp_info(DUMP, 300001, &text));
    s_create = engines_own;
    EXPECT_EQ(text, STACK);
    EXPECT_EQ(s_asked, "create client; query control; callbacks; query client; open 0 0; "
                       "release client; wait 0 300001; frames 0 of 99; print 7 to 1 as 144; "
                       "release control; no callbacks; end 0; release client; ");
}

static oxni_timer_fn s_poll;
static void *s_poll_argument;

static uint64_t keep_poll(uint32_t, oxni_timer_fn poll, void *argument)
{
    s_poll = poll;
    s_poll_argument = argument;
    return 1;
}

static int ignore_verdict(int32_t, const crash_module_set &, const std::string &,
                          const event_info &, void *)
{
    return 0;
}

/* A check waits at most five minutes for the engine. */
TEST(test_get_dmp_info, time_of_a_check)
{
    const create_fn engines_own = s_create;
    import_patch timer("oxni_timer_start", keep_poll);
    system_log log(event_record(1001, L"BugCheck"));
    listed_file dump(L"a.dmp", INT64_MAX / 2);

    registry_set(L"SYSTEM\\CurrentControlSet\\Services\\load_driver", L"TimerMaxCount", REG_SZ,
                 wide_bytes(L"0"));
    s_create = note_create;
    s_asked.clear();
    EXPECT_EQ(start_bypass_status_check(ignore_verdict, nullptr), 1);
    s_poll(nullptr, s_poll_argument);
    s_create = engines_own;
    EXPECT_NE(s_asked.find("wait 0 300000; "), std::string::npos) << s_asked;
}

TEST(test_analyze_dmp_file, no_path)
{
    crash_module_set modules = {"before"};

    EXPECT_FALSE(analyze_dmp_file(nullptr, 1, &modules));
    EXPECT_FALSE(analyze_dmp_file(L"", 1, &modules));
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
}
