/* Fixture of the tests of the engine's DLL: output callbacks, a client, and a dump file. */
#ifndef TESTS_ENGINE_FIXTURE_H
#define TESTS_ENGINE_FIXTURE_H

#include "dump_writer.h"
#include "engine_script.h"

#include <fstream>

#include <windows.h>
#include <dbgeng.h>

#include <gtest/gtest.h>

/* The plug-in's flags, and the engine's note between the first frame and the others. */
#define STACK_FLAGS (DEBUG_STACK_COLUMN_NAMES | DEBUG_STACK_PARAMETERS)
#define UNWIND_NOTE "Stack unwind information not available. Following frames may be wrong.\n"

/* Collects the text and counts its pieces. It is on the stack of a test, so references are only
 * counted; 1 is the test's own. */
class collector final : public IDebugOutputCallbacks
{
  public:
    HRESULT STDMETHODCALLTYPE QueryInterface(REFIID, void **) override
    {
        return E_NOINTERFACE;
    }
    ULONG STDMETHODCALLTYPE AddRef() override
    {
        return ++references;
    }
    ULONG STDMETHODCALLTYPE Release() override
    {
        return --references;
    }
    HRESULT STDMETHODCALLTYPE Output(ULONG, PCSTR piece) override
    {
        text += piece;
        pieces++;
        return S_OK;
    }

    ULONG references = 1;
    int pieces = 0;
    std::string text;
};

/* A client and control of the engine's DLL, and a dump file. TearDown checks that the engine holds
 * no objects, references or callbacks. */
class engine_test : public testing::Test
{
  protected:
    void SetUp() override
    {
        wchar_t folder[MAX_PATH];

        m_module = LoadLibraryW(L"dbgeng.dll");
        m_create = (decltype(m_create))(void *)GetProcAddress(m_module, "DebugCreate");
        m_set = (engine_script_set_fn)(void *)GetProcAddress(m_module, "engine_script_set");
        m_counts = (engine_counts_get_fn)(void *)GetProcAddress(m_module, "engine_counts_get");
        ASSERT_TRUE(m_create && m_set && m_counts) << "this is not the engine of this project";
        ASSERT_NE(GetTempPathW(MAX_PATH, folder), 0u);
        m_path = std::wstring(folder) + L"engine_test_" + std::to_wstring(GetCurrentProcessId());
    }

    void TearDown() override
    {
        close();
        m_set(NULL);
        EXPECT_EQ(held(), "0 objects, 0 references, 0 callbacks");
        DeleteFileW(m_path.c_str());
        FreeLibrary(m_module);
    }

    /* Creates m_client and m_control. TearDown releases them. */
    void create()
    {
        ASSERT_EQ(m_create(IID_IDebugClient, (void **)&m_client), S_OK);
        ASSERT_EQ(m_client->QueryInterface(IID_IDebugControl, (void **)&m_control), S_OK);
    }

    void close()
    {
        if (m_control != nullptr)
            m_control->Release();
        if (m_client != nullptr)
            m_client->Release();
        m_control = nullptr;
        m_client = nullptr;
    }

    std::string held()
    {
        struct engine_counts counts;

        m_counts(&counts);
        return std::to_string(counts.objects) + " objects, " + std::to_string(counts.references) +
               " references, " + std::to_string(counts.callbacks) + " callbacks";
    }

    /* Writes a dump to m_path. */
    void write(const std::vector<uint8_t> &bytes)
    {
        std::ofstream file(m_path.c_str(), std::ios::binary);

        file.write((const char *)bytes.data(), (std::streamsize)bytes.size());
        ASSERT_TRUE(file.good());
    }

    /* Opens a dump and outputs its stack, as the plug-in does. Returns the first failure. */
    HRESULT play(const wchar_t *path, ULONG flags, ULONG asked, collector *output)
    {
        HRESULT result = m_client->SetOutputCallbacks(output);

        m_filled = 0;
        if (result == S_OK)
            result = m_client->OpenDumpFileWide(path, 0);
        if (result == S_OK)
            result = m_control->WaitForEvent(0, 300000);
        if (result == S_OK)
            result = m_control->GetStackTrace(0, 0, 0, m_frames, asked, &m_filled);
        if (result == S_OK)
            result =
                m_control->OutputStackTrace(DEBUG_OUTCTL_ALL_CLIENTS, m_frames, m_filled, flags);
        m_client->SetOutputCallbacks(NULL);
        m_client->EndSession(DEBUG_END_PASSIVE);
        return result;
    }

    HMODULE m_module = nullptr;
    HRESULT(WINAPI *m_create)(REFIID iid, void **out) = nullptr;
    engine_script_set_fn m_set = nullptr;
    engine_counts_get_fn m_counts = nullptr;
    IDebugClient4 *m_client = nullptr; /* created as IDebugClient, as many clients do */
    IDebugControl *m_control = nullptr;
    DEBUG_STACK_FRAME m_frames[100] = {};
    ULONG m_filled = 0;
    std::wstring m_path;
};

/* Returns a model with three frames: one+0x1234, two+0x1, nt+0x107. */
inline dump_model crashed_model()
{
    dump_model model;

    model.stack = {0x11, 0xFFFFF80100010001, 0x22, 0x33, 0xFFFFF80000000107, 0x44};
    return model;
}

#endif
