/* The engine's script, copied from the development host. On the engine's thread. */
#include "engine_script_internal.h"

#include <cstdarg>
#include <cstdio>
#include <cstring>
#include <new>
#include <vector>

/* The longest path of Windows, with its terminator. */
static constexpr uint32_t PATH_CHARS = 32768u;

namespace
{
struct owned_stack {
    std::wstring path;
    std::string text;
};

struct owned_script {
    HRESULT faults[ENGINE_CALL_COUNT] = {};
    std::vector<owned_stack> stacks;
    engine_script_map_fn map = nullptr;
    engine_script_refused_fn refused = nullptr;
    void *user = nullptr;
};
} // namespace

/* By enum engine_call. */
static const char *const s_call_names[ENGINE_CALL_COUNT] = {
    "DebugCreate",  "QueryInterface", "SetOutputCallbacks", "OpenDumpFileWide",
    "WaitForEvent", "GetStackTrace",  "OutputStackTrace",
};

static owned_script s_script;
static engine_loading s_loading;
static std::vector<kernel_image> s_images;
static engine_called_fn s_called;

static HRESULT add_fault(owned_script *script, const struct engine_script_fault &fault)
{
    if (fault.call == nullptr || fault.result == S_OK)
        return E_INVALIDARG;
    for (int i = 0; i < ENGINE_CALL_COUNT; i++) {
        if (strcmp(s_call_names[i], fault.call) == 0) {
            script->faults[i] = fault.result;
            return S_OK;
        }
    }
    return E_INVALIDARG;
}

static HRESULT copy_script(owned_script *script, const struct engine_script *from)
{
    if (from->struct_bytes != sizeof *from || (from->faults == nullptr && from->fault_count > 0) ||
        (from->stacks == nullptr && from->stack_count > 0))
        return E_INVALIDARG;
    for (size_t i = 0; i < from->fault_count; i++) {
        const HRESULT result = add_fault(script, from->faults[i]);

        if (result != S_OK)
            return result;
    }
    for (size_t i = 0; i < from->stack_count; i++) {
        const struct engine_script_stack &stack = from->stacks[i];

        if (stack.path == nullptr || stack.text == nullptr)
            return E_INVALIDARG;
        script->stacks.push_back({stack.path, stack.text});
    }
    script->map = from->map;
    script->refused = from->refused;
    script->user = from->user;
    return S_OK;
}

HRESULT engine_script_set(const struct engine_script *script)
{
    HRESULT result = S_OK;

    try {
        owned_script copy;

        if (script != nullptr)
            result = copy_script(&copy, script);
        if (result == S_OK)
            std::swap(s_script, copy);
    } catch (const std::bad_alloc &) {
        result = E_OUTOFMEMORY;
    }
    return result;
}

HRESULT engine_script_fault_of(enum engine_call call)
{
    return s_script.faults[call];
}

const std::string *engine_script_stack_of(const wchar_t *path)
{
    for (const owned_stack &stack : s_script.stacks) {
        if (CompareStringOrdinal(stack.path.c_str(), -1, path, -1, TRUE) == CSTR_EQUAL)
            return &stack.text;
    }
    return nullptr;
}

HRESULT engine_script_map_path(const wchar_t *path, std::wstring *mapped)
{
    HRESULT result;

    if (s_script.map == nullptr) {
        *mapped = path;
        return S_OK;
    }
    mapped->assign(PATH_CHARS, L'\0');
    result = s_script.map(path, &(*mapped)[0], mapped->size(), s_script.user);
    mapped->resize(wcsnlen(mapped->c_str(), mapped->size()));
    return result;
}

void engine_loading_set(const struct engine_loading *loading)
{
    s_loading = loading != nullptr ? *loading : engine_loading();
}

const struct engine_loading &engine_script_loading(void)
{
    return s_loading;
}

HRESULT engine_script_open(const wchar_t *path)
{
    const HRESULT result = s_loading.open != nullptr ? s_loading.open(path) : S_OK;

    return result == S_OK ? S_OK : engine_script_refuse(path, result, "the file cannot be opened");
}

HRESULT engine_images_set(const struct engine_image *images, size_t count)
{
    s_images.clear();
    try {
        for (size_t i = 0; i < count; i++) {
            kernel_image image;

            if (kernel_image_open(images[i].file, static_cast<const uint8_t *>(images[i].bytes),
                                  images[i].size, &image) == nullptr)
                s_images.push_back(image);
        }
    } catch (const std::bad_alloc &) {
        s_images.clear();
        return E_OUTOFMEMORY;
    }
    return S_OK;
}

const std::vector<kernel_image> &engine_script_images(void)
{
    return s_images;
}

void engine_watch(engine_called_fn called)
{
    s_called = called;
}

void engine_script_called(const char *format, ...)
{
    char call[512];
    va_list arguments;

    if (s_called == nullptr)
        return;
    va_start(arguments, format);
    vsnprintf(call, sizeof call, format, arguments);
    va_end(arguments);
    s_called(call);
}

HRESULT engine_script_refuse(const wchar_t *path, HRESULT result, const char *reason)
{
    if (s_script.refused != nullptr)
        s_script.refused(path, result, reason, s_script.user);
    return result;
}
