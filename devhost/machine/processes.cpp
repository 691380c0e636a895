/* Process snapshots and times, handles and the environment. Rights are granted as to an administrator on Windows 8.1 and later. */
#include "machine.h"

#include <tlhelp32.h>

#include "../base/text.h"
#include "../calls/stand_in.h"
#include "../disk/files.h"
#include "machine_internal.h"

static constexpr wchar_t AGENT_NAME[] = L"oxni_agent.exe";

enum {
    SNAPSHOT_FLAGS = TH32CS_SNAPALL | TH32CS_SNAPMODULE32,
    PROTECTED_RIGHTS = PROCESS_QUERY_LIMITED_INFORMATION | SYNCHRONIZE,
    QUERY_RIGHTS = PROCESS_QUERY_INFORMATION | PROCESS_QUERY_LIMITED_INFORMATION
};

struct open_snapshot {
    std::vector<machine_process> processes;
    size_t next;
};

struct open_process {
    uint64_t created_100ns;
    DWORD access;
};

static std::map<HANDLE, open_snapshot> s_snapshots;
static std::map<HANDLE, open_process> s_processes;

/* The processes of the machine, and the agent's own. A machine without processes has a snapshot
 * whose first read fails. */
static std::vector<machine_process> all_processes(void)
{
    std::vector<machine_process> processes = machine_get().processes;

    if (!processes.empty())
        processes.push_back(
            {GetCurrentProcessId(), 0, AGENT_NAME, machine_get().boot_100ns, false});
    return processes;
}

static HANDLE WINAPI stand_in_CreateToolhelp32Snapshot(DWORD flags, DWORD pid)
{
    HANDLE handle = stand_in_new_handle();

    (void)pid; /* for modules and heaps only */
    if ((flags & SNAPSHOT_FLAGS) == 0)
        return stand_in_fail(ERROR_INVALID_PARAMETER, INVALID_HANDLE_VALUE);
    s_snapshots[handle] = {};
    if ((flags & TH32CS_SNAPPROCESS) != 0)
        s_snapshots[handle].processes = all_processes();
    return handle;
}

/* Everything but dwSize, which stays the caller's. */
static void fill_entry(const machine_process &process, PROCESSENTRY32W *entry)
{
    const DWORD bytes = entry->dwSize;

    ZeroMemory(entry, sizeof(*entry));
    entry->dwSize = bytes;
    entry->th32ProcessID = process.pid;
    entry->th32ParentProcessID = process.parent;
    entry->cntThreads = 1;
    entry->pcPriClassBase = 8; /* NORMAL_PRIORITY_CLASS */
    lstrcpynW(entry->szExeFile, process.name.c_str(), MAX_PATH);
}

static BOOL WINAPI stand_in_Process32NextW(HANDLE handle, PROCESSENTRY32W *entry)
{
    auto snapshot = s_snapshots.find(handle);

    if (snapshot == s_snapshots.end())
        return stand_in_fail(ERROR_INVALID_HANDLE, FALSE);
    if (entry == nullptr)
        return stand_in_fail(ERROR_NOACCESS, FALSE);
    if (entry->dwSize < sizeof(*entry))
        return stand_in_fail(ERROR_BAD_LENGTH, FALSE);
    if (snapshot->second.next >= snapshot->second.processes.size())
        return stand_in_fail(ERROR_NO_MORE_FILES, FALSE);
    fill_entry(snapshot->second.processes[snapshot->second.next++], entry);
    return TRUE;
}

static BOOL WINAPI stand_in_Process32FirstW(HANDLE handle, PROCESSENTRY32W *entry)
{
    auto snapshot = s_snapshots.find(handle);

    if (snapshot != s_snapshots.end())
        snapshot->second.next = 0;
    return stand_in_Process32NextW(handle, entry);
}

static HANDLE WINAPI stand_in_OpenProcess(DWORD access, BOOL inherit, DWORD pid)
{
    (void)inherit;
    for (const machine_process &process : all_processes()) {
        if (process.pid != pid || pid == 0)
            continue;
        if (process.is_protected && (access & ~static_cast<DWORD>(PROTECTED_RIGHTS)) != 0)
            return stand_in_fail(ERROR_ACCESS_DENIED, static_cast<HANDLE>(nullptr));
        HANDLE handle = stand_in_new_handle();
        s_processes[handle] = {process.created_100ns, access};
        return handle;
    }
    return stand_in_fail(ERROR_INVALID_PARAMETER, static_cast<HANDLE>(nullptr));
}

static BOOL WINAPI stand_in_GetProcessTimes(HANDLE handle, FILETIME *creation, FILETIME *exited,
                                            FILETIME *kernel, FILETIME *user)
{
    auto process = s_processes.find(handle);
    uint64_t created = machine_get().boot_100ns; /* of the agent itself */

    if (process == s_processes.end() && handle != GetCurrentProcess())
        return stand_in_fail(ERROR_INVALID_HANDLE, FALSE);
    if (process != s_processes.end()) {
        if ((process->second.access & QUERY_RIGHTS) == 0)
            return stand_in_fail(ERROR_ACCESS_DENIED, FALSE);
        created = process->second.created_100ns;
    }
    if (creation == nullptr || exited == nullptr || kernel == nullptr || user == nullptr)
        return stand_in_fail(ERROR_NOACCESS, FALSE);
    *creation = {static_cast<DWORD>(created), static_cast<DWORD>(created >> 32)};
    *exited = *kernel = *user = {0, 0};
    return TRUE;
}

static BOOL WINAPI stand_in_CloseHandle(HANDLE handle)
{
    return s_snapshots.erase(handle) != 0 || s_processes.erase(handle) != 0 ||
           machine_close_token(handle) || machine_close_file(handle);
}

bool machine_process_grants(HANDLE handle, DWORD rights)
{
    auto process = s_processes.find(handle);

    return handle == GetCurrentProcess() ||
           (process != s_processes.end() && (process->second.access & rights) != 0);
}

static UINT WINAPI stand_in_GetWindowsDirectoryW(wchar_t *buffer, UINT size)
{
    const std::wstring &folder = machine_get().windows_folder;

    if (folder.size() >= size)
        return static_cast<UINT>(folder.size() + 1);
    lstrcpyW(buffer, folder.c_str());
    return static_cast<UINT>(folder.size());
}

/* Unknown names stay, with both of their percent signs. */
std::wstring machine_expand(const std::wstring &text)
{
    const auto &environment = machine_get().environment;
    std::wstring expanded;
    size_t at = 0, open, end;

    while ((open = text.find(L'%', at)) != std::wstring::npos &&
           (end = text.find(L'%', open + 1)) != std::wstring::npos) {
        auto value = environment.find(text_lower(text.substr(open + 1, end - open - 1)));

        expanded += text.substr(at, open - at);
        expanded += value != environment.end() ? value->second : text.substr(open, end + 1 - open);
        at = end + 1;
    }
    return expanded + text.substr(at);
}

static DWORD WINAPI stand_in_ExpandEnvironmentStringsW(const wchar_t *source, wchar_t *buffer,
                                                       DWORD size)
{
    if (source == nullptr || (buffer == nullptr && size != 0))
        return stand_in_fail(ERROR_INVALID_PARAMETER, 0ul);
    const std::wstring expanded = machine_expand(source);
    if (expanded.size() < size)
        lstrcpyW(buffer, expanded.c_str());
    return static_cast<DWORD>(expanded.size() + 1);
}

void *machine_process_stand_in(const char *name)
{
    static const stand_in_row rows[] = {
        STAND_IN(CreateToolhelp32Snapshot), STAND_IN(Process32FirstW),
        STAND_IN(Process32NextW),           STAND_IN(OpenProcess),
        STAND_IN(GetProcessTimes),          STAND_IN(CloseHandle),
        STAND_IN(GetWindowsDirectoryW),     STAND_IN(ExpandEnvironmentStringsW),
    };

    return stand_in_find(rows, name);
}
