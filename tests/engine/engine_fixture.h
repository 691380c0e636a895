/* What the tests of dumps share: the reading of one, and a fixture of the engine's DLL with output
 * callbacks, a client, and a dump file. */
#ifndef TESTS_ENGINE_FIXTURE_H
#define TESTS_ENGINE_FIXTURE_H

#include "dbgeng/engine_script.h"
#include "dump_writer/dump_writer.h"
#include "kernel_dump/kernel_dump.h"

#include <fstream>

#include <windows.h>
#include <dbgeng.h>

#include <gtest/gtest.h>

/* The plug-in's flags, and the engine's note between the first frame and the others. */
static constexpr DWORD STACK_FLAGS = DEBUG_STACK_COLUMN_NAMES | DEBUG_STACK_PARAMETERS;
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

        ASSERT_TRUE(create_ && set_ && loading_ && counts_)
            << "this is not the engine of this project";
        ASSERT_NE(GetTempPathW(MAX_PATH, folder), 0u);
        path_ = std::wstring(folder) + L"engine_test_" + std::to_wstring(GetCurrentProcessId());
    }

    void TearDown() override
    {
        close();
        set_(nullptr);
        loading_(nullptr);
        EXPECT_EQ(held(), "0 objects, 0 references, 0 callbacks");
        DeleteFileW(path_.c_str());
        FreeLibrary(module_);
    }

    /* Creates client_ and control_. TearDown releases them. */
    void create()
    {
        ASSERT_EQ(create_(IID_IDebugClient, reinterpret_cast<void **>(&client_)), S_OK);
        ASSERT_EQ(client_->QueryInterface(IID_IDebugControl, reinterpret_cast<void **>(&control_)),
                  S_OK);
    }

    void close()
    {
        if (control_ != nullptr)
            control_->Release();
        if (client_ != nullptr)
            client_->Release();
        control_ = nullptr;
        client_ = nullptr;
    }

    std::string held()
    {
        struct engine_counts counts;

        counts_(&counts);
        return std::to_string(counts.objects) + " objects, " + std::to_string(counts.references) +
               " references, " + std::to_string(counts.callbacks) + " callbacks";
    }

    /* Writes a dump to path_. */
    void write(const std::vector<uint8_t> &bytes)
    {
        std::ofstream file(path_.c_str(), std::ios::binary);

        file.write(reinterpret_cast<const char *>(bytes.data()),
                   static_cast<std::streamsize>(bytes.size()));
        ASSERT_TRUE(file.good());
    }

    /* Opens a dump and outputs its stack, as the plug-in does. Returns the first failure. */
    HRESULT play(const wchar_t *path, ULONG flags, ULONG asked, collector *output)
    {
        HRESULT result = client_->SetOutputCallbacks(output);

        filled_ = 0;
        if (result == S_OK)
            result = client_->OpenDumpFileWide(path, 0);
        if (result == S_OK)
            result = control_->WaitForEvent(0, 300000);
        if (result == S_OK)
            result = control_->GetStackTrace(0, 0, 0, frames_, asked, &filled_);
        if (result == S_OK)
            result = control_->OutputStackTrace(DEBUG_OUTCTL_ALL_CLIENTS, frames_, filled_, flags);
        client_->SetOutputCallbacks(nullptr);
        client_->EndSession(DEBUG_END_PASSIVE);
        return result;
    }

    template <typename Function> Function exported(const char *name)
    {
        return reinterpret_cast<Function>(reinterpret_cast<void *>(GetProcAddress(module_, name)));
    }

    const HMODULE module_ = LoadLibraryW(L"dbgeng.dll");
    const decltype(&DebugCreate) create_ = exported<decltype(&DebugCreate)>("DebugCreate");
    const engine_script_set_fn set_ = exported<engine_script_set_fn>("engine_script_set");
    const engine_loading_set_fn loading_ = exported<engine_loading_set_fn>("engine_loading_set");
    const engine_counts_get_fn counts_ = exported<engine_counts_get_fn>("engine_counts_get");
    IDebugClient4 *client_ = nullptr; /* created as IDebugClient, as many clients do */
    IDebugControl *control_ = nullptr;
    DEBUG_STACK_FRAME frames_[100] = {};
    ULONG filled_ = 0;
    std::wstring path_;
};

struct reading {
    kernel_dump dump;
    enum kernel_dump_error error;
    std::string names, sites; /* of the modules and of the frames */
    std::string findings;     /* why it is rejected, or its gaps, one a line */

    /* Whether it finds what contains the part; an empty one: whether it finds nothing. */
    bool mentions(const std::string &part) const
    {
        return part.empty() ? findings.empty() : findings.find(part) != std::string::npos;
    }
};

/* Reads a dump whose bytes end at an inaccessible page: an access after them ends the program. */
inline reading read(const std::vector<uint8_t> &bytes, size_t frames = 99)
{
    static constexpr size_t ROOM = 0x4000000;
    static uint8_t *const s_end = static_cast<uint8_t *>(VirtualAlloc(
                                      VirtualAlloc(nullptr, 2 * ROOM, MEM_RESERVE, PAGE_NOACCESS),
                                      ROOM, MEM_COMMIT, PAGE_READWRITE)) +
                                  ROOM;
    reading made;
    const auto add = [](std::string &list, const std::string &word) {
        list += (list.empty() ? "" : " ") + word;
    };

    std::copy(bytes.begin(), bytes.end(), s_end - bytes.size());
    made.error = kernel_dump_read(s_end - bytes.size(), bytes.size(), &made.dump, &made.findings);
    for (const kernel_dump_module &module : made.dump.modules)
        add(made.names, module.name);
    for (const kernel_dump_frame &frame : kernel_dump_walk(made.dump, frames))
        add(made.sites, kernel_dump_call_site(made.dump, frame.instruction));
    for (const std::string &gap : made.dump.gaps)
        made.findings += gap + "\n";
    return made;
}

/* Returns a model with three frames: one+0x1234, two+0x1, nt+0x107. */
inline dump_model crashed_model()
{
    dump_model model;

    model.stack = {0x11, 0xFFFFF80100010001, 0x22, 0x33, 0xFFFFF80000000107, 0x44};
    return model;
}

#endif
