/* Process snapshots and times. Rights are granted as to an administrator on Windows 8.1 and later. */
#include "machine.h"

#include <tlhelp32.h>

#include "../base/text.h"
#include "stand_in.h"

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
    HANDLE handle = machine_new_handle();

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
        HANDLE handle = machine_new_handle();
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

bool machine_close_process_handle(HANDLE handle)
{
    return s_snapshots.erase(handle) != 0 || s_processes.erase(handle) != 0;
}

bool machine_process_grants(HANDLE handle, DWORD rights)
{
    auto process = s_processes.find(handle);

    return handle == GetCurrentProcess() ||
           (process != s_processes.end() && (process->second.access & rights) != 0);
}

void *machine_process_stand_in(const char *name)
{
    static const stand_in_row rows[] = {
        STAND_IN(CreateToolhelp32Snapshot), STAND_IN(Process32FirstW),
        STAND_IN(Process32NextW),           STAND_IN(OpenProcess),
        STAND_IN(GetProcessTimes),
    };

    return stand_in_find(rows, name);
}
