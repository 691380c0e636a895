/* The processes of a machine of the test's own. */
#include "fake_processes.h"

#include <stdio.h>

static fake_processes *s_processes;
/* Any two addresses that are no handles. */
static int s_snapshot_handle, s_process_handle;

fake_processes::fake_processes()
    : snapshot_patch_("CreateToolhelp32Snapshot", snapshot), first_patch_("Process32FirstW", first),
      next_patch_("Process32NextW", next), open_patch_("OpenProcess", open),
      times_patch_("GetProcessTimes", times), close_patch_("CloseHandle", close)
{
    s_processes = this;
}

fake_processes::~fake_processes()
{
    s_processes = NULL;
}

HANDLE WINAPI fake_processes::snapshot(DWORD flags, DWORD process_id)
{
    if (flags == TH32CS_SNAPPROCESS && process_id == 0 && !s_processes->snapshot_null &&
        !s_processes->snapshot_invalid)
        return &s_snapshot_handle;
    SetLastError(ERROR_ACCESS_DENIED);
    return s_processes->snapshot_null ? NULL : INVALID_HANDLE_VALUE;
}

bool fake_processes::deliver(PROCESSENTRY32W *entry)
{
    if (entry->dwSize != 568) {
        SetLastError(ERROR_INVALID_PARAMETER);
        return false;
    }
    if (next_ == list.size()) {
        SetLastError(ERROR_NO_MORE_FILES);
        return false;
    }
    const fake_process &process = list[next_++];
    entry->th32ProcessID = process.id;
    entry->th32ParentProcessID = process.parent;
    wcscpy(entry->szExeFile, process.name);
    entry->dwSize = 0; /* callers set it for each entry */
    return true;
}

BOOL WINAPI fake_processes::first(HANDLE snapshot, PROCESSENTRY32W *entry)
{
    if (snapshot != &s_snapshot_handle) {
        SetLastError(ERROR_INVALID_HANDLE);
        return FALSE;
    }
    s_processes->next_ = 0;
    return s_processes->deliver(entry);
}

BOOL WINAPI fake_processes::next(HANDLE, PROCESSENTRY32W *entry)
{
    return s_processes->deliver(entry);
}

HANDLE WINAPI fake_processes::open(DWORD access, BOOL, DWORD process_id)
{
    const uint32_t error =
        access == PROCESS_QUERY_INFORMATION ? s_processes->full_error : s_processes->limited_error;
    char call[32];

    snprintf(call, sizeof(call), "open %lu %lx", process_id, access);
    s_processes->calls.push_back(call);
    if (error == 0)
        return &s_process_handle;
    SetLastError(error);
    return NULL;
}

BOOL WINAPI fake_processes::times(HANDLE, FILETIME *creation, FILETIME *, FILETIME *, FILETIME *)
{
    s_processes->calls.push_back("times");
    if (s_processes->times_error != 0) {
        SetLastError(s_processes->times_error);
        return FALSE;
    }
    creation->dwLowDateTime = (DWORD)s_processes->creation;
    creation->dwHighDateTime = (DWORD)(s_processes->creation >> 32);
    return TRUE;
}

BOOL WINAPI fake_processes::close(HANDLE handle)
{
    if (handle == &s_process_handle)
        s_processes->calls.push_back("close process");
    else if (handle == &s_snapshot_handle)
        s_processes->calls.push_back("close snapshot");
    else
        return s_processes->close_patch_.real<BOOL WINAPI(HANDLE)>()(handle);
    return TRUE;
}
