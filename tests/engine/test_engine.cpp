/* The engine's DLL as its clients see it: interfaces, order of calls, text, references. */
/* The tables of interfaces are defined here for the whole program. */
#include <windows.h>
#include <initguid.h>
#include <dbgeng.h>

#include "engine_fixture.h"

#define TWO 0xFFFFF80100010001ull

static const char s_plain[] = "one+0x1234\n" UNWIND_NOTE "two+0x1\nnt+0x107\n";
static const char s_named[] = "Call Site\none+0x1234\n" UNWIND_NOTE "two+0x1\nnt+0x107\n";
static const char s_numbered[] = " # Call Site\n"
                                 "00 one+0x1234\n" UNWIND_NOTE "01 two+0x1\n"
                                 "02 nt+0x107\n";
static const char s_addressed[] = "Child-SP          RetAddr           Call Site\n"
                                  "ffff8500`00001000 fffff801`00010001 one+0x1234\n" UNWIND_NOTE
                                  "ffff8500`00001010 fffff800`00000107 two+0x1\n"
                                  "ffff8500`00001028 00000000`00000000 nt+0x107\n";

#define ZERO "00000000`00000000 "
#define X44  "00000000`00000044 "
static const char s_with_arguments[] =
    ": 00000000`00000022 00000000`00000033 fffff800`00000107 " X44 ": one+0x1234\n" UNWIND_NOTE
    ": " X44 ZERO ZERO ZERO ": two+0x1\n"
    ": " ZERO ZERO ZERO ZERO ": nt+0x107\n";

/* flags, the whole text */
static const struct text_row {
    const char *row;
    ULONG flags;
    const char *text;
} s_text_rows[] = {
    {"as the plug-in", STACK_FLAGS,                                            s_named         },
    {"only rows",      0,                                                      s_plain         },
    {"numbers",        DEBUG_STACK_COLUMN_NAMES | DEBUG_STACK_FRAME_NUMBERS,   s_numbered      },
    {"addresses",      DEBUG_STACK_COLUMN_NAMES | DEBUG_STACK_FRAME_ADDRESSES, s_addressed     },
    {"arguments",      DEBUG_STACK_ARGUMENTS,                                  s_with_arguments},
};

TEST_F(engine_test, test_text)
{
    write(dump_build(crashed_model()));
    create();
    for (const text_row &row : s_text_rows) {
        collector output;

        EXPECT_EQ(play(m_path.c_str(), row.flags, 99, &output), S_OK) << row.row;
        EXPECT_EQ(m_filled, 3u) << row.row;
        EXPECT_EQ(output.text, row.text) << row.row;
        EXPECT_GT(output.pieces, 3) << row.row;
        EXPECT_EQ(output.references, 1u) << row.row;
    }
}

TEST_F(engine_test, test_frames_asked)
{
    write(dump_build(crashed_model()));
    create();
    for (const ULONG asked : {1u, 2u, 3u, 99u}) {
        collector output;

        EXPECT_EQ(play(m_path.c_str(), STACK_FLAGS, asked, &output), S_OK);
        EXPECT_EQ(m_filled, asked < 3 ? asked : 3u);
        EXPECT_EQ(output.text.find(UNWIND_NOTE) != std::string::npos, asked > 1);
    }
}

TEST_F(engine_test, test_frames)
{
    DEBUG_STACK_FRAME frames[4];

    write(dump_build(crashed_model()));
    create();
    memset(frames, 0xCC, sizeof frames);
    ASSERT_EQ(m_client->OpenDumpFileWide(m_path.c_str(), 0), S_OK);
    ASSERT_EQ(m_control->WaitForEvent(0, 0), S_OK);
    ASSERT_EQ(m_control->GetStackTrace(0, 0, 0, frames, 4, &m_filled), S_OK);
    ASSERT_EQ(m_filled, 3u);
    EXPECT_EQ(frames[1].InstructionOffset, TWO);
    EXPECT_EQ(frames[1].StackOffset, 0xFFFF850000001010u);
    EXPECT_EQ(frames[1].ReturnOffset, 0xFFFFF80000000107u);
    EXPECT_EQ(frames[1].FrameNumber, 1u);
    EXPECT_EQ(frames[2].ReturnOffset, 0u);
    EXPECT_EQ(frames[3].FrameNumber, 0xCCCCCCCCu);
    /* The number filled may be left out. */
    EXPECT_EQ(m_control->GetStackTrace(0, 0, 0, frames, 4, NULL), S_OK);
}

/* Nothing is put out without a receiver, or for others. */
TEST_F(engine_test, test_output_control)
{
    DEBUG_STACK_FRAME frames[4];
    collector output;

    write(dump_build(crashed_model()));
    create();
    ASSERT_EQ(m_client->OpenDumpFileWide(m_path.c_str(), 0), S_OK);
    ASSERT_EQ(m_control->WaitForEvent(0, 0), S_OK);
    ASSERT_EQ(m_control->GetStackTrace(0, 0, 0, frames, 4, &m_filled), S_OK);
    EXPECT_EQ(m_control->OutputStackTrace(DEBUG_OUTCTL_THIS_CLIENT, frames, m_filled, STACK_FLAGS),
              S_OK);
    ASSERT_EQ(m_client->SetOutputCallbacks(&output), S_OK);
    EXPECT_EQ(m_control->OutputStackTrace(DEBUG_OUTCTL_IGNORE, frames, m_filled, STACK_FLAGS),
              S_OK);
    EXPECT_EQ(m_control->OutputStackTrace(DEBUG_OUTCTL_ALL_OTHER_CLIENTS, frames, 1, STACK_FLAGS),
              S_OK);
    EXPECT_EQ(output.text, "");
    EXPECT_EQ(m_control->OutputStackTrace(DEBUG_OUTCTL_THIS_CLIENT, frames, m_filled, STACK_FLAGS),
              S_OK);
    EXPECT_NE(output.text, "");
    m_client->SetOutputCallbacks(NULL);
}

TEST_F(engine_test, test_order_of_calls)
{
    DEBUG_STACK_FRAME frames[4];

    write(dump_build(crashed_model()));
    create();
    EXPECT_EQ(m_client->EndSession(DEBUG_END_PASSIVE), E_UNEXPECTED);
    EXPECT_EQ(m_control->WaitForEvent(0, 0), E_UNEXPECTED);
    EXPECT_EQ(m_client->OpenDumpFileWide(NULL, 0), E_INVALIDARG);
    ASSERT_EQ(m_client->OpenDumpFileWide(m_path.c_str(), 0), S_OK);
    EXPECT_EQ(m_client->OpenDumpFileWide(m_path.c_str(), 0), E_UNEXPECTED);
    m_filled = 7;
    EXPECT_EQ(m_control->GetStackTrace(0, 0, 0, frames, 4, &m_filled), E_UNEXPECTED);
    EXPECT_EQ(m_filled, 0u);
    EXPECT_EQ(m_control->OutputStackTrace(0, frames, 0, STACK_FLAGS), E_UNEXPECTED);
    EXPECT_EQ(m_control->WaitForEvent(1, 0), E_INVALIDARG);
    EXPECT_EQ(m_control->WaitForEvent(0, 0), S_OK);
    EXPECT_EQ(m_control->WaitForEvent(0, 0), E_UNEXPECTED);
    EXPECT_EQ(m_control->GetStackTrace(0, 0, 0, NULL, 4, &m_filled), E_INVALIDARG);
    EXPECT_EQ(m_control->GetStackTrace(0, 0, 0, frames, 0, &m_filled), E_INVALIDARG);
    EXPECT_EQ(m_control->GetStackTrace(0, 1, 0, frames, 4, &m_filled), E_NOTIMPL);
    EXPECT_EQ(m_control->OutputStackTrace(0, NULL, 1, STACK_FLAGS), E_INVALIDARG);
    EXPECT_EQ(m_client->EndSession(DEBUG_END_DISCONNECT), E_INVALIDARG);
    EXPECT_EQ(m_client->EndSession(DEBUG_END_PASSIVE), S_OK);
    EXPECT_EQ(m_control->GetStackTrace(0, 0, 0, frames, 4, &m_filled), E_UNEXPECTED);
    EXPECT_EQ(m_client->OpenDumpFileWide(m_path.c_str(), 0), S_OK);
}

/* A dump that is open can be deleted, as by a clean-up that runs beside the analysis. */
TEST_F(engine_test, test_file_not_held)
{
    write(dump_build(crashed_model()));
    create();
    ASSERT_EQ(m_client->OpenDumpFileWide(m_path.c_str(), 0), S_OK);
    EXPECT_TRUE(DeleteFileW(m_path.c_str())) << GetLastError();
}

TEST_F(engine_test, test_interfaces)
{
    static const struct {
        const char *row;
        const IID *iid;
        HRESULT result;
    } rows[] = {
        {"IUnknown",        &IID_IUnknown,              S_OK         },
        {"IDebugClient",    &IID_IDebugClient,          S_OK         },
        {"IDebugClient4",   &IID_IDebugClient4,         S_OK         },
        {"IDebugControl",   &IID_IDebugControl,         S_OK         },
        {"IDebugSymbols",   &IID_IDebugSymbols,         E_NOINTERFACE},
        {"IDebugControl3",  &IID_IDebugControl3,        E_NOINTERFACE},
        {"output callback", &IID_IDebugOutputCallbacks, E_NOINTERFACE},
    };

    for (const auto &row : rows) {
        IUnknown *made = (IUnknown *)1;

        EXPECT_EQ(m_create(*row.iid, (void **)&made), row.result) << row.row;
        EXPECT_EQ(made != NULL, row.result == S_OK) << row.row;
        EXPECT_EQ(made != NULL ? made->Release() : 0u, 0u) << row.row;
    }
    EXPECT_EQ(m_create(IID_IDebugClient, NULL), E_INVALIDARG);
}

/* Client and control are faces of one object. */
TEST_F(engine_test, test_identity_and_references)
{
    IUnknown *of_client = NULL;
    IUnknown *of_control = NULL;
    struct engine_counts counts;

    create();
    ASSERT_EQ(m_client->QueryInterface(IID_IUnknown, (void **)&of_client), S_OK);
    ASSERT_EQ(m_control->QueryInterface(IID_IUnknown, (void **)&of_control), S_OK);
    EXPECT_EQ(of_client, of_control);
    m_counts(&counts);
    EXPECT_EQ(counts.objects, 1u);
    EXPECT_EQ(counts.references, 4u);
    EXPECT_EQ(of_client->Release(), 3u);
    EXPECT_EQ(of_control->Release(), 2u);
    EXPECT_EQ(m_client->AddRef(), 3u);
    EXPECT_EQ(m_client->Release(), 2u);
}

/* A client made as the first interface that calls methods of the fourth, as many do. */
TEST_F(engine_test, test_first_client_interface)
{
    collector output;

    ASSERT_EQ(m_create(IID_IDebugClient, (void **)&m_client), S_OK);
    ASSERT_EQ(m_client->QueryInterface(IID_IDebugControl, (void **)&m_control), S_OK);
    EXPECT_EQ(((IDebugClient *)m_client)->SetOutputCallbacks(&output), S_OK);
    EXPECT_EQ(output.references, 2u);
    EXPECT_EQ(((IDebugClient *)m_client)->SetOutputCallbacks(NULL), S_OK);
    write(dump_build(crashed_model()));
    EXPECT_EQ(play(m_path.c_str(), STACK_FLAGS, 99, &output), S_OK);
}

/* The first, some and the last methods of both tables answer, so the tables are whole. */
TEST_F(engine_test, test_methods_that_are_not_there)
{
    ULONG number;

    create();
    EXPECT_EQ(m_client->AttachKernel(0, ""), E_NOTIMPL);
    EXPECT_EQ(m_client->OpenDumpFile("x"), E_NOTIMPL);
    EXPECT_EQ(m_client->GetDumpFileWide(0, NULL, 0, NULL, NULL, NULL), E_NOTIMPL);
    EXPECT_EQ(m_control->GetInterrupt(), E_NOTIMPL);
    EXPECT_EQ(m_control->Output(0, "%d", 1), E_NOTIMPL);
    EXPECT_EQ(m_control->GetNumberProcessors(&number), E_NOTIMPL);
    EXPECT_EQ(m_control->GetLastEventInformation(NULL, NULL, NULL, NULL, 0, NULL, NULL, 0, NULL),
              E_NOTIMPL);
}

TEST_F(engine_test, test_callbacks_references)
{
    collector first;
    collector second;
    struct engine_counts counts;

    create();
    EXPECT_EQ(m_client->SetOutputCallbacks(&first), S_OK);
    EXPECT_EQ(m_client->SetOutputCallbacks(&second), S_OK);
    EXPECT_EQ(first.references, 1u);
    EXPECT_EQ(second.references, 2u);
    EXPECT_EQ(m_client->SetOutputCallbacks(&second), S_OK);
    EXPECT_EQ(second.references, 2u);
    m_counts(&counts);
    EXPECT_EQ(counts.callbacks, 1u);
    /* A client that forgets to take them back gets them back with its last reference. */
    close();
    EXPECT_EQ(second.references, 1u);
}

TEST_F(engine_test, test_real_dump)
{
    const char *folder = getenv("BYPASS_SHARED_DATA");

    if (folder == NULL || folder[0] == '\0')
        GTEST_SKIP() << "BYPASS_SHARED_DATA names no folder with a real dump";
    const std::string path = std::string(folder) + "/triage_x64.dmp";
    collector output;

    create();
    ASSERT_EQ(play(std::wstring(path.begin(), path.end()).c_str(), STACK_FLAGS, 99, &output), S_OK);
    EXPECT_EQ(m_filled, 64u);
    EXPECT_EQ(output.text.compare(0, 24, "Call Site\namdppm+0x334c\n"), 0) << output.text;
    EXPECT_NE(output.text.find("\nWdf01000+0x"), std::string::npos);
    EXPECT_NE(output.text.find("\nnt+0x"), std::string::npos);
}
