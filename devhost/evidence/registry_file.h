/*
 * A registry export (.reg) as evidence: the values below HKEY_LOCAL_MACHINE.
 */
#ifndef DEVHOST_EVIDENCE_REGISTRY_FILE_H
#define DEVHOST_EVIDENCE_REGISTRY_FILE_H

#include <windows.h>

#include <string>
#include <vector>

struct evidence_value {
    std::wstring key; /* below HKEY_LOCAL_MACHINE; the current control set is CurrentControlSet */
    std::wstring name;
    DWORD type;       /* REG_SZ and so on */
    std::string data; /* as in the registry: texts are UTF-16 with their NUL */
};

struct evidence_registry {
    std::vector<evidence_value> values;
};

/* Adds the values of a file that regedit or "reg export" wrote, version 5 (UTF-16 or UTF-8) or 4
 * (UTF-8). Throws devhost_error with EXIT_BAD_EVIDENCE that names the line. */
void evidence_registry_read(const std::string &path, evidence_registry *registry);
/* The same for a file that is open; path: for errors. */
class evidence_file;
void evidence_registry_parse(const std::string &path, const evidence_file &file,
                             evidence_registry *registry);

#endif
