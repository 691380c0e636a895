/* The engine's object: translates between the debugger's interfaces and the reader of dumps. One object
 * is both client and control. Used from one thread at a time. */
#include "engine_methods.h"

#include "engine_script_internal.h"

#include <algorithm>
#include <cstdio>
#include <memory>
#include <new>

namespace
{
enum session_state {
    SESSION_NONE,
    SESSION_OPEN,  /* a dump is open, and no client has waited for its event */
    SESSION_READY, /* stopped at the crash */
};

class engine final
{
  public:
    engine();
    /* As query_interface and release, without telling the watch. */
    HRESULT query(REFIID iid, void **out);
    ULONG drop();

    HRESULT query_interface(REFIID iid, void **out);
    ULONG add_ref();
    ULONG release();

    HRESULT set_output_callbacks(IDebugOutputCallbacks *callbacks);
    HRESULT open_dump_file_wide(PCWSTR path, ULONG64 handle);
    HRESULT end_session(ULONG flags);

    HRESULT wait_for_event(ULONG flags, ULONG timeout_ms);
    HRESULT get_stack_trace(ULONG64 frame_offset, ULONG64 stack_offset, ULONG64 instruction_offset,
                            DEBUG_STACK_FRAME *frames, ULONG frames_size, ULONG *filled);
    HRESULT output_stack_trace(ULONG output_control, DEBUG_STACK_FRAME *frames, ULONG frames_size,
                               ULONG flags);

  private:
    ~engine();
    void keep_callbacks(IDebugOutputCallbacks *callbacks);
    HRESULT open(PCWSTR path);
    bool load(unsigned timeout_ms);
    void put(const std::string &text);
    void put_script_text();
    void put_column_names(ULONG flags);
    void put_frame(const DEBUG_STACK_FRAME &frame, ULONG flags);
    void put_frames(const DEBUG_STACK_FRAME *frames, ULONG count, ULONG flags);

    engine_face<IDebugClient4, engine> client_;
    engine_face<IDebugControl, engine> control_;
    LONG references_ = 1;
    IDebugOutputCallbacks *callbacks_ = nullptr; /* a reference of our own */
    enum session_state session_ = SESSION_NONE;
    kernel_dump dump_;
    std::unique_ptr<std::string> script_text_; /* replaces the dump */
    unsigned waited_ms_ = 0;                   /* for the dump's event */
};
} // namespace

/* References that clients hold. A leaked client may release its references on any thread. */
static volatile LONG s_objects;
static volatile LONG s_references;
static volatile LONG s_callbacks;

/* A frame's parameters are not recorded; a function that stores them does so in the four slots above the
 * return address. How a frame was found comes back with it when it is printed. */
static void fill_frames(const kernel_dump &dump, const std::vector<kernel_dump_frame> &walked,
                        DEBUG_STACK_FRAME *frames)
{
    for (size_t i = 0; i < walked.size(); i++) {
        const bool last = i + 1 == walked.size();
        DEBUG_STACK_FRAME *frame = &frames[i];

        memset(frame, 0, sizeof *frame);
        frame->InstructionOffset = walked[i].instruction;
        frame->StackOffset = walked[i].stack;
        frame->FrameOffset = walked[i].stack;
        frame->ReturnOffset = last ? 0 : walked[i + 1].instruction;
        for (uint64_t k = 0; !last && k < 4; k++)
            frame->Params[k] = kernel_dump_stack_value(dump, walked[i + 1].stack + 8 * k);
        frame->Virtual = i > 0;
        frame->FrameNumber = static_cast<ULONG>(i);
        frame->Reserved[0] = walked[i].found;
    }
}

static IDebugClient4Vtbl client_methods(void)
{
    IDebugClient4Vtbl table = engine_methods<IDebugClient4Vtbl, engine>();

    engine_put<&engine::set_output_callbacks, engine>(&table.SetOutputCallbacks);
    engine_put<&engine::open_dump_file_wide, engine>(&table.OpenDumpFileWide);
    engine_put<&engine::end_session, engine>(&table.EndSession);
    return table;
}

static IDebugControlVtbl control_methods(void)
{
    IDebugControlVtbl table = engine_methods<IDebugControlVtbl, engine>();

    engine_put<&engine::wait_for_event, engine>(&table.WaitForEvent);
    engine_put<&engine::get_stack_trace, engine>(&table.GetStackTrace);
    engine_put<&engine::output_stack_trace, engine>(&table.OutputStackTrace);
    return table;
}

static IDebugClient4Vtbl s_client_methods = client_methods();
static IDebugControlVtbl s_control_methods = control_methods();

engine::engine() : client_{{&s_client_methods}, this}, control_{{&s_control_methods}, this}
{
    InterlockedIncrement(&s_objects);
    InterlockedIncrement(&s_references);
}

engine::~engine()
{
    keep_callbacks(nullptr);
    InterlockedDecrement(&s_objects);
}

HRESULT engine::query_interface(REFIID iid, void **out)
{
    engine_script_called("QueryInterface(%s)",
                         IsEqualIID(iid, IID_IDebugControl) ? "IDebugControl" : "other");
    return query(iid, out);
}

HRESULT engine::query(REFIID iid, void **out)
{
    const HRESULT fault = engine_script_fault_of(ENGINE_CALL_QUERY_INTERFACE);

    if (out == nullptr)
        return E_INVALIDARG;
    *out = nullptr;
    if (IsEqualIID(iid, IID_IDebugControl)) {
        if (fault != S_OK)
            return fault;
        *out = &control_;
    } else if (IsEqualIID(iid, IID_IUnknown) || IsEqualIID(iid, IID_IDebugClient) ||
               IsEqualIID(iid, IID_IDebugClient4)) {
        /* The fourth client interface begins with the methods of the first. */
        *out = &client_;
    } else {
        return E_NOINTERFACE;
    }
    add_ref();
    return S_OK;
}

ULONG engine::add_ref()
{
    InterlockedIncrement(&s_references);
    return static_cast<ULONG>(InterlockedIncrement(&references_));
}

ULONG engine::release()
{
    const ULONG left = drop();

    engine_script_called("Release() = %lu", left);
    return left;
}

ULONG engine::drop()
{
    const LONG left = InterlockedDecrement(&references_);

    InterlockedDecrement(&s_references);
    if (left == 0)
        delete this;
    return static_cast<ULONG>(left);
}

void engine::keep_callbacks(IDebugOutputCallbacks *callbacks)
{
    IDebugOutputCallbacks *old = callbacks_;

    if (callbacks != nullptr) {
        callbacks->lpVtbl->AddRef(callbacks);
        InterlockedIncrement(&s_callbacks);
    }
    callbacks_ = callbacks;
    if (old != nullptr) {
        InterlockedDecrement(&s_callbacks);
        old->lpVtbl->Release(old);
    }
}

HRESULT engine::set_output_callbacks(IDebugOutputCallbacks *callbacks)
{
    const HRESULT fault = engine_script_fault_of(ENGINE_CALL_SET_OUTPUT_CALLBACKS);

    engine_script_called("SetOutputCallbacks(%s)", callbacks != nullptr ? "*" : "null");
    /* Removing the callbacks always works. */
    if (callbacks != nullptr && fault != S_OK)
        return fault;
    keep_callbacks(callbacks);
    return S_OK;
}

HRESULT engine::open(PCWSTR path)
{
    const std::string *text = engine_script_stack_of(path);
    std::wstring mapped;
    std::string reason;
    HRESULT result;

    if (text != nullptr) {
        result = engine_script_open(path);
        if (result != S_OK)
            return result;
        script_text_ = std::make_unique<std::string>(*text);
        return S_OK;
    }
    result = engine_script_map_path(path, &mapped);
    if (result != S_OK)
        return engine_script_refuse(path, result, "the path is not mapped to a file");
    result = engine_read_dump(mapped.c_str(), &dump_, &reason);
    if (result != S_OK)
        return engine_script_refuse(path, result, reason.c_str());
    return S_OK;
}

HRESULT engine::open_dump_file_wide(PCWSTR path, ULONG64 handle)
{
    HRESULT result = engine_script_fault_of(ENGINE_CALL_OPEN_DUMP);

    engine_script_called("OpenDumpFileWide(\"%S\", %lu)", path != nullptr ? path : L"",
                         static_cast<unsigned long>(handle));
    if (result != S_OK)
        return result;
    if (path == nullptr || handle != 0)
        return path == nullptr ? E_INVALIDARG : E_NOTIMPL;
    if (session_ != SESSION_NONE)
        return E_UNEXPECTED;
    result = open(path);
    if (result == S_OK)
        session_ = SESSION_OPEN;
    return result;
}

HRESULT engine::end_session(ULONG flags)
{
    engine_script_called("EndSession(%lu)", flags);
    if (flags > DEBUG_END_ACTIVE_DETACH)
        return E_INVALIDARG;
    if (session_ == SESSION_NONE)
        return E_UNEXPECTED;
    session_ = SESSION_NONE;
    dump_ = kernel_dump();
    script_text_.reset();
    waited_ms_ = 0;
    return S_OK;
}

/* Goes on loading the dump for at most a time. Result: whether it is loaded. */
bool engine::load(unsigned timeout_ms)
{
    const struct engine_loading &how = engine_script_loading();
    const unsigned left = how.ms - std::min(how.ms, waited_ms_), ms = std::min(left, timeout_ms);

    if (waited_ms_ == 0 && how.text != nullptr && callbacks_ != nullptr)
        put(how.text);
    if (ms != 0 && how.wait != nullptr)
        how.wait(ms);
    waited_ms_ += ms;
    return ms == left;
}

HRESULT engine::wait_for_event(ULONG flags, ULONG timeout_ms)
{
    const HRESULT fault = engine_script_fault_of(ENGINE_CALL_WAIT);

    engine_script_called("WaitForEvent(0x%lx, %lu)", flags, timeout_ms);
    if (fault != S_OK)
        return fault;
    if (flags != 0)
        return E_INVALIDARG;
    if (session_ != SESSION_OPEN)
        return E_UNEXPECTED;
    if (!load(timeout_ms))
        return S_FALSE;
    session_ = SESSION_READY;
    return S_OK;
}

HRESULT engine::get_stack_trace(ULONG64 frame_offset, ULONG64 stack_offset,
                                ULONG64 instruction_offset, DEBUG_STACK_FRAME *frames,
                                ULONG frames_size, ULONG *filled)
{
    const HRESULT fault = engine_script_fault_of(ENGINE_CALL_GET_STACK);

    engine_script_called("GetStackTrace(%lu, %lu, %lu, *, %lu, *)",
                         static_cast<unsigned long>(frame_offset),
                         static_cast<unsigned long>(stack_offset),
                         static_cast<unsigned long>(instruction_offset), frames_size);
    if (filled != nullptr)
        *filled = 0;
    if (fault != S_OK)
        return fault;
    if (frames == nullptr || frames_size == 0)
        return E_INVALIDARG;
    if (frame_offset != 0 || stack_offset != 0 || instruction_offset != 0)
        return E_NOTIMPL;
    if (session_ != SESSION_READY)
        return E_UNEXPECTED;
    const std::vector<kernel_dump_frame> walked =
        kernel_dump_walk(dump_, script_text_ != nullptr ? !script_text_->empty() : frames_size,
                         engine_script_images());

    fill_frames(dump_, walked, frames);
    if (filled != nullptr)
        *filled = static_cast<ULONG>(walked.size());
    return S_OK;
}

/* The note on a stack is a warning, all else ordinary text. */
void engine::put(const std::string &text)
{
    const ULONG mask =
        text.find("Stack unwind") == std::string::npos ? DEBUG_OUTPUT_NORMAL : DEBUG_OUTPUT_WARNING;

    callbacks_->lpVtbl->Output(callbacks_, mask, text.c_str());
}

/* Sends a line at a time: a client must join the pieces. */
void engine::put_script_text()
{
    const std::string &text = *script_text_;

    for (size_t start = 0; start < text.size();) {
        const size_t end = text.find('\n', start);
        const size_t next = end == std::string::npos ? text.size() : end + 1;

        put(text.substr(start, next - start));
        start = next;
    }
}

/* The columns before the call site, in this order. Values of parameters (DEBUG_STACK_PARAMETERS) need
 * symbols, so that flag adds nothing, as in an engine that finds no symbols. */
void engine::put_column_names(ULONG flags)
{
    if ((flags & DEBUG_STACK_FRAME_NUMBERS) != 0)
        put(" # ");
    if ((flags & DEBUG_STACK_FRAME_ADDRESSES) != 0)
        put("Child-SP          RetAddr           ");
    if ((flags & DEBUG_STACK_ARGUMENTS) != 0)
        put(": Args to Child" + std::string(57, ' ') + ": ");
    put("Call Site\n");
}

void engine::put_frame(const DEBUG_STACK_FRAME &frame, ULONG flags)
{
    if ((flags & DEBUG_STACK_FRAME_NUMBERS) != 0) {
        char number[16];

        snprintf(number, sizeof number, "%02x ", static_cast<unsigned>(frame.FrameNumber));
        put(number);
    }
    if ((flags & DEBUG_STACK_FRAME_ADDRESSES) != 0)
        put(kernel_dump_address_text(frame.StackOffset) + " " +
            kernel_dump_address_text(frame.ReturnOffset) + " ");
    if ((flags & DEBUG_STACK_ARGUMENTS) != 0) {
        put(": ");
        for (const ULONG64 parameter : frame.Params)
            put(kernel_dump_address_text(parameter) + " ");
        put(": ");
    }
    put(kernel_dump_call_site(dump_, frame.InstructionOffset));
    put("\n");
}

/* The missing parts are listed before the stack, where no client expects frames. */
void engine::put_frames(const DEBUG_STACK_FRAME *frames, ULONG count, ULONG flags)
{
    bool warned = false;

    for (const std::string &gap : dump_.gaps)
        put("The dump is incomplete: " + gap + ".\n");
    if ((flags & DEBUG_STACK_COLUMN_NAMES) != 0)
        put_column_names(flags);
    for (ULONG i = 0; i < count; i++) {
        const bool scanned = frames[i].Reserved[0] == KERNEL_DUMP_FOUND_SCANNED;

        if (scanned && !warned)
            put("Stack unwind information not available. Following frames may be wrong.\n");
        warned = warned || scanned;
        put_frame(frames[i], flags);
    }
}

HRESULT engine::output_stack_trace(ULONG output_control, DEBUG_STACK_FRAME *frames,
                                   ULONG frames_size, ULONG flags)
{
    const HRESULT fault = engine_script_fault_of(ENGINE_CALL_OUTPUT_STACK);
    const ULONG receivers = output_control & DEBUG_OUTCTL_SEND_MASK;

    engine_script_called("OutputStackTrace(0x%lx, *, %lu, 0x%lx)", output_control, frames_size,
                         flags);
    if (fault != S_OK)
        return fault;
    if (frames == nullptr && frames_size > 0)
        return E_INVALIDARG;
    if (session_ != SESSION_READY)
        return E_UNEXPECTED;
    /* A session has one client, so "all" is that one. */
    if (callbacks_ == nullptr ||
        (receivers != DEBUG_OUTCTL_THIS_CLIENT && receivers != DEBUG_OUTCTL_ALL_CLIENTS))
        return S_OK;
    if (script_text_ != nullptr)
        put_script_text();
    else
        put_frames(frames, frames_size, flags);
    return S_OK;
}

extern "C" HRESULT WINAPI DebugCreate(REFIID iid, void **out)
{
    const HRESULT fault = engine_script_fault_of(ENGINE_CALL_DEBUG_CREATE);
    HRESULT result;

    engine_script_called("DebugCreate()");
    if (out == nullptr)
        return E_INVALIDARG;
    *out = nullptr;
    if (fault != S_OK)
        return fault;
    engine *made = new (std::nothrow) engine;

    if (made == nullptr)
        return E_OUTOFMEMORY;
    result = made->query(iid, out);
    made->drop();
    return result;
}

void engine_counts_get(struct engine_counts *counts)
{
    counts->objects = static_cast<size_t>(s_objects);
    counts->references = static_cast<size_t>(s_references);
    counts->callbacks = static_cast<size_t>(s_callbacks);
}
