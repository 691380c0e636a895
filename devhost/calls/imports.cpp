/* The import table of a loaded module. */
#include "imports.h"

#include <cstdint>

#include <utility>

#include "../base/text.h"

static void each_of_library(uint8_t *base, const IMAGE_IMPORT_DESCRIPTOR &import,
                            const import_fn &fn)
{
    std::string library = text_lower(std::string(reinterpret_cast<char *>(base + import.Name)));
    const IMAGE_THUNK_DATA *name =
        reinterpret_cast<IMAGE_THUNK_DATA *>(base + import.OriginalFirstThunk);
    void **entry = reinterpret_cast<void **>(base + import.FirstThunk);

    for (; name->u1.AddressOfData != 0; name++, entry++) {
        const IMAGE_IMPORT_BY_NAME *by_name =
            reinterpret_cast<IMAGE_IMPORT_BY_NAME *>(base + name->u1.AddressOfData);

        if (!IMAGE_SNAP_BY_ORDINAL64(name->u1.Ordinal))
            fn(library, reinterpret_cast<const char *>(by_name->Name), entry);
    }
}

void imports_each(HMODULE module, const import_fn &fn)
{
    uint8_t *base = reinterpret_cast<uint8_t *>(module);
    const IMAGE_DOS_HEADER *dos = reinterpret_cast<IMAGE_DOS_HEADER *>(base);
    const IMAGE_DATA_DIRECTORY *directories =
        reinterpret_cast<IMAGE_NT_HEADERS *>(base + dos->e_lfanew)->OptionalHeader.DataDirectory;
    const IMAGE_DATA_DIRECTORY &table = directories[IMAGE_DIRECTORY_ENTRY_IAT];
    const IMAGE_IMPORT_DESCRIPTOR *import = reinterpret_cast<IMAGE_IMPORT_DESCRIPTOR *>(
        base + directories[IMAGE_DIRECTORY_ENTRY_IMPORT].VirtualAddress);
    DWORD protection;

    /* All entries lie in one table, and changing its protection costs more than all the rest. */
    VirtualProtect(base + table.VirtualAddress, table.Size, PAGE_READWRITE, &protection);
    for (; import->Name != 0; import++)
        each_of_library(base, *import, fn);
    VirtualProtect(base + table.VirtualAddress, table.Size, protection, &protection);
}

void *imports_redirect(void **entry, void *function)
{
    return std::exchange(*entry, function);
}
