/*
 * A registry export (.reg) as evidence: the values below HKEY_LOCAL_MACHINE.
 */
#ifndef DEVHOST_EVIDENCE_REGISTRY_FILE_H
#define DEVHOST_EVIDENCE_REGISTRY_FILE_H

#include <windows.h>

#include <string>
#include <vector>

#include "../base/file.h"

struct evidence_value {
    std::wstring key; /* below HKEY_LOCAL_MACHINE; the current control set is CurrentControlSet */
    std::wstring name;
    DWORD type;       /* REG_SZ and so on */
    std::string data; /* as in the registry: texts are UTF-16 with their NUL */

    /* A text in UTF-8, without its NUL. */
    std::string text() const;
};

struct evidence_registry {
    std::vector<evidence_value> values;
};

/* Adds the values of a file that regedit or "reg export" wrote, version 5 (UTF-16 or UTF-8) or 4
 * (UTF-8). Throws devhost_error with EXIT_BAD_EVIDENCE that names the line. */
void evidence_registry_read(const evidence_file &file, evidence_registry *registry);

#endif
