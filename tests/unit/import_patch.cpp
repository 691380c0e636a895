/* The import table of the running executable. */
#include "import_patch.h"

#include <cstddef>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <windows.h>

static void write_entry(uintptr_t *entry, uintptr_t value)
{
    DWORD protection = 0;

    if (!VirtualProtect(entry, sizeof(*entry), PAGE_READWRITE, &protection))
        abort();
    *entry = value;
    VirtualProtect(entry, sizeof(*entry), protection, &protection);
}

static uintptr_t *find_entry(const char *wanted)
{
    uint8_t *base = reinterpret_cast<uint8_t *>(GetModuleHandleW(nullptr));
    const IMAGE_DOS_HEADER *dos = reinterpret_cast<IMAGE_DOS_HEADER *>(base);
    const IMAGE_NT_HEADERS *nt = reinterpret_cast<IMAGE_NT_HEADERS *>(base + dos->e_lfanew);
    const IMAGE_DATA_DIRECTORY *directory =
        &nt->OptionalHeader.DataDirectory[IMAGE_DIRECTORY_ENTRY_IMPORT];
    const IMAGE_IMPORT_DESCRIPTOR *library =
        reinterpret_cast<IMAGE_IMPORT_DESCRIPTOR *>(base + directory->VirtualAddress);

    for (; library->Name != 0; library++) {
        const uintptr_t *name = reinterpret_cast<uintptr_t *>(base + library->OriginalFirstThunk);
        uintptr_t *entry = reinterpret_cast<uintptr_t *>(base + library->FirstThunk);
        for (; *name != 0; name++, entry++) {
            const uint8_t *text = base + *name + offsetof(IMAGE_IMPORT_BY_NAME, Name);
            if (!IMAGE_SNAP_BY_ORDINAL64(*name) &&
                strcmp(reinterpret_cast<const char *>(text), wanted) == 0)
                return entry;
        }
    }
    return nullptr;
}

void import_patch::replace(const char *name, uintptr_t replacement)
{
    entry_ = find_entry(name);
    if (entry_ == nullptr) {
        fprintf(stderr, "import_patch: nothing imports %s\n", name);
        abort();
    }
    original_ = *entry_;
    write_entry(entry_, replacement);
}

import_patch::~import_patch()
{
    write_entry(entry_, original_);
}
