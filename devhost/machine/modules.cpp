/* Modules that the plug-in loads and looks up at run time: kernel32's tick count, the debugger
 * engine and its presence check. */
#include "modules.h"

#include <map>
#include <string_view>

#include "../../platform/liboxnibase/host.h"
#include "../base/text.h"
#include "../calls/calls.h"
#include "../calls/heap.h"
#include "../calls/stand_in.h"
#include "../dbgeng/engine_script.h"
#include "../disk/files.h"
#include "../disk/memory_disk.h"
#include "machine.h"
#include "machine_internal.h"

/* The engine beside this program; NULL until it is needed. */
static HMODULE s_engine;
static struct machine_engine s_state;
static void (*s_watch)(const std::string &news);

/* What the agent's process has loaded at run time. */
struct loaded_library {
    std::string name; /* in lower case */
    int64_t times;
};
static std::map<HMODULE, loaded_library> s_loaded;

static ULONGLONG WINAPI stand_in_GetTickCount64(void)
{
    return oxnih_clock_tick_ms();
}

/* Used for "dbghelp.dll", which the plug-in loads and frees only. */
static HMODULE presence_module(void)
{
    return GetModuleHandleW(nullptr);
}

static HMODULE engine_module(void)
{
    wchar_t path[1024];
    DWORD chars;

    if (s_engine != nullptr)
        return s_engine;
    chars = GetModuleFileNameW(nullptr, path, ARRAYSIZE(path));
    while (chars > 0 && path[chars - 1] != L'\\')
        chars--;
    path[chars] = L'\0';
    s_engine = LoadLibraryW((std::wstring(path) + L"dbgeng.dll").c_str());
    if (s_engine != nullptr) {
        heap_redirect(s_engine);
        memory_disk_redirect(s_engine, true);
    }
    return s_engine;
}

template <typename function> static function engine_function(const char *name)
{
    static std::map<std::string_view, void *> functions; /* the engine stays loaded */
    const HMODULE engine = engine_module();
    void *&found = functions[name];

    if (found == nullptr && engine != nullptr)
        found = reinterpret_cast<void *>(GetProcAddress(engine, name));
    if (found == nullptr)
        throw devhost_error(EXIT_NO_PLUGIN,
                            text_format("dbgeng.dll beside oxni_devhost.exe lacks %s (under Wine "
                                        "it is taken only with WINEDLLOVERRIDES=dbgeng=n,b)",
                                        name));
    return reinterpret_cast<function>(found);
}

static HRESULT map_dump(const wchar_t *path, wchar_t *mapped, size_t chars, void *user)
{
    const auto &files = s_state.dump_files;
    const auto file = files.find(text_lower(std::wstring(path)));
    std::wstring real_path = file != files.end() ? file->second : machine_real_path(path);

    (void)user;
    if (s_watch != nullptr)
        s_watch("opens " + text_narrow(path));
    if (real_path.size() >= chars)
        return HRESULT_FROM_WIN32(ERROR_FILENAME_EXCED_RANGE);
    lstrcpyW(mapped, real_path.c_str());
    return S_OK;
}

static void note_refusal(const wchar_t *path, HRESULT result, const char *reason, void *user)
{
    (void)user;
    if (s_watch != nullptr)
        s_watch(text_format("refuses %s: %s (0x%08lx)", text_narrow(path).c_str(), reason,
                            static_cast<unsigned long>(result)));
}

static HMODULE load_library(const std::wstring &lower)
{
    if (lower != L"dbghelp.dll" && lower != L"dbgeng.dll")
        return LoadLibraryW(lower.c_str());
    if (!s_state.present)
        return stand_in_fail(ERROR_MOD_NOT_FOUND, static_cast<HMODULE>(nullptr));
    return lower == L"dbgeng.dll" ? engine_module() : presence_module();
}

static HMODULE WINAPI stand_in_LoadLibraryW(const wchar_t *name)
{
    if (name == nullptr)
        return stand_in_fail(ERROR_INVALID_PARAMETER, static_cast<HMODULE>(nullptr));
    const std::wstring lower = text_lower(std::wstring(name));
    HMODULE module = load_library(lower);

    if (module != nullptr) {
        s_loaded[module].name = text_narrow(lower);
        s_loaded[module].times++;
    }
    return module;
}

/* The modules of this program stay when the plug-in frees them. */
static BOOL WINAPI stand_in_FreeLibrary(HMODULE module)
{
    auto loaded = s_loaded.find(module);

    if (loaded == s_loaded.end() || loaded->second.times == 0)
        return stand_in_fail(ERROR_MOD_NOT_FOUND, FALSE);
    loaded->second.times--;
    return module == presence_module() || module == s_engine || FreeLibrary(module);
}

static FARPROC WINAPI stand_in_GetProcAddress(HMODULE module, const char *name)
{
    /* By ordinal the name is a small number. */
    if (reinterpret_cast<uintptr_t>(name) > 0xffff && strcmp(name, "GetTickCount64") == 0) {
        if (machine_get().has_tick_count_64)
            return reinterpret_cast<FARPROC>(reinterpret_cast<void *>(stand_in_GetTickCount64));
        SetLastError(ERROR_PROC_NOT_FOUND);
        return nullptr;
    }
    return GetProcAddress(module, name);
}

static void trace_engine(const char *call)
{
    calls_trace(std::string("dbgeng.") + call);
}

/* As the engine opens a dump that it reads. */
static HRESULT open_scripted_dump(const wchar_t *path)
{
    HANDLE file = CreateFileW(machine_real_path(path).c_str(), GENERIC_READ, FILE_SHARE_READ,
                              nullptr, OPEN_EXISTING, FILE_ATTRIBUTE_NORMAL, nullptr);

    if (file == INVALID_HANDLE_VALUE)
        return HRESULT_FROM_WIN32(GetLastError());
    CloseHandle(file);
    return S_OK;
}

static void update_loading(void)
{
    engine_loading loading = {};

    loading.ms = s_state.load_ms;
    loading.text = s_state.load_text.empty() ? nullptr : s_state.load_text.c_str();
    loading.wait = [](unsigned ms) { oxnih_clock_advance(ms); };
    loading.open = open_scripted_dump;
    engine_function<engine_loading_set_fn>("engine_loading_set")(&loading);
}

static void update_images(void)
{
    std::vector<engine_image> images;

    for (const machine_image &image : s_state.images)
        images.push_back({image.file.c_str(), image.bytes, image.size});
    if (engine_function<engine_images_set_fn>("engine_images_set")(images.data(), images.size()) !=
        S_OK)
        throw std::bad_alloc();
}

void machine_update_engine(void)
{
    std::vector<engine_script_fault> faults;
    std::vector<engine_script_stack> stacks;
    engine_script script = {};
    HRESULT result;

    for (const auto &fault : s_state.faults)
        faults.push_back({fault.first.c_str(), fault.second});
    for (const auto &stack : s_state.stacks)
        stacks.push_back({stack.first.c_str(), stack.second.c_str()});
    script.struct_bytes = sizeof(script);
    script.faults = faults.data();
    script.fault_count = faults.size();
    script.stacks = stacks.data();
    script.stack_count = stacks.size();
    script.map = map_dump;
    script.refused = note_refusal;
    result = engine_function<engine_script_set_fn>("engine_script_set")(&script);
    if (FAILED(result))
        throw devhost_error(EXIT_BAD_CALL,
                            text_format("the engine refuses its faults and stacks, 0x%08lx",
                                        static_cast<unsigned long>(result)));
    update_loading();
    update_images();
    engine_function<engine_watch_fn>("engine_watch")(trace_engine);
}

struct machine_engine &machine_get_engine(void)
{
    return s_state;
}

void machine_reset_engine(void)
{
    s_state = {};
    if (s_engine != nullptr)
        machine_update_engine();
}

void machine_watch_engine(void (*fn)(const std::string &news))
{
    s_watch = fn;
}

void *machine_module_stand_in(const char *name)
{
    static const stand_in_row rows[] = {
        STAND_IN(LoadLibraryW),
        STAND_IN(FreeLibrary),
        STAND_IN(GetProcAddress),
    };

    return stand_in_find(rows, name);
}

std::string machine_engine_left(void)
{
    struct engine_counts counts;

    if (s_engine == nullptr)
        return "";
    engine_function<engine_counts_get_fn>("engine_counts_get")(&counts);
    if (counts.objects == 0 && counts.references == 0 && counts.callbacks == 0)
        return "";
    return text_format("%u engine objects, %u references, %u output callbacks",
                       static_cast<unsigned>(counts.objects),
                       static_cast<unsigned>(counts.references),
                       static_cast<unsigned>(counts.callbacks));
}

std::string machine_libraries_left(void)
{
    std::string text;

    for (const auto &[module, loaded] : s_loaded)
        for (int64_t times = module == s_engine ? 1 : 0; times < loaded.times; times++)
            text += (text.empty() ? "" : ", ") + loaded.name;
    return text;
}

void machine_start_modules(void)
{
    s_loaded.clear();
}
