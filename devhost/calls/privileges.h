/* The privileges of Windows by their LUID (winnt.h, SE_MIN_WELL_KNOWN_PRIVILEGE in wdm.h). */
#ifndef DEVHOST_PRIVILEGES_H
#define DEVHOST_PRIVILEGES_H

#include <windows.h>

#include <string_view>

static constexpr DWORD FIRST_PRIVILEGE = 2;
/* By their LUID, from the first one on. */
static constexpr std::string_view PRIVILEGES[] = {
    "SeCreateTokenPrivilege",
    "SeAssignPrimaryTokenPrivilege",
    "SeLockMemoryPrivilege",
    "SeIncreaseQuotaPrivilege",
    "SeMachineAccountPrivilege",
    "SeTcbPrivilege",
    "SeSecurityPrivilege",
    "SeTakeOwnershipPrivilege",
    "SeLoadDriverPrivilege",
    "SeSystemProfilePrivilege",
    "SeSystemtimePrivilege",
    "SeProfileSingleProcessPrivilege",
    "SeIncreaseBasePriorityPrivilege",
    "SeCreatePagefilePrivilege",
    "SeCreatePermanentPrivilege",
    "SeBackupPrivilege",
    "SeRestorePrivilege",
    "SeShutdownPrivilege",
    "SeDebugPrivilege",
    "SeAuditPrivilege",
    "SeSystemEnvironmentPrivilege",
    "SeChangeNotifyPrivilege",
    "SeRemoteShutdownPrivilege",
    "SeUndockPrivilege",
    "SeSyncAgentPrivilege",
    "SeEnableDelegationPrivilege",
    "SeManageVolumePrivilege",
    "SeImpersonatePrivilege",
    "SeCreateGlobalPrivilege",
    "SeTrustedCredManAccessPrivilege",
    "SeRelabelPrivilege",
    "SeIncreaseWorkingSetPrivilege",
    "SeTimeZonePrivilege",
    "SeCreateSymbolicLinkPrivilege",
    "SeDelegateSessionUserImpersonatePrivilege",
};

/* Empty: there is none. */
inline std::string_view privilege_name(DWORD luid)
{
    const DWORD place = luid - FIRST_PRIVILEGE;

    return place < ARRAYSIZE(PRIVILEGES) ? PRIVILEGES[place] : "";
}

#endif
