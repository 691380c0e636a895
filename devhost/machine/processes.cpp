/* Process snapshots and times, services, and the privileges of the agent's token. */
#include "machine.h"

#include <tlhelp32.h>

#include "../base/text.h"
#include "stand_in.h"

enum {
    TOKEN_RIGHTS = TOKEN_ADJUST_PRIVILEGES | TOKEN_QUERY
};

/* Snapshot to the next entry; open process to its index; open service to its name. */
static std::map<HANDLE, size_t> s_snapshots;
static std::map<HANDLE, size_t> s_processes;
static std::map<HANDLE, std::wstring> s_services;
static std::set<HANDLE> s_managers;
static std::set<HANDLE> s_tokens;
/* Privilege names in the order in which they got a LUID; its low part is the place, from 1. */
static std::vector<std::string> s_privileges;

static BOOL fail_with(DWORD error)
{
    SetLastError(error);
    return FALSE;
}

static HANDLE WINAPI stand_in_CreateToolhelp32Snapshot(DWORD flags, DWORD pid)
{
    HANDLE handle = machine_new_handle();

    (void)pid;
    if (flags != TH32CS_SNAPPROCESS) {
        SetLastError(ERROR_INVALID_PARAMETER);
        return INVALID_HANDLE_VALUE;
    }
    s_snapshots[handle] = 0;
    return handle;
}

static BOOL WINAPI stand_in_Process32NextW(HANDLE handle, PROCESSENTRY32W *entry)
{
    auto snapshot = s_snapshots.find(handle);
    const std::vector<machine_process> &processes = machine_get().processes;

    if (snapshot == s_snapshots.end())
        return fail_with(ERROR_INVALID_HANDLE);
    if (entry->dwSize != sizeof(*entry))
        return fail_with(ERROR_BAD_LENGTH);
    if (snapshot->second == processes.size())
        return fail_with(ERROR_NO_MORE_FILES);
    const machine_process &process = processes[snapshot->second++];
    ZeroMemory(entry, sizeof(*entry));
    entry->dwSize = sizeof(*entry);
    entry->th32ProcessID = process.pid;
    entry->th32ParentProcessID = process.parent;
    lstrcpynW(entry->szExeFile, process.name.c_str(), MAX_PATH);
    return TRUE;
}

static BOOL WINAPI stand_in_Process32FirstW(HANDLE handle, PROCESSENTRY32W *entry)
{
    auto snapshot = s_snapshots.find(handle);

    if (snapshot == s_snapshots.end())
        return fail_with(ERROR_INVALID_HANDLE);
    snapshot->second = 0;
    return stand_in_Process32NextW(handle, entry);
}

static HANDLE WINAPI stand_in_OpenProcess(DWORD access, BOOL inherit, DWORD pid)
{
    const std::vector<machine_process> &processes = machine_get().processes;
    HANDLE handle = machine_new_handle();

    (void)access;
    (void)inherit;
    for (size_t index = 0; index < processes.size(); index++)
        if (processes[index].pid == pid) {
            s_processes[handle] = index;
            return handle;
        }
    SetLastError(ERROR_INVALID_PARAMETER);
    return NULL;
}

static BOOL WINAPI stand_in_GetProcessTimes(HANDLE handle, FILETIME *creation, FILETIME *exited,
                                            FILETIME *kernel, FILETIME *user)
{
    auto process = s_processes.find(handle);

    if (process == s_processes.end())
        return fail_with(ERROR_INVALID_HANDLE);
    uint64_t created = machine_get().processes[process->second].created_100ns;
    *creation = {static_cast<DWORD>(created), static_cast<DWORD>(created >> 32)};
    *exited = *kernel = *user = {0, 0};
    return TRUE;
}

static BOOL WINAPI stand_in_OpenProcessToken(HANDLE process, DWORD access, HANDLE *token)
{
    (void)process;
    if (access != TOKEN_RIGHTS)
        return fail_with(ERROR_ACCESS_DENIED);
    *token = machine_new_handle();
    s_tokens.insert(*token);
    return TRUE;
}

static BOOL WINAPI stand_in_LookupPrivilegeValueA(const char *system, const char *name, LUID *luid)
{
    size_t place = 0;

    (void)system;
    while (place < s_privileges.size() && s_privileges[place] != name)
        place++;
    if (place == s_privileges.size())
        s_privileges.push_back(name);
    *luid = {static_cast<DWORD>(place + 1), 0};
    return TRUE;
}

/* Succeeds for a privilege that the token lacks, and then says so by the last error. */
static BOOL WINAPI stand_in_AdjustTokenPrivileges(HANDLE token, BOOL disable_all,
                                                  TOKEN_PRIVILEGES *set, DWORD bytes,
                                                  TOKEN_PRIVILEGES *previous, DWORD *needed)
{
    (void)disable_all;
    (void)bytes;
    (void)previous;
    (void)needed;
    if (s_tokens.count(token) == 0)
        return fail_with(ERROR_INVALID_HANDLE);
    DWORD place = set->Privileges[0].Luid.LowPart;
    bool held = place >= 1 && place <= s_privileges.size() &&
                machine_get().privileges.count(s_privileges[place - 1]) != 0;
    SetLastError(held ? ERROR_SUCCESS : ERROR_NOT_ALL_ASSIGNED);
    return TRUE;
}

static SC_HANDLE WINAPI stand_in_OpenSCManagerW(const wchar_t *computer, const wchar_t *database,
                                                DWORD access)
{
    HANDLE handle = machine_new_handle();

    (void)computer;
    (void)database;
    (void)access;
    s_managers.insert(handle);
    return static_cast<SC_HANDLE>(handle);
}

static SC_HANDLE WINAPI stand_in_OpenServiceW(SC_HANDLE manager, const wchar_t *name, DWORD access)
{
    HANDLE handle = machine_new_handle();

    (void)access;
    if (s_managers.count(manager) == 0 ||
        machine_get().services.count(text_lower(std::wstring(name))) == 0) {
        SetLastError(s_managers.count(manager) == 0 ? ERROR_INVALID_HANDLE
                                                    : ERROR_SERVICE_DOES_NOT_EXIST);
        return NULL;
    }
    s_services[handle] = text_lower(std::wstring(name));
    return static_cast<SC_HANDLE>(handle);
}

static BOOL WINAPI stand_in_QueryServiceStatus(SC_HANDLE handle, SERVICE_STATUS *status)
{
    auto service = s_services.find(handle);

    if (service == s_services.end())
        return fail_with(ERROR_INVALID_HANDLE);
    std::vector<DWORD> &states = machine_get().services[service->second];
    ZeroMemory(status, sizeof(*status));
    status->dwServiceType = SERVICE_KERNEL_DRIVER;
    status->dwCurrentState = states.front();
    if (states.size() > 1)
        states.erase(states.begin());
    return TRUE;
}

static BOOL WINAPI stand_in_CloseServiceHandle(SC_HANDLE handle)
{
    if (s_services.erase(handle) != 0 || s_managers.erase(handle) != 0)
        return TRUE;
    return fail_with(ERROR_INVALID_HANDLE);
}

bool machine_close_process_handle(HANDLE handle)
{
    return s_snapshots.erase(handle) != 0 || s_processes.erase(handle) != 0 ||
           s_tokens.erase(handle) != 0;
}

void *machine_process_stand_in(const char *name)
{
    static const stand_in_row rows[] = {
        STAND_IN(CreateToolhelp32Snapshot), STAND_IN(Process32FirstW),
        STAND_IN(Process32NextW),           STAND_IN(OpenProcess),
        STAND_IN(GetProcessTimes),          STAND_IN(OpenProcessToken),
        STAND_IN(LookupPrivilegeValueA),    STAND_IN(AdjustTokenPrivileges),
        STAND_IN(OpenSCManagerW),           STAND_IN(OpenServiceW),
        STAND_IN(QueryServiceStatus),       STAND_IN(CloseServiceHandle),
    };

    return stand_in_find(rows, name);
}
