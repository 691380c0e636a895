/* A debugger engine of the test's own. */
#include <initguid.h>

#include "fake_engine.h"

#include <stdio.h>
#include <stdlib.h>
#include <string.h>

/* Slots of the interfaces, as the debugger's SDK publishes them. */
enum engine_slot {
    SLOT_QUERY_INTERFACE = 0,
    SLOT_ADD_REF = 1,
    SLOT_RELEASE = 2,
    CLIENT_END_SESSION = 26,
    CLIENT_SET_OUTPUT_CALLBACKS = 34,
    CLIENT4_OPEN_DUMP_FILE_WIDE = 60,
    CLIENT4_SLOTS = 66,
    CONTROL_GET_STACK_TRACE = 31,
    CONTROL_OUTPUT_STACK_TRACE = 33,
    CONTROL_WAIT_FOR_EVENT = 93,
    CONTROL_SLOTS = 95,
};

/* An interface is a pointer to its table of functions. */
struct engine_object {
    void **table;
    const char *name;
};

static fake_engine *s_engine;
static bool s_resolved;
static int s_dbghelp, s_dbgeng; /* their addresses stand for modules */
static void *s_client_table[CLIENT4_SLOTS], *s_control_table[CONTROL_SLOTS];
static engine_object s_client = {s_client_table, "client"};
static engine_object s_client4 = {s_client_table, "client4"};
static engine_object s_control = {s_control_table, "control"};

/* A slot that the code under test has no business with. */
static HRESULT STDMETHODCALLTYPE unexpected()
{
    fprintf(stderr, "fake_engine: a call of an unexpected slot\n");
    abort();
}

static int *references(engine_object *object)
{
    return object == &s_control ? &s_engine->control_references : &s_engine->client_references;
}

static HRESULT give(engine_object *object, const char *what, void **out)
{
    const HRESULT hr = s_engine->call("query", what);

    *out = NULL;
    if (hr != S_OK)
        return hr;
    ++*references(object);
    *out = object;
    return S_OK;
}

static HRESULT STDMETHODCALLTYPE query_interface(engine_object *, REFIID iid, void **out)
{
    if (IsEqualIID(iid, IID_IDebugControl)) {
        if (s_engine->failing_call == "query control")
            return s_engine->call("query control");
        return give(&s_control, "control", out);
    }
    if (IsEqualIID(iid, IID_IDebugClient4)) {
        if (s_engine->failing_call == "query client4")
            return s_engine->call("query client4");
        return give(&s_client4, "client4", out);
    }
    return E_NOINTERFACE;
}

static ULONG STDMETHODCALLTYPE release(engine_object *object)
{
    s_engine->call(std::string("release ") + object->name);
    return (ULONG)-- * references(object);
}

/* Asks the callbacks what any owner may ask. */
static void question_callbacks(IDebugOutputCallbacks *callbacks)
{
    static const struct {
        const char *name;
        const GUID *iid;
    } s_questions[] = {
        {"unknown", &IID_IUnknown             },
        {"output",  &IID_IDebugOutputCallbacks},
        {"client",  &IID_IDebugClient         },
    };
    char answer[64];

    for (const auto &question : s_questions) {
        void *out = &s_client;
        const HRESULT hr = callbacks->QueryInterface(*question.iid, &out);
        const ULONG left = out != NULL ? callbacks->Release() : 0;
        snprintf(answer, sizeof(answer), "%s %08lx %s %lu", question.name, (unsigned long)hr,
                 out == callbacks ? "itself" : "null", left);
        s_engine->callback_answers.push_back(answer);
    }
}

static HRESULT STDMETHODCALLTYPE set_output_callbacks(engine_object *,
                                                      IDebugOutputCallbacks *callbacks)
{
    HRESULT hr = S_OK;

    if (callbacks == NULL) {
        s_engine->call("reset callbacks");
        if (s_engine->callbacks != NULL)
            s_engine->call("callbacks left", std::to_string(s_engine->callbacks->Release()));
        s_engine->callbacks = NULL;
        return S_OK;
    }
    hr = s_engine->call("set callbacks");
    if (hr == S_OK) {
        question_callbacks(callbacks);
        callbacks->AddRef();
        s_engine->callbacks = callbacks;
    }
    return hr;
}

static HRESULT STDMETHODCALLTYPE open_dump_file_wide(engine_object *object, const wchar_t *path,
                                                     ULONG64 handle)
{
    char arguments[128];

    snprintf(arguments, sizeof(arguments), "%s %ls %llu", object->name, path, handle);
    return s_engine->call("open", arguments);
}

static HRESULT STDMETHODCALLTYPE wait_for_event(engine_object *, ULONG flags, ULONG timeout)
{
    return s_engine->call("wait", std::to_string(flags) + " " + std::to_string(timeout));
}

static HRESULT STDMETHODCALLTYPE get_stack_trace(engine_object *, ULONG64 frame, ULONG64 stack,
                                                 ULONG64 instruction, DEBUG_STACK_FRAME *frames,
                                                 ULONG size, ULONG *filled)
{
    const HRESULT hr = s_engine->call("get stack", std::to_string(frame + stack + instruction) +
                                                       " " + std::to_string(size));

    if (hr != S_OK)
        return hr;
    frames[0].InstructionOffset = 0x1234;
    *filled = 2;
    return hr;
}

static HRESULT STDMETHODCALLTYPE output_stack_trace(engine_object *, ULONG control,
                                                    DEBUG_STACK_FRAME *frames, ULONG size,
                                                    ULONG flags)
{
    char arguments[64];

    snprintf(arguments, sizeof(arguments), "%lu %llx %lu %lx", control, frames[0].InstructionOffset,
             size, flags);
    for (const std::string &piece : s_engine->output)
        s_engine->callbacks->Output(DEBUG_OUTPUT_NORMAL, piece.c_str());
    return s_engine->call("print stack", arguments);
}

template <typename Function> static void *slot(Function *function)
{
    return reinterpret_cast<void *>(function);
}

static void fill_tables(void)
{
    for (void *&entry : s_client_table)
        entry = slot(unexpected);
    for (void *&entry : s_control_table)
        entry = slot(unexpected);
    s_client_table[SLOT_QUERY_INTERFACE] = slot(query_interface);
    s_client_table[SLOT_RELEASE] = slot(release);
    s_client_table[CLIENT_END_SESSION] = slot(+[](engine_object *, ULONG flags) -> HRESULT {
        return s_engine->call("end session", std::to_string(flags));
    });
    s_client_table[CLIENT_SET_OUTPUT_CALLBACKS] = slot(set_output_callbacks);
    s_client_table[CLIENT4_OPEN_DUMP_FILE_WIDE] = slot(open_dump_file_wide);
    s_control_table[SLOT_RELEASE] = slot(release);
    s_control_table[CONTROL_WAIT_FOR_EVENT] = slot(wait_for_event);
    s_control_table[CONTROL_GET_STACK_TRACE] = slot(get_stack_trace);
    s_control_table[CONTROL_OUTPUT_STACK_TRACE] = slot(output_stack_trace);
}

static HRESULT STDAPICALLTYPE debug_create(REFIID iid, void **client)
{
    const HRESULT hr = s_engine->call("create", IsEqualIID(iid, IID_IDebugClient) ? "client" : "?");

    *client = NULL;
    if (hr == S_OK) {
        s_engine->client_references++;
        *client = &s_client;
    }
    return hr;
}

fake_engine::fake_engine()
    : load_patch_("LoadLibraryW", load), free_patch_("FreeLibrary", fake_engine::release),
      address_patch_("GetProcAddress", address)
{
    fill_tables();
    s_engine = this;
}

fake_engine::~fake_engine()
{
    s_engine = NULL;
}

bool fake_engine::was_resolved()
{
    return s_resolved;
}

HRESULT fake_engine::call(const std::string &name, const std::string &arguments)
{
    calls.push_back(arguments.empty() ? name : name + " " + arguments);
    return name == failing_call ? failure : S_OK;
}

HMODULE WINAPI fake_engine::load(const wchar_t *name)
{
    const bool helper = wcscmp(name, L"dbghelp.dll") == 0;
    const bool missing = helper ? s_engine->dbghelp_missing : s_engine->dbgeng_missing;

    s_engine->call("load", helper                             ? "dbghelp.dll"
                           : wcscmp(name, L"dbgeng.dll") == 0 ? "dbgeng.dll"
                                                              : "?");
    return missing ? NULL : reinterpret_cast<HMODULE>(helper ? &s_dbghelp : &s_dbgeng);
}

BOOL WINAPI fake_engine::release(HMODULE module)
{
    s_engine->call("free", module == reinterpret_cast<HMODULE>(&s_dbghelp) ? "dbghelp.dll" : "?");
    return TRUE;
}

FARPROC WINAPI fake_engine::address(HMODULE module, const char *name)
{
    if (module != reinterpret_cast<HMODULE>(&s_dbgeng))
        return s_engine->address_patch_.real<FARPROC WINAPI(HMODULE, const char *)>()(module, name);
    s_engine->call("look up", name);
    if (s_engine->export_missing || strcmp(name, "DebugCreate") != 0)
        return NULL;
    s_resolved = true;
    return reinterpret_cast<FARPROC>(reinterpret_cast<void *>(debug_create));
}
