/* What a script changes in the engine, and what the engine tells about dumps that it refuses. */
#include "engine_fixture.h"

#define DUMP L"C:\\Windows\\MEMORY.DMP"

static struct engine_script empty_script()
{
    struct engine_script script = {};

    script.struct_bytes = sizeof script;
    return script;
}

/* What the script's functions saw, and where they lead. */
struct script_calls {
    std::wstring mapped_to;
    HRESULT map_result;
    std::wstring mapped_path;
    std::wstring refused_path;
    HRESULT refused_result;
    std::string reason;
};

static HRESULT map_path(const wchar_t *path, wchar_t *mapped, size_t chars, void *user)
{
    script_calls *calls = (script_calls *)user;

    calls->mapped_path = path;
    wcsncpy(mapped, calls->mapped_to.c_str(), chars - 1);
    return calls->map_result;
}

static void note_refusal(const wchar_t *path, HRESULT result, const char *reason, void *user)
{
    script_calls *calls = (script_calls *)user;

    calls->refused_path = path;
    calls->refused_result = result;
    calls->reason = reason;
}

/* Each call that can be made to fail; the calls before it work, those after it are not reached. */
TEST_F(engine_test, test_faults)
{
    write(dump_build(crashed_model()));
    for (const char *call :
         {"DebugCreate", "QueryInterface", "SetOutputCallbacks", "OpenDumpFileWide", "WaitForEvent",
          "GetStackTrace", "OutputStackTrace"}) {
        const struct engine_script_fault fault = {call, (HRESULT)0x80040005};
        struct engine_script script = empty_script();
        collector output;
        HRESULT result;

        script.faults = &fault;
        script.fault_count = 1;
        ASSERT_EQ(m_set(&script), S_OK) << call;
        result = m_create(IID_IDebugClient4, (void **)&m_client);
        EXPECT_EQ(result != S_OK, strcmp(call, "DebugCreate") == 0) << call;
        if (result == S_OK)
            result = m_client->QueryInterface(IID_IDebugControl, (void **)&m_control);
        EXPECT_EQ(m_control == NULL, result != S_OK) << call;
        if (result == S_OK)
            result = play(m_path.c_str(), STACK_FLAGS, 99, &output);
        EXPECT_EQ(result, (HRESULT)0x80040005) << call;
        EXPECT_EQ(output.text, "") << call;
        EXPECT_EQ(output.references, 1u) << call;
        close();
    }
}

/* Callbacks can be taken back whatever fails. */
TEST_F(engine_test, test_fault_spares_clean_up)
{
    const struct engine_script_fault fault = {"SetOutputCallbacks", E_FAIL};
    struct engine_script script = empty_script();
    collector output;

    script.faults = &fault;
    script.fault_count = 1;
    create();
    ASSERT_EQ(m_client->SetOutputCallbacks(&output), S_OK);
    ASSERT_EQ(m_set(&script), S_OK);
    EXPECT_EQ(m_client->SetOutputCallbacks(&output), E_FAIL);
    EXPECT_EQ(m_client->SetOutputCallbacks(NULL), S_OK);
    EXPECT_EQ(output.references, 1u);
}

TEST_F(engine_test, test_scripted_stack)
{
    static const char text[] = "before!it\nStack unwind\nnt!A+0x1\n\nlast line";
    const struct engine_script_stack stacks[] = {
        {L"C:\\other.dmp", "x" },
        {DUMP,             text},
        {L"C:\\empty.dmp", ""  },
    };
    struct engine_script script = empty_script();
    collector output;
    collector nothing;

    script.stacks = stacks;
    script.stack_count = 3;
    create();
    ASSERT_EQ(m_set(&script), S_OK);
    EXPECT_EQ(play(L"c:\\WINDOWS\\Memory.dmp", STACK_FLAGS, 99, &output), S_OK);
    EXPECT_EQ(output.text, text);
    EXPECT_EQ(output.pieces, 5);
    EXPECT_EQ(m_filled, 1u);
    EXPECT_EQ(play(L"C:\\empty.dmp", STACK_FLAGS, 99, &nothing), S_OK);
    EXPECT_EQ(nothing.text, "");
    EXPECT_EQ(play(L"C:\\Windows\\MEMORY.DM", STACK_FLAGS, 99, &nothing),
              HRESULT_FROM_WIN32(ERROR_FILE_NOT_FOUND));
    /* A dump is read again after one with a scripted stack. */
    write(dump_build(crashed_model()));
    EXPECT_EQ(play(m_path.c_str(), STACK_FLAGS, 99, &nothing), S_OK);
    EXPECT_EQ(m_filled, 3u);
}

/* Nothing of the dump before it shows in a scripted one. */
TEST_F(engine_test, test_scripted_stack_after_dump)
{
    const struct engine_script_stack stack = {DUMP, "x"};
    struct engine_script script = empty_script();
    DEBUG_STACK_FRAME frame;
    collector output;

    script.stacks = &stack;
    script.stack_count = 1;
    write(dump_build(crashed_model()));
    create();
    ASSERT_EQ(m_set(&script), S_OK);
    ASSERT_EQ(play(m_path.c_str(), STACK_FLAGS, 99, &output), S_OK);
    ASSERT_EQ(m_client->OpenDumpFileWide(DUMP, 0), S_OK);
    ASSERT_EQ(m_control->WaitForEvent(0, 0), S_OK);
    ASSERT_EQ(m_control->GetStackTrace(0, 0, 0, &frame, 1, &m_filled), S_OK);
    EXPECT_EQ(m_filled, 1u);
    EXPECT_EQ(frame.InstructionOffset, 0u);
}

/* The tables of a script may go as soon as it is set. */
TEST_F(engine_test, test_script_is_copied)
{
    collector output;

    {
        std::wstring path = L"C:\\a.dmp";
        std::string text = "copied";
        const struct engine_script_stack stack = {path.c_str(), text.c_str()};
        struct engine_script script = empty_script();

        script.stacks = &stack;
        script.stack_count = 1;
        ASSERT_EQ(m_set(&script), S_OK);
        path.assign(path.size(), L'x');
        text.assign(text.size(), 'x');
    }
    create();
    EXPECT_EQ(play(L"C:\\a.dmp", STACK_FLAGS, 99, &output), S_OK);
    EXPECT_EQ(output.text, "copied");
}

TEST_F(engine_test, test_mapped_path)
{
    script_calls calls = {m_path, S_OK, L"", L"", S_OK, ""};
    struct engine_script script = empty_script();
    collector output;

    script.map = map_path;
    script.refused = note_refusal;
    script.user = &calls;
    write(dump_build(crashed_model()));
    create();
    ASSERT_EQ(m_set(&script), S_OK);
    EXPECT_EQ(play(DUMP, STACK_FLAGS, 99, &output), S_OK);
    EXPECT_EQ(calls.mapped_path, DUMP);
    EXPECT_EQ(calls.reason, "");
    calls.map_result = HRESULT_FROM_WIN32(ERROR_ACCESS_DENIED);
    EXPECT_EQ(play(DUMP, STACK_FLAGS, 99, &output), HRESULT_FROM_WIN32(ERROR_ACCESS_DENIED));
    EXPECT_EQ(calls.refused_path, DUMP);
    EXPECT_EQ(calls.refused_result, HRESULT_FROM_WIN32(ERROR_ACCESS_DENIED));
}

/* place in a dump, what is put there, bytes left of the dump (0: all), error, part of the reason */
static const struct refusal_row {
    const char *row;
    uint64_t place;
    uint32_t value;
    size_t left;
    DWORD error;
    const char *reason;
} s_refusal_rows[] = {
    {"another file", 0,                  0,          0,      ERROR_BAD_FORMAT,    "no dump"},
    {"a process",    0,                  0x504D444D, 0,      ERROR_NOT_SUPPORTED, "process"},
    {"32 bits",      4,                  0x504D5544, 0,      ERROR_NOT_SUPPORTED, "32-bit" },
    {"Arm64",        0x30,               0xAA64,     0,      ERROR_NOT_SUPPORTED, "0xaa64" },
    {"unknown kind", DUMP_KIND,          3,          0,      ERROR_NOT_SUPPORTED, "type 3" },
    {"no stack",     DUMP_TRIAGE + 0x28, UINT32_MAX, 0,      ERROR_FILE_CORRUPT,  "stack"  },
    {"no context",   DUMP_TRIAGE + 0x0C, 0,          0,      ERROR_INVALID_DATA,  "context"},
    {"cut off",      0x10,               0,          0x2000, ERROR_HANDLE_EOF,    "8192"   },
    {"one byte",     0x10,               0,          1,      ERROR_HANDLE_EOF,    "cut off"},
};

TEST_F(engine_test, test_refused)
{
    script_calls calls = {L"", S_OK, L"", L"", S_OK, ""};
    struct engine_script script = empty_script();
    collector output;

    script.refused = note_refusal;
    script.user = &calls;
    create();
    ASSERT_EQ(m_set(&script), S_OK);
    for (const refusal_row &row : s_refusal_rows) {
        std::vector<uint8_t> bytes = dump_build(crashed_model());

        dump_put(&bytes, row.place, row.value, 4);
        if (row.left > 0)
            bytes.resize(row.left);
        write(bytes);
        EXPECT_EQ(play(m_path.c_str(), STACK_FLAGS, 99, &output), HRESULT_FROM_WIN32(row.error))
            << row.row << ": " << calls.reason;
        EXPECT_EQ(calls.refused_path, m_path) << row.row;
        EXPECT_EQ(calls.refused_result, HRESULT_FROM_WIN32(row.error)) << row.row;
        EXPECT_NE(calls.reason.find(row.reason), std::string::npos) << calls.reason;
    }
    write({});
    EXPECT_EQ(play(m_path.c_str(), STACK_FLAGS, 99, &output), HRESULT_FROM_WIN32(ERROR_HANDLE_EOF));
    DeleteFileW(m_path.c_str());
    EXPECT_EQ(play(m_path.c_str(), STACK_FLAGS, 99, &output),
              HRESULT_FROM_WIN32(ERROR_FILE_NOT_FOUND));
    EXPECT_EQ(calls.reason, "the file cannot be read, error 2");
    EXPECT_EQ(output.text, "");
}

/* A script that is refused leaves the one before it in force. */
TEST_F(engine_test, test_bad_scripts)
{
    static const struct engine_script_fault unknown[] = {
        {"WaitForEvents", E_FAIL}
    };
    static const struct engine_script_fault success[] = {
        {"WaitForEvent", S_OK}
    };
    static const struct engine_script_fault nameless[] = {
        {NULL, E_FAIL}
    };
    static const struct engine_script_stack no_path[] = {
        {NULL, "x"}
    };
    static const struct engine_script_stack no_text[] = {
        {DUMP, NULL}
    };
    static const struct engine_script_fault create_fails[] = {
        {"DebugCreate", E_FAIL}
    };
    static const struct {
        const char *row;
        size_t less;
        const struct engine_script_fault *faults;
        size_t fault_count;
        const struct engine_script_stack *stacks;
        size_t stack_count;
    } rows[] = {
        {"unknown call",   0, unknown,  1, NULL,    0},
        {"no failure",     0, success,  1, NULL,    0},
        {"nameless call",  0, nameless, 1, NULL,    0},
        {"faults missing", 0, NULL,     1, NULL,    0},
        {"no path",        0, NULL,     0, no_path, 1},
        {"no text",        0, NULL,     0, no_text, 1},
        {"stacks missing", 0, NULL,     0, NULL,    1},
        {"smaller",        8, NULL,     0, NULL,    0},
    };
    struct engine_script script = empty_script();
    void *made = NULL;

    script.faults = create_fails;
    script.fault_count = 1;
    ASSERT_EQ(m_set(&script), S_OK);
    for (const auto &row : rows) {
        script = {sizeof script - row.less,
                  row.faults,
                  row.fault_count,
                  row.stacks,
                  row.stack_count,
                  NULL,
                  NULL,
                  NULL};
        EXPECT_EQ(m_set(&script), E_INVALIDARG) << row.row;
        EXPECT_EQ(m_create(IID_IDebugClient, &made), E_FAIL) << row.row;
    }
    EXPECT_EQ(m_set(NULL), S_OK);
    create();
}
