/* The token of the process. Stateless; the caller's thread. */
#include "process_privilege.h"

#include <windows.h>

#include "bypass_log.h"
#include "windows_owner.h"

static void set_token_privilege(HANDLE token, const LUID &luid, int32_t enable)
{
    TOKEN_PRIVILEGES privileges = {};
    DWORD error;

    privileges.PrivilegeCount = 1;
    privileges.Privileges[0].Luid = luid;
    privileges.Privileges[0].Attributes = enable == 1 ? SE_PRIVILEGE_ENABLED : 0;
    if (!AdjustTokenPrivileges(token, FALSE, &privileges, 0, NULL, NULL)) {
        error = GetLastError();
        LOG_WARN("AdjustTokenPrivileges failed: %d ", (int)error);
        return;
    }
    /* Windows reports success when the token lacks the privilege; only the error differs. */
    error = GetLastError();
    if (error == ERROR_NOT_ALL_ASSIGNED)
        LOG_WARN("The token does not have the specified privilege: %d ", (int)error);
    else
        LOG_INFO("adjust process privilege success with %d ", enable);
}

void adjust_process_privilege(const char *name, int32_t enable)
{
    HANDLE token = NULL;
    DWORD error;
    LUID luid;

    if (!OpenProcessToken(GetCurrentProcess(), TOKEN_ADJUST_PRIVILEGES | TOKEN_QUERY, &token)) {
        error = GetLastError();
        LOG_WARN("OpenProcessToken failed: %d ", (int)error);
        return;
    }
    const owned_handle owner(token);
    if (LookupPrivilegeValueA(NULL, name, &luid)) {
        set_token_privilege(token, luid, enable);
    } else {
        error = GetLastError();
        LOG_WARN("LookupPrivilegeValue failed: %d ", (int)error);
    }
}
