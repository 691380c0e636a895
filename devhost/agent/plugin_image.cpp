/* Repeated starts of one module without loading it. */
#include "plugin_image.h"

#include <cstdint>
#include <cstdlib>
#include <cstring>

#include <vector>

#include "../base/text.h"
#include "../calls/heap.h"

/* Structures of the loader's notification; mingw's headers lack them. */
struct unicode_string {
    USHORT bytes, max_bytes;
    wchar_t *text;
};
struct dll_notification {
    ULONG flags;
    const unicode_string *full_name, *base_name;
    void *base;
    ULONG bytes;
};
static constexpr int DLL_NOTIFICATION_LOADED = 1;
typedef void(CALLBACK *notification_fn)(ULONG reason, const dll_notification *data, void *context);
typedef LONG(NTAPI *register_fn)(ULONG flags, notification_fn fn, void *context, void **cookie);
typedef LONG(NTAPI *unregister_fn)(void *cookie);
typedef BOOL(WINAPI *entry_fn)(HINSTANCE module, DWORD reason, void *reserved);

struct saved_bytes {
    uint8_t *at;
    std::vector<uint8_t> bytes;
};

static struct {
    bool stays_mapped;
    std::wstring path;
    HMODULE module;                /* NULL: none is loaded */
    std::vector<saved_bytes> data; /* writable sections before the entry point first ran */
    /* The import table as the loader filled it, but for the heap, which may lie in a section that is
     * not writable; and as redirect left it. */
    saved_bytes imports, redirected;
} s_image;

static IMAGE_NT_HEADERS *headers_of(uint8_t *base)
{
    return reinterpret_cast<IMAGE_NT_HEADERS *>(
        base + reinterpret_cast<const IMAGE_DOS_HEADER *>(base)->e_lfanew);
}

static uint8_t *base_of(HMODULE module)
{
    return reinterpret_cast<uint8_t *>(module);
}

static saved_bytes save(uint8_t *at, size_t bytes)
{
    return {at, std::vector<uint8_t>(at, at + bytes)};
}

static void restore(const saved_bytes &saved)
{
    memcpy(saved.at, saved.bytes.data(), saved.bytes.size());
}

/* Calls fn for each section with that characteristic. */
template <typename Function> static void each_section(uint8_t *base, DWORD wanted, Function fn)
{
    IMAGE_NT_HEADERS *headers = headers_of(base);
    const IMAGE_SECTION_HEADER *section = reinterpret_cast<const IMAGE_SECTION_HEADER *>(
        reinterpret_cast<const BYTE *>(&headers->OptionalHeader) +
        headers->FileHeader.SizeOfOptionalHeader);

    for (WORD i = 0; i < headers->FileHeader.NumberOfSections; i++, section++)
        if ((section->Characteristics & wanted) != 0)
            fn(base + section->VirtualAddress, section->Misc.VirtualSize);
}

static void protect_code(DWORD protection)
{
    each_section(base_of(s_image.module), IMAGE_SCN_MEM_EXECUTE,
                 [protection](uint8_t *at, size_t bytes) {
                     DWORD before;

                     VirtualProtect(at, bytes, protection, &before);
                 });
}

static std::wstring file_name(const std::wstring &path)
{
    return text_lower(path.substr(path.find_last_of(L"\\/") + 1));
}

/* The loader calls this after it has filled the import table and before it runs the entry point. */
static void CALLBACK notified(ULONG reason, const dll_notification *data, void *context)
{
    const std::wstring name(data->base_name->text, data->base_name->bytes / sizeof(wchar_t));

    (void)context;
    if (reason == DLL_NOTIFICATION_LOADED && text_lower(name) == file_name(s_image.path))
        each_section(static_cast<uint8_t *>(data->base), IMAGE_SCN_MEM_WRITE,
                     [](uint8_t *at, size_t bytes) { s_image.data.push_back(save(at, bytes)); });
}

template <typename Function> static Function loader_function(const char *name)
{
    return reinterpret_cast<Function>(
        reinterpret_cast<void *>(GetProcAddress(GetModuleHandleW(L"ntdll.dll"), name)));
}

/* Loads the module and saves its writable sections before the entry point runs. */
static HMODULE load(void)
{
    auto subscribe = loader_function<register_fn>("LdrRegisterDllNotification");
    auto unsubscribe = loader_function<unregister_fn>("LdrUnregisterDllNotification");
    void *cookie = nullptr;
    HMODULE module;
    DWORD error;

    s_image.data.clear();
    if (s_image.stays_mapped && subscribe != nullptr)
        (void)subscribe(0, notified, nullptr, &cookie); /* on failure each start loads the file */
    module = LoadLibraryW(s_image.path.c_str());
    error = GetLastError();
    if (cookie != nullptr)
        (void)unsubscribe(cookie);
    SetLastError(error);
    return module;
}

static saved_bytes save_imports(void)
{
    uint8_t *base = base_of(s_image.module);
    const IMAGE_DATA_DIRECTORY &table =
        headers_of(base)->OptionalHeader.DataDirectory[IMAGE_DIRECTORY_ENTRY_IAT];
    DWORD before;

    /* Stays writable: each start writes it twice. */
    VirtualProtect(base + table.VirtualAddress, table.Size, PAGE_READWRITE, &before);
    return save(base + table.VirtualAddress, table.Size);
}

/* In the loader's order: the callbacks of thread-local storage, then the entry point. */
static BOOL run_entry_point(DWORD reason)
{
    uint8_t *base = base_of(s_image.module);
    const IMAGE_OPTIONAL_HEADER &header = headers_of(base)->OptionalHeader;
    const DWORD tls = header.DataDirectory[IMAGE_DIRECTORY_ENTRY_TLS].VirtualAddress;
    auto entry = reinterpret_cast<entry_fn>(base + header.AddressOfEntryPoint);

    if (tls != 0) {
        auto directory = reinterpret_cast<const IMAGE_TLS_DIRECTORY *>(base + tls);
        auto callback =
            reinterpret_cast<const PIMAGE_TLS_CALLBACK *>(directory->AddressOfCallBacks);

        for (; callback != nullptr && *callback != nullptr; callback++)
            (*callback)(base, reason, nullptr);
    }
    return entry(reinterpret_cast<HINSTANCE>(base), reason, nullptr);
}

void image_keep_mapped(bool on)
{
    image_unload();
    if (on && !s_image.stays_mapped)
        (void)atexit(
            image_unload); /* the process's end runs the entry point, which must not fault */
    s_image.stays_mapped = on;
}

static HMODULE start_from_file(const std::wstring &path, void (*redirect)(HMODULE plugin))
{
    image_unload();
    s_image.path = path;
    s_image.module = load();
    if (s_image.module == nullptr)
        return nullptr;
    /* The C++ runtime allocates 72 KB at each start, which Windows' heap maps anew each time. */
    heap_redirect(s_image.module);
    s_image.imports = save_imports();
    redirect(s_image.module);
    s_image.redirected = save_imports();
    return s_image.module;
}

HMODULE image_start(const std::wstring &path, void (*redirect)(HMODULE plugin))
{
    if (s_image.module == nullptr || path != s_image.path)
        return start_from_file(path, redirect);
    protect_code(PAGE_EXECUTE_READ);
    for (const saved_bytes &section : s_image.data)
        restore(section);
    restore(s_image.imports);
    if (!run_entry_point(DLL_PROCESS_ATTACH)) {
        protect_code(PAGE_NOACCESS);
        SetLastError(ERROR_DLL_INIT_FAILED);
        return nullptr;
    }
    restore(s_image.redirected);
    return s_image.module;
}

void image_end(void)
{
    if (!s_image.stays_mapped || s_image.data.empty()) {
        image_unload();
        return;
    }
    (void)run_entry_point(DLL_PROCESS_DETACH);
    protect_code(PAGE_NOACCESS);
}

void image_unload(void)
{
    if (s_image.module == nullptr)
        return;
    /* The entry point of an ended module runs a second time; its C runtime ignores that. */
    protect_code(PAGE_EXECUTE_READ);
    FreeLibrary(s_image.module);
    s_image.module = nullptr;
}
