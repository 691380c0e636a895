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

    conform(run, "WaitForEvent", "without a dump fails", control->WaitForEvent(0, 0) != S_OK, {1});
    conform(run, "GetStackTrace", "before the event fails",
            control->GetStackTrace(0, 0, 0, &frame, 1, &filled) != S_OK, {1});
    conform(run, "OpenDumpFileWide", "a missing file fails",
            client->OpenDumpFileWide(path.c_str(), 0) != S_OK, {1});
    HANDLE held =
        CreateFileW(path.c_str(), GENERIC_READ | GENERIC_WRITE, 0, NULL, CREATE_ALWAYS, 0, NULL);
    conform(run, "OpenDumpFileWide", "a file that its writer holds open fails",
            client->OpenDumpFileWide(path.c_str(), 0) != S_OK, {1});
    CloseHandle(held);
    conform(run, "OpenDumpFileWide", "a file that is no dump fails",
            client->OpenDumpFileWide(path.c_str(), 0) != S_OK, {1});
    DeleteFileW(path.c_str());
}

void check_engine(conformance &run)
{
    HMODULE engine = LoadLibraryW(run.engine.c_str());
    debug_create_fn create = NULL;
    IDebugClient *client = NULL;
    IDebugClient4 *client4 = NULL;
    IDebugControl *control = NULL;

    conform(run, "LoadLibraryW", "the debugger engine", error_if(engine == NULL), {0});
    create = reinterpret_cast<debug_create_fn>(
        reinterpret_cast<void *>(GetProcAddress(engine, "DebugCreate")));
    conform(run, "GetProcAddress", "DebugCreate", error_if(create == NULL), {0});
    if (create == NULL)
        return;
    conform(run, "DebugCreate", "a client",
            static_cast<uint32_t>(create(IID_IDebugClient, reinterpret_cast<void **>(&client))),
            {0});
    if (client == NULL)
        return;
    (void)client->QueryInterface(IID_IDebugControl, reinterpret_cast<void **>(&control));
    (void)client->QueryInterface(IID_IDebugClient4, reinterpret_cast<void **>(&client4));
    conform(run, "DebugCreate", "its control", control != NULL, {1});
    conform(run, "DebugCreate", "its interface for wide paths", client4 != NULL, {1});
    if (control != NULL && client4 != NULL)
        check_dumps(run, client4, control);
    if (control != NULL)
        control->Release();
    if (client4 != NULL)
        client4->Release();
    conform(run, "DebugCreate", "the last reference", client->Release(), {0});
    FreeLibrary(engine);
}
