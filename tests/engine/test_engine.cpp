/* Tests of the engine's client interface: interfaces, order of calls, text, references, scripts.
 * Scenarios cover each failing call. This file defines the interface ids for the whole program. */
#include <windows.h>
#include <initguid.h>
#include <dbgeng.h>

#include "engine_fixture.h"

static constexpr wchar_t DUMP[] = L"C:\\Windows\\MEMORY.DMP";

/* Creates a client, and a dump at path_. */
class engine : public engine_test
{
  protected:
    void SetUp() override
    {
        engine_test::SetUp();
        create();
        write(dump_build(crashed_model()));
    }
};

#define ZERO "00000000`00000000 "

/* clang-format off */
/* flags, frames requested, the whole text */
static const struct text_row {
    ULONG flags;
    ULONG asked;
    const char *text;
} s_text_rows[] = {
    {STACK_FLAGS, 99, "Call Site\none+0x1234\n" UNWIND_NOTE "two+0x1\nnt+0x107\n"},
    {0, 1, "one+0x1234\n"},
    {DEBUG_STACK_FRAME_NUMBERS | DEBUG_STACK_FRAME_ADDRESSES | DEBUG_STACK_ARGUMENTS, 2,
     "00 ffff8500`00001000 fffff801`00010001 : 00000000`00000022 00000000`00000033"
     " fffff800`00000107 00000000`00000044 : one+0x1234\n" UNWIND_NOTE
     "01 ffff8500`00001010 " ZERO ": " ZERO ZERO ZERO ZERO ": two+0x1\n"},
};
/* clang-format on */

TEST_F(engine, test_text)
{
    for (const text_row &row : s_text_rows) {
        collector output;

        memset(frames_, 0xCC, sizeof frames_);
        EXPECT_EQ(play(path_.c_str(), row.flags, row.asked, &output), S_OK);
        EXPECT_EQ(filled_, row.asked < 3 ? row.asked : 3u);
        EXPECT_EQ(frames_[filled_].FrameNumber, 0xCCCCCCCCu);
        EXPECT_EQ(output.text, row.text);
        EXPECT_EQ(output.references, 1u);
    }
    EXPECT_EQ(frames_[1].InstructionOffset, 0xFFFFF80100010001u);
}

TEST_F(engine, test_order_of_calls)
{
    EXPECT_EQ(client_->EndSession(DEBUG_END_PASSIVE), E_UNEXPECTED);
    EXPECT_EQ(control_->WaitForEvent(0, 0), E_UNEXPECTED);
    ASSERT_EQ(client_->OpenDumpFileWide(path_.c_str(), 0), S_OK);
    EXPECT_EQ(client_->OpenDumpFileWide(path_.c_str(), 0), E_UNEXPECTED);
    filled_ = 7;
    EXPECT_EQ(control_->GetStackTrace(0, 0, 0, frames_, 4, &filled_), E_UNEXPECTED);
    EXPECT_EQ(filled_, 0u);
    EXPECT_EQ(control_->OutputStackTrace(0, frames_, 0, 0), E_UNEXPECTED);
    EXPECT_EQ(control_->WaitForEvent(1, 0), E_INVALIDARG);
    EXPECT_EQ(control_->WaitForEvent(0, 0), S_OK);
    EXPECT_EQ(control_->WaitForEvent(0, 0), E_UNEXPECTED);
    EXPECT_EQ(control_->GetStackTrace(0, 1, 0, frames_, 4, &filled_), E_NOTIMPL);
    EXPECT_EQ(control_->OutputStackTrace(0, nullptr, 1, 0), E_INVALIDARG);
    EXPECT_EQ(control_->OutputStackTrace(0, frames_, 1, 0), S_OK); /* without callbacks */
    EXPECT_EQ(client_->EndSession(DEBUG_END_PASSIVE), S_OK);
    EXPECT_EQ(control_->GetStackTrace(0, 0, 0, frames_, 4, &filled_), E_UNEXPECTED);
    EXPECT_EQ(client_->OpenDumpFileWide(path_.c_str(), 0), S_OK);
    /* The file is not kept open: a clean-up may delete it during the analysis. */
    EXPECT_TRUE(DeleteFileW(path_.c_str())) << GetLastError();
}

TEST_F(engine, test_interfaces)
{
    static const struct {
        const IID *iid;
        HRESULT result;
    } rows[] = {
        {&IID_IUnknown,      S_OK         },
        {&IID_IDebugClient4, S_OK         },
        {&IID_IDebugControl, S_OK         },
        {&IID_IDebugSymbols, E_NOINTERFACE},
    };

    for (const auto &row : rows) {
        IUnknown *made = reinterpret_cast<IUnknown *>(1);

        EXPECT_EQ(create_(*row.iid, reinterpret_cast<void **>(&made)), row.result) << &row - rows;
        EXPECT_EQ(made != nullptr, row.result == S_OK) << &row - rows;
        EXPECT_EQ(made != nullptr ? made->Release() : 0u, 0u) << &row - rows;
    }
    EXPECT_EQ(create_(IID_IDebugClient, nullptr), E_INVALIDARG);
}

/* Client and control are interfaces of one object; the callbacks have a reference count of their
 * own. */
TEST_F(engine, test_references)
{
    IUnknown *of_client = nullptr;
    IUnknown *of_control = nullptr;
    collector first, second;

    ASSERT_EQ(client_->QueryInterface(IID_IUnknown, reinterpret_cast<void **>(&of_client)), S_OK);
    ASSERT_EQ(control_->QueryInterface(IID_IUnknown, reinterpret_cast<void **>(&of_control)), S_OK);
    EXPECT_EQ(of_client, of_control);
    EXPECT_EQ(client_->SetOutputCallbacks(&first), S_OK);
    EXPECT_EQ(client_->SetOutputCallbacks(&second), S_OK);
    EXPECT_EQ(client_->SetOutputCallbacks(&second), S_OK);
    EXPECT_EQ(first.references, 1u);
    EXPECT_EQ(second.references, 2u);
    EXPECT_EQ(held(), "1 objects, 4 references, 1 callbacks");
    EXPECT_EQ(of_client->Release() + of_control->Release(), 3u + 2u);
    /* Releasing the last reference to a client releases its callbacks. */
    close();
    EXPECT_EQ(second.references, 1u);
}

/* The path that map_path returns, and the arguments that note_refusal received. */
struct script_calls {
    std::wstring mapped_to;
    std::wstring refused_path;
    std::string reason;
};

static HRESULT map_path(const wchar_t *path, wchar_t *mapped, size_t chars, void *user)
{
    EXPECT_STREQ(path, DUMP);
    wcsncpy(mapped, static_cast<script_calls *>(user)->mapped_to.c_str(), chars - 1);
    return S_OK;
}

static void note_refusal(const wchar_t *path, HRESULT, const char *reason, void *user)
{
    static_cast<script_calls *>(user)->refused_path = path;
    static_cast<script_calls *>(user)->reason = reason;
}

/* A scripted stack is copied, found case-insensitively and output line by line. Nothing of the
 * previous dump appears. */
TEST_F(engine, test_scripted_stack)
{
    std::string text = "before!it\nnt!A+0x1\n\nlast line";
    const std::string expected = text;
    const struct engine_script_stack stack = {DUMP, text.c_str()};
    const struct engine_script script = {sizeof script, nullptr, 0,      &stack, 1,
                                         nullptr,       nullptr, nullptr};
    collector before, output;

    ASSERT_EQ(set_(&script), S_OK);
    text.assign(text.size(), 'x');
    EXPECT_EQ(play(path_.c_str(), 0, 99, &before), S_OK);
    EXPECT_EQ(play(L"c:\\WINDOWS\\Memory.dmp", STACK_FLAGS, 99, &output), S_OK);
    EXPECT_EQ(output.text, expected);
    EXPECT_EQ(output.pieces, 4);
    EXPECT_EQ(filled_, 1u);
    EXPECT_EQ(frames_[0].InstructionOffset, 0u);
    EXPECT_EQ(play(L"C:\\Windows\\MEMORY.DM", STACK_FLAGS, 99, &output),
              HRESULT_FROM_WIN32(ERROR_FILE_NOT_FOUND));
    EXPECT_EQ(play(path_.c_str(), 0, 99, &before), S_OK);
    EXPECT_EQ(filled_, 3u);
}

static unsigned s_waited_ms;

/* A wait that runs out may be repeated; the dump is loaded at its own time, and prints once. */
TEST_F(engine, test_loading)
{
    const struct engine_loading slow = {500, "loading\n", [](unsigned ms) { s_waited_ms += ms; },
                                        nullptr};
    const struct engine_loading held = {0, nullptr, nullptr,
                                        [](const wchar_t *) { return E_ACCESSDENIED; }};
    const struct engine_script_stack stack = {DUMP, "nt!A\n"};
    const struct engine_script script = {sizeof script, nullptr, 0,      &stack, 1,
                                         nullptr,       nullptr, nullptr};
    collector output;

    ASSERT_EQ(set_(&script), S_OK);
    loading_(&slow);
    ASSERT_EQ(client_->SetOutputCallbacks(&output), S_OK);
    for (const wchar_t *path : {DUMP, path_.c_str()}) {
        s_waited_ms = 0;
        output.text.clear();
        ASSERT_EQ(client_->OpenDumpFileWide(path, 0), S_OK);
        for (HRESULT result : {S_FALSE, S_FALSE, S_OK}) {
            EXPECT_EQ(control_->GetStackTrace(0, 0, 0, frames_, 1, nullptr), E_UNEXPECTED);
            EXPECT_EQ(control_->WaitForEvent(0, 200), result);
        }
        EXPECT_EQ(s_waited_ms, 500u);
        EXPECT_EQ(output.text, "loading\n");
        EXPECT_EQ(client_->EndSession(DEBUG_END_PASSIVE), S_OK);
    }
    loading_(&held);
    EXPECT_EQ(play(DUMP, STACK_FLAGS, 99, &output), E_ACCESSDENIED);
    loading_(nullptr);
    EXPECT_EQ(play(DUMP, STACK_FLAGS, 99, &output), S_OK);
    EXPECT_EQ(client_->SetOutputCallbacks(nullptr), S_OK);
}

/* offset in the dump, value, bytes of the file, error, part of the reason */
static const struct refusal_row {
    uint64_t place;
    uint32_t value;
    size_t size;
    DWORD error;
    const char *reason;
} s_refusal_rows[] = {
    {0,               0,          0x2400, ERROR_BAD_FORMAT,    "not a dump"},
    {0,               0x504D444D, 0x2400, ERROR_NOT_SUPPORTED, "process"   },
    {4,               0x504D5544, 0x2400, ERROR_NOT_SUPPORTED, "32-bit"    },
    {0x30,            0xAA64,     0x2400, ERROR_NOT_SUPPORTED, "0xaa64"    },
    {DUMP_KIND,       3,          0x2400, ERROR_NOT_SUPPORTED, "type 3"    },
    {DUMP_STACK_AT,   UINT32_MAX, 0x2400, ERROR_FILE_CORRUPT,  "stack"     },
    {DUMP_CONTEXT_AT, 0,          0x2400, ERROR_INVALID_DATA,  "context"   },
    {0x10,            0,          0,      ERROR_HANDLE_EOF,    "truncated" },
};

TEST_F(engine, test_rejected_dumps)
{
    script_calls calls = {path_, L"", ""};
    const struct engine_script script = {sizeof script, nullptr,      0,     nullptr, 0,
                                         map_path,      note_refusal, &calls};
    collector output;

    ASSERT_EQ(set_(&script), S_OK);
    EXPECT_EQ(play(DUMP, STACK_FLAGS, 99, &output), S_OK);
    EXPECT_EQ(calls.reason, "");
    output.text.clear();
    for (const refusal_row &row : s_refusal_rows) {
        std::vector<uint8_t> bytes = dump_build(crashed_model());

        dump_put(&bytes, row.place, row.value, 4);
        bytes.resize(row.size);
        write(bytes);
        EXPECT_EQ(play(DUMP, STACK_FLAGS, 99, &output), HRESULT_FROM_WIN32(row.error));
        EXPECT_EQ(calls.refused_path, DUMP) << row.reason;
        EXPECT_NE(calls.reason.find(row.reason), std::string::npos) << calls.reason;
    }
    DeleteFileW(path_.c_str());
    EXPECT_EQ(play(DUMP, STACK_FLAGS, 99, &output), HRESULT_FROM_WIN32(ERROR_FILE_NOT_FOUND));
    EXPECT_EQ(calls.reason, "the file cannot be read: error 2");
    EXPECT_EQ(output.text, "");
}

/* A rejected script leaves the previous one active. Callbacks can be released even if setting them
 * fails. */
TEST_F(engine, test_rejected_scripts)
{
    const size_t size = sizeof(struct engine_script);
    const struct engine_script_fault fails = {"SetOutputCallbacks", E_FAIL};
    const struct engine_script_fault unknown = {"WaitForEvents", E_FAIL};
    const struct engine_script_fault success = {"WaitForEvent", S_OK};
    const struct engine_script_stack no_text = {DUMP, nullptr};
    const struct engine_script good = {size, &fails, 1, nullptr, 0, nullptr, nullptr, nullptr};
    const struct engine_script bad[] = {
        {size - 8, nullptr,  0, nullptr,  0, nullptr, nullptr, nullptr},
        {size,     nullptr,  1, nullptr,  0, nullptr, nullptr, nullptr},
        {size,     &unknown, 1, nullptr,  0, nullptr, nullptr, nullptr},
        {size,     &success, 1, nullptr,  0, nullptr, nullptr, nullptr},
        {size,     nullptr,  0, nullptr,  1, nullptr, nullptr, nullptr},
        {size,     nullptr,  0, &no_text, 1, nullptr, nullptr, nullptr},
    };
    collector output;

    ASSERT_EQ(client_->SetOutputCallbacks(&output), S_OK);
    ASSERT_EQ(set_(&good), S_OK);
    for (const engine_script &script : bad)
        EXPECT_EQ(set_(&script), E_INVALIDARG) << &script - bad;
    EXPECT_EQ(client_->SetOutputCallbacks(&output), E_FAIL);
    EXPECT_EQ(client_->SetOutputCallbacks(nullptr), S_OK);
    EXPECT_EQ(output.references, 1u);
}
