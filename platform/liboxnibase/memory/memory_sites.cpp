/*
 * Attribution of allocations: to the code that creates a JSON value, for example, not to the place
 * where Jansson allocates.
 */
#include "memory_internal.h"

#include <cstring>

/* Maximum number of frames between an allocation and the plug-in's code; Jansson needs about
 * ten. */
static constexpr int CALLER_FRAMES = 24;

static const char *module_base(const void *address)
{
    HMODULE module = nullptr;

    if (!GetModuleHandleExW(GET_MODULE_HANDLE_EX_FLAG_FROM_ADDRESS |
                                GET_MODULE_HANDLE_EX_FLAG_UNCHANGED_REFCOUNT,
                            static_cast<const wchar_t *>(address), &module))
        return nullptr;
    return reinterpret_cast<const char *>(module);
}

std::string memory_site_text(const void *address)
{
    const char *base = module_base(address);
    wchar_t path[MAX_PATH];
    char text[64];
    std::string name;

    if (base != nullptr &&
        GetModuleFileNameW(reinterpret_cast<HMODULE>(const_cast<char *>(base)), path, MAX_PATH)) {
        name = str_to_utf8(path);
        name.erase(0, name.find_last_of("/\\") + 1);
        name += "+";
    }
    snprintf(text, sizeof(text), "0x%llx",
             static_cast<unsigned long long>(reinterpret_cast<uintptr_t>(address) -
                                             reinterpret_cast<uintptr_t>(base)));
    return name + text;
}

static bool is_seen_through(uintptr_t address)
{
    for (const module_range &range : memory_all.seen_through)
        if (address >= range.begin && address < range.end)
            return true;
    return false;
}

void oxnih_memory_see_through(const void *address)
{
    const char *base = module_base(address);
    IMAGE_DOS_HEADER dos;
    IMAGE_NT_HEADERS64 nt;

    if (base == nullptr || is_seen_through(reinterpret_cast<uintptr_t>(address)))
        return;
    memcpy(&dos, base, sizeof(dos));
    memcpy(&nt, base + dos.e_lfanew, sizeof(nt));
    uintptr_t begin = reinterpret_cast<uintptr_t>(base);
    memory_all.seen_through.push_back({begin, begin + nt.OptionalHeader.SizeOfImage});
}

const void *memory_site_of(const void *caller)
{
    CONTEXT context;
    UNWIND_HISTORY_TABLE history = {};

    if (!is_seen_through(reinterpret_cast<uintptr_t>(caller)))
        return caller;
    RtlCaptureContext(&context);
    for (int frame = 0; frame < CALLER_FRAMES && context.Rip != 0; frame++) {
        DWORD64 image = 0, established = 0;
        void *handler_data = nullptr;
        PRUNTIME_FUNCTION function = RtlLookupFunctionEntry(context.Rip, &image, &history);
        if (function == nullptr)
            break;
        RtlVirtualUnwind(UNW_FLAG_NHANDLER, image, context.Rip, function, &context, &handler_data,
                         &established, nullptr);
        if (!is_seen_through(context.Rip))
            return reinterpret_cast<const void *>(context.Rip);
    }
    return caller;
}
