/* Reading a crash dump with the debugger engine. Owns the engine's entry point, which is resolved
 * once and kept; runs on the host's timer thread. */
#include "analyze_dmp.h"

#include <algorithm>
#include <new>
#include <string_view>

#include <windows.h>
#include <initguid.h> /* defines the engine's interface ids here: no import library has them */
#include <dbgeng.h>

#include "bypass_log.h"
#include "exception_boundary.h"
#include "proc_address.h"

#define FRAMES_CAPACITY  100
#define FRAMES_REQUESTED 99
/* Each frame's line begins with its call site: neither addresses nor numbers before it. */
#define STACK_COLUMNS (DEBUG_STACK_COLUMN_NAMES | DEBUG_STACK_PARAMETERS)
/* The text is for every client of the session, which has this one only. */
#define STACK_OUTPUT_CONTROL DEBUG_OUTCTL_ALL_CLIENTS
/* Takes the place of the engine's result when there is no engine. */
#define NO_ENGINE ((HRESULT)1)

typedef HRESULT(STDAPICALLTYPE *debug_create_fn)(REFIID iid, PVOID *client);

/* Both: timer thread. The engine stays loaded for the life of the process. */
static HMODULE s_engine;
static debug_create_fn s_debug_create;

/* Collects what the engine prints. The engine may hold and drop references from its own threads. */
class CDebugOutputCallbacks final : public IDebugOutputCallbacks
{
  public:
    HRESULT STDMETHODCALLTYPE QueryInterface(REFIID iid, PVOID *out) override
    {
        *out = NULL;
        if (!IsEqualIID(iid, IID_IUnknown) && !IsEqualIID(iid, IID_IDebugOutputCallbacks))
            return E_NOINTERFACE;
        *out = (IDebugOutputCallbacks *)this;
        AddRef();
        return S_OK;
    }

    ULONG STDMETHODCALLTYPE AddRef() override
    {
        return (ULONG)InterlockedIncrement(&references_);
    }

    ULONG STDMETHODCALLTYPE Release() override
    {
        const LONG left = InterlockedDecrement(&references_);

        if (left == 0)
            delete this;
        return (ULONG)left;
    }

    HRESULT STDMETHODCALLTYPE Output(ULONG, PCSTR text) override
    {
        if (exception_boundary("Output", [&] { text_.append(text); }))
            return S_OK;
        result_ = E_OUTOFMEMORY;
        return result_;
    }

    virtual ~CDebugOutputCallbacks() = default;

    /* S_OK while no part of the text was lost. The engine ignores what Output returns, and a line
     * without its beginning would name another module. */
    HRESULT result() const
    {
        return result_;
    }

    void take_text(std::string *text)
    {
        text_.swap(*text);
    }

  private:
    LONG references_ = 1;
    std::string text_;
    HRESULT result_ = S_OK;
};

/* A session of the engine; ends on every path. */
struct engine_session {
    IDebugClient *client = NULL;
    IDebugControl *control = NULL;
    CDebugOutputCallbacks *callbacks = NULL;

    engine_session() = default;
    engine_session(const engine_session &) = delete;
    engine_session &operator=(const engine_session &) = delete;

    ~engine_session()
    {
        if (callbacks != NULL)
            callbacks->Release();
        if (control != NULL)
            control->Release();
        if (client == NULL)
            return;
        (void)client->SetOutputCallbacks(NULL); /* the session ends whatever these return */
        (void)client->EndSession(DEBUG_END_PASSIVE);
        client->Release();
    }
};

/* The engine's entry point, or NULL; a failure is retried at the next call. */
static debug_create_fn debug_create(void)
{
    HMODULE helper;

    if (s_debug_create != NULL)
        return s_debug_create;
    /* The engine is of no use without it, and fails late and obscurely. */
    helper = LoadLibraryW(L"dbghelp.dll");
    if (helper == NULL)
        return NULL;
    FreeLibrary(helper);
    if (s_engine == NULL)
        s_engine = LoadLibraryW(L"dbgeng.dll");
    s_debug_create = proc_address<debug_create_fn>(s_engine, "DebugCreate");
    return s_debug_create;
}

static HRESULT create_client(IDebugClient **client)
{
    debug_create_fn create = debug_create();
    HRESULT hr = NO_ENGINE;

    if (create != NULL)
        hr = create(IID_IDebugClient, (PVOID *)client);
    if (hr != S_OK)
        LOG_ERROR("DebugCreate debug client failed with hr = 0x%08x. ", (unsigned)hr);
    return hr;
}

static HRESULT query_control(IDebugClient *client, IDebugControl **control)
{
    HRESULT hr = client->QueryInterface(IID_IDebugControl, (PVOID *)control);

    if (hr != S_OK)
        LOG_ERROR("QueryInterface debug control failed with hr = 0x%08x. ", (unsigned)hr);
    return hr;
}

/* Sends the client's output to new callbacks. */
static HRESULT collect_output(IDebugClient *client, CDebugOutputCallbacks **callbacks)
{
    HRESULT hr;

    *callbacks = new (std::nothrow) CDebugOutputCallbacks;
    if (*callbacks == NULL) {
        LOG_ERROR("create debug output callback failed with out of memory. ");
        return E_OUTOFMEMORY;
    }
    hr = client->SetOutputCallbacks(*callbacks);
    if (hr != S_OK)
        LOG_ERROR("SetOutputCallbacks failed with hr = 0x%08x. ", (unsigned)hr);
    return hr;
}

/* Wide paths came with a later interface of the client than the one that was asked for. */
static HRESULT open_dump(IDebugClient *client, const wchar_t *path)
{
    IDebugClient4 *client4 = NULL;
    HRESULT hr = client->QueryInterface(IID_IDebugClient4, (PVOID *)&client4);

    if (hr == S_OK)
        hr = client4->OpenDumpFileWide(path, 0);
    if (client4 != NULL)
        client4->Release();
    if (hr != S_OK)
        LOG_ERROR("OpenDumpFileWide failed with hr = 0x%08x. ", (unsigned)hr);
    return hr;
}

static HRESULT print_stack(IDebugControl *control, uint32_t timeout_ms)
{
    DEBUG_STACK_FRAME frames[FRAMES_CAPACITY] = {};
    ULONG filled = 0;
    HRESULT hr = control->WaitForEvent(DEBUG_WAIT_DEFAULT, timeout_ms);

    if (hr != S_OK) {
        LOG_ERROR("WaitForEvent failed with hr = 0x%08x. ", (unsigned)hr);
        return hr;
    }
    /* Offsets of zero: the context of the crash. */
    hr = control->GetStackTrace(0, 0, 0, frames, FRAMES_REQUESTED, &filled);
    if (hr != S_OK) {
        LOG_ERROR("GetStackTrace failed with hr = 0x%08x. ", (unsigned)hr);
        return hr;
    }
    hr = control->OutputStackTrace(STACK_OUTPUT_CONTROL, frames, filled, STACK_COLUMNS);
    if (hr != S_OK)
        LOG_ERROR("OutputStackTrace failed with hr = 0x%08x. ", (unsigned)hr);
    return hr;
}

static bool is_stack_marker(std::string_view line)
{
    return line.find("Call Site") != std::string_view::npos ||
           line.find("Stack unwind") != std::string_view::npos;
}

/* Adds the module of a frame's line. Some lines have none. */
static void add_frame_module(std::string_view line, crash_module_set *modules)
{
    size_t end = line.find('!');

    if (end == std::string_view::npos)
        end = line.find('+');
    if (end == std::string_view::npos)
        return;
    /* Most frames repeat a module, and emplace would allocate for each. */
    if (modules->find(line.substr(0, end)) == modules->end())
        modules->emplace(line.substr(0, end));
}

static void add_stack_modules(std::string_view text, crash_module_set *modules)
{
    bool inside_stack = false;

    for (size_t begin = 0; begin < text.size();) {
        const size_t end = std::min(text.find('\n', begin), text.size());
        const std::string_view line = text.substr(begin, end - begin);

        if (inside_stack)
            add_frame_module(line, modules);
        else
            inside_stack = is_stack_marker(line);
        begin = end + 1;
    }
}

bool analyze_dmp_file(const wchar_t *path, uint32_t timeout_ms, crash_module_set *modules)
{
    std::string text;

    if (path == NULL || path[0] == L'\0') {
        LOG_ERROR("invalid dmp file path. ");
        return false;
    }
    if (!get_dmp_info(path, timeout_ms, &text)) {
        LOG_WARN("parse dmp info failed. ");
        return false;
    }
    if (!get_module_set_from_dmp_info(text, modules)) {
        LOG_WARN("get module set from dmp info failed. ");
        return false;
    }
    return true;
}

bool get_dmp_info(const wchar_t *path, uint32_t timeout_ms, std::string *text)
{
    engine_session session;
    HRESULT hr = create_client(&session.client);

    if (hr == S_OK)
        hr = query_control(session.client, &session.control);
    if (hr == S_OK)
        hr = collect_output(session.client, &session.callbacks);
    if (hr == S_OK)
        hr = open_dump(session.client, path);
    if (hr == S_OK)
        hr = print_stack(session.control, timeout_ms);
    if (hr == S_OK)
        hr = session.callbacks->result();
    if (hr == S_OK)
        session.callbacks->take_text(text);
    return hr == S_OK;
}

bool get_module_set_from_dmp_info(const std::string &text, crash_module_set *modules)
{
    modules->clear();
    if (text.empty()) {
        LOG_WARN("dump info is empty. ");
        return false;
    }
    LOG_DEBUG("dump info %s ", text.c_str());
    add_stack_modules(text, modules);
    if (modules->empty()) {
        LOG_WARN("can not parse dump info[%s] ", text.c_str());
        return false;
    }
    LOG_INFO("parse dump info success with module size=%u ", (unsigned)modules->size());
    return true;
}
