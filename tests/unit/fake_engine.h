/*
 * A debugger engine of the test's own, found through LoadLibraryW and GetProcAddress. Its objects
 * have the published layout of the interfaces, built by hand: a wrong slot shows.
 */
#ifndef FAKE_ENGINE_H
#define FAKE_ENGINE_H

#include <string>
#include <vector>

#include <windows.h>
#include <dbgeng.h>

#include "import_patch.h"

class fake_engine
{
  public:
    fake_engine();
    ~fake_engine();

    /* What the step fails with; steps are named as in calls. */
    std::string failing_call;
    HRESULT failure = E_FAIL;
    bool dbghelp_missing = false, dbgeng_missing = false, export_missing = false;
    /* Handed to the callbacks piece by piece when the stack is printed. */
    std::vector<std::string> output = {"Call Site\n", "nt!KeBugCheckEx", "+0x107\n"};

    /* Each call with its arguments, in order. */
    std::vector<std::string> calls;
    /* What the callbacks answered to the questions of SetOutputCallbacks. */
    std::vector<std::string> callback_answers;
    /* References of client and control, and of the callbacks at their last release. */
    int client_references = 0, control_references = 0;
    IDebugOutputCallbacks *callbacks = NULL;

    /* Whether the code under test has found the engine in this process: it does not look again. */
    static bool was_resolved();

    /* Notes a call; what the call shall answer. */
    HRESULT call(const std::string &name, const std::string &arguments = "");

  private:
    static HMODULE WINAPI load(const wchar_t *name);
    static BOOL WINAPI release(HMODULE module);
    static FARPROC WINAPI address(HMODULE module, const char *name);

    import_patch load_patch_, free_patch_, address_patch_;
};

#endif
