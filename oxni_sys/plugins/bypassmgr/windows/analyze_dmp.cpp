/* Reading a crash dump with the debugger engine. Owns the engine's entry point, which is resolved
 * once and kept; runs on the host's timer thread. */
#include "analyze_dmp.h"

#include "bypass_log.h"
#include "proc_address.h"

#include <algorithm>
#include <new>
#include <string_view>

#include <windows.h>
#include <initguid.h> /* defines the engine's interface ids here: no import library has them */
#include <dbgeng.h>

#define FRAMES_CAPACITY  100
#define FRAMES_REQUESTED 99
/* Each frame's line begins with its call site: neither addresses nor numbers before it. */
#define STACK_COLUMNS (DEBUG_STACK_COLUMN_NAMES | DEBUG_STACK_PARAMETERS)
/* The text is for every client of the session, which has this one only. */
#define STACK_OUTPUT_CONTROL DEBUG_OUTCTL_ALL_CLIENTS
/* What stands for the engine's result when there is no engine. */
#define NO_ENGINE ((HRESULT)1)

typedef HRESULT(STDAPICALLTYPE *debug_create_fn)(REFIID iid, PVOID *client);

static debug_create_fn s_debug_create; /* timer thread */

/* Collects what the engine prints. The engine may hold and drop references from its own threads. */
class CDebugOutputCallbacks final : public IDebugOutputCallbacks
{
  public:
    HRESULT STDMETHODCALLTYPE QueryInterface(REFIID iid, PVOID *out) override
    {
        *out = NULL;
        if (!IsEqualIID(iid, IID_IUnknown) && !IsEqualIID(iid, IID_IDebugOutputCallbacks))
            return E_NOINTERFACE;
        *out = static_cast<IDebugOutputCallbacks *>(this);
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
        try {
            text_.append(text);
        } catch (const std::bad_alloc &) {
            return E_OUTOFMEMORY; /* nothing may be thrown through the engine */
        }
        return S_OK;
    }

    virtual ~CDebugOutputCallbacks() = default;

    void take_text(std::string *text)
    {
        text_.swap(*text);
    }

  private:
    LONG references_ = 1;
    std::string text_;
};

/* The engine's entry point, or NULL; a failure is tried again at the next call. The engine stays
 * loaded for the life of the process. */
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
    s_debug_create = proc_address<debug_create_fn>(LoadLibraryW(L"dbgeng.dll"), "DebugCreate");
    return s_debug_create;
}

static HRESULT create_client(IDebugClient **client)
{
    debug_create_fn create = debug_create();
    HRESULT hr = NO_ENGINE;

    if (create != NULL)
        hr = create(IID_IDebugClient, reinterpret_cast<PVOID *>(client));
    if (hr != S_OK)
        LOG_ERROR("DebugCreate debug client failed with hr = 0x%08x. ", (unsigned)hr);
    return hr;
}

static HRESULT query_control(IDebugClient *client, IDebugControl **control)
{
    HRESULT hr = client->QueryInterface(IID_IDebugControl, reinterpret_cast<PVOID *>(control));

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
    HRESULT hr = client->QueryInterface(IID_IDebugClient4, reinterpret_cast<PVOID *>(&client4));

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

/* One line and where the module of its frame ends; npos: it has none. */
struct stack_line {
    std::string_view text;
    size_t module_end;
};

/* The line at the beginning of a text, in one pass over it: behind a '!' only its end matters. */
static stack_line first_line(std::string_view text)
{
    size_t plus = std::string_view::npos, at = 0;

    while (at < text.size() && text[at] != '\n' && text[at] != '!') {
        if (text[at] == '+' && plus == std::string_view::npos)
            plus = at;
        at++;
    }
    const size_t module_end = at < text.size() && text[at] == '!' ? at : plus;
    return {text.substr(0, text.find('\n', at)), module_end};
}

/* Adds a module. last: the one of an earlier line, which most lines repeat; NULL when there is
 * none. Result: the new last one. */
static const std::string *add_module(std::string_view name, const std::string *last,
                                     crash_module_set *modules)
{
    if (last != NULL && *last == name)
        return last;
    const auto place = modules->lower_bound(name);
    if (place != modules->end() && *place == name)
        return &*place;
    return &*modules->emplace_hint(place, name);
}

int32_t analyze_dmp_file(const wchar_t *path, uint32_t timeout_ms, crash_module_set *modules)
{
    std::string text;

    if (path == NULL || path[0] == L'\0') {
        LOG_ERROR("invalid dmp file path. ");
        return 0;
    }
    if (!get_dmp_info(path, timeout_ms, &text)) {
        LOG_WARN("parse dmp info failed. ");
        return 0;
    }
    if (!get_module_set_from_dmp_info(text, modules)) {
        LOG_WARN("get module set from dmp info failed. ");
        return 0;
    }
    return 1;
}

bool get_dmp_info(const wchar_t *path, uint32_t timeout_ms, std::string *text)
{
    IDebugClient *client = NULL;
    IDebugControl *control = NULL;
    CDebugOutputCallbacks *callbacks = NULL;
    HRESULT hr = create_client(&client);

    if (hr == S_OK)
        hr = query_control(client, &control);
    if (hr == S_OK)
        hr = collect_output(client, &callbacks);
    if (hr == S_OK)
        hr = open_dump(client, path);
    if (hr == S_OK)
        hr = print_stack(control, timeout_ms);
    if (hr == S_OK)
        callbacks->take_text(text);

    if (callbacks != NULL)
        callbacks->Release();
    if (control != NULL)
        control->Release();
    if (client != NULL) {
        (void)client->SetOutputCallbacks(NULL); /* the session ends whatever these answer */
        (void)client->EndSession(DEBUG_END_PASSIVE);
        client->Release();
    }
    return hr == S_OK;
}

bool get_module_set_from_dmp_info(const std::string &text, crash_module_set *modules)
{
    const std::string *last = NULL;
    bool inside_stack = false;
    std::string_view rest = text;

    modules->clear();
    if (text.empty()) {
        LOG_WARN("dump info is empty. ");
        return false;
    }
    LOG_DEBUG("dump info %s ", text.c_str());
    while (!rest.empty()) {
        const stack_line line = first_line(rest);
        if (!inside_stack)
            inside_stack = is_stack_marker(line.text);
        else if (line.module_end != std::string_view::npos)
            last = add_module(line.text.substr(0, line.module_end), last, modules);
        rest.remove_prefix(std::min(line.text.size() + 1, rest.size()));
    }
    if (modules->empty()) {
        LOG_WARN("can not parse dump info[%s] ", text.c_str());
        return false;
    }
    LOG_INFO("parse dump info success with module size=%u ", (unsigned)modules->size());
    return true;
}
