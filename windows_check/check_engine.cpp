/* Checks of the debugger engine. What a call gives is checked where the plug-in relies on it: S_OK
 * or not. */
#include "conformance.h"

#include <initguid.h>
#include <dbgeng.h>

typedef HRESULT(STDAPICALLTYPE *debug_create_fn)(REFIID iid, PVOID *client);

static void check_dumps(conformance &run, IDebugClient4 *client, IDebugControl *control)
{
    const std::wstring path = run.folder + L"\\engine.dmp";
    DEBUG_STACK_FRAME frame;
    ULONG filled = 0;

    run.holds("WaitForEvent", "without a dump fails", control->WaitForEvent(0, 0) != S_OK);
    run.holds("GetStackTrace", "before the event fails",
              control->GetStackTrace(0, 0, 0, &frame, 1, &filled) != S_OK);
    run.holds("OpenDumpFileWide", "a missing file fails",
              client->OpenDumpFileWide(path.c_str(), 0) != S_OK);
    HANDLE held = CreateFileW(path.c_str(), GENERIC_READ | GENERIC_WRITE, 0, nullptr, CREATE_ALWAYS,
                              0, nullptr);
    run.holds("OpenDumpFileWide", "a file that its writer holds open fails",
              client->OpenDumpFileWide(path.c_str(), 0) != S_OK);
    CloseHandle(held);
    run.holds("OpenDumpFileWide", "a file that is no dump fails",
              client->OpenDumpFileWide(path.c_str(), 0) != S_OK);
    DeleteFileW(path.c_str());
}

static void check_client(conformance &run, debug_create_fn create)
{
    IDebugClient *client = nullptr;
    IDebugClient4 *client4 = nullptr;
    IDebugControl *control = nullptr;

    run.gives("DebugCreate", "a client",
              static_cast<uint32_t>(create(IID_IDebugClient, reinterpret_cast<void **>(&client))),
              {0});
    if (client == nullptr)
        return;
    (void)client->QueryInterface(IID_IDebugControl, reinterpret_cast<void **>(&control));
    (void)client->QueryInterface(IID_IDebugClient4, reinterpret_cast<void **>(&client4));
    run.holds("DebugCreate", "its control", control != nullptr);
    run.holds("DebugCreate", "its interface for wide paths", client4 != nullptr);
    if (control != nullptr && client4 != nullptr)
        check_dumps(run, client4, control);
    if (control != nullptr)
        control->Release();
    if (client4 != nullptr)
        client4->Release();
    run.gives("DebugCreate", "the last reference", client->Release(), {0});
}

void check_engine(conformance &run)
{
    HMODULE engine = LoadLibraryW(run.engine.c_str());

    run.works("LoadLibraryW", "the debugger engine", engine != nullptr);
    if (engine == nullptr)
        return;
    debug_create_fn create = reinterpret_cast<debug_create_fn>(
        reinterpret_cast<void *>(GetProcAddress(engine, "DebugCreate")));
    run.works("GetProcAddress", "DebugCreate", create != nullptr);
    if (create != nullptr)
        check_client(run, create);
    FreeLibrary(engine);
}
