/*
 * The token of the agent's process: which privileges it holds and which of them are enabled. A new
 * process has those of the machine, all disabled.
 */
#include "machine.h"

#include <utility>

#include "../calls/privileges.h"
#include "../calls/stand_in.h"
#include "machine_internal.h"

static constexpr uint32_t MAX_PRIVILEGES =
    1024u; /* a count beyond is taken for a mistake, not read */
static constexpr size_t PRIVILEGE_BYTES = sizeof(LUID_AND_ATTRIBUTES);

static std::map<HANDLE, DWORD> s_open; /* token handle to its rights */
/* LUIDs of the privileges that the process enabled, and that it removed, which is final. */
static std::set<DWORD> s_enabled, s_removed;

static bool luid_of(const char *name, DWORD *luid)
{
    /* In the usual spelling first: a plug-in looks one up at each poll. */
    for (int (*compare)(const char *, const char *) : {strcmp, _stricmp})
        for (size_t i = 0; i < ARRAYSIZE(PRIVILEGES); i++)
            if (compare(PRIVILEGES[i], name) == 0) {
                *luid = static_cast<DWORD>(i) + FIRST_PRIVILEGE;
                return true;
            }
    return false;
}

static bool is_held(const LUID &luid)
{
    const DWORD place = luid.LowPart - FIRST_PRIVILEGE;

    return luid.HighPart == 0 && place < ARRAYSIZE(PRIVILEGES) &&
           s_removed.count(luid.LowPart) == 0 &&
           machine_get().privileges.count(PRIVILEGES[place]) != 0;
}

void machine_start_token(void)
{
    s_open.clear();
    s_enabled.clear();
    s_removed.clear();
}

bool machine_token_has_enabled(const char *name)
{
    DWORD luid;

    return luid_of(name, &luid) && is_held({luid, 0}) && s_enabled.count(luid) != 0;
}

std::string machine_token_changes(void)
{
    std::string text;

    for (const auto &change :
         {std::make_pair(s_enabled, " enabled"), std::make_pair(s_removed, " removed")})
        for (const DWORD luid : change.first)
            text += (text.empty() ? "" : ", ") + std::string(PRIVILEGES[luid - FIRST_PRIVILEGE]) +
                    change.second;
    return text;
}

static BOOL WINAPI stand_in_OpenProcessToken(HANDLE process, DWORD access, HANDLE *token)
{
    if (!machine_process_grants(process,
                                PROCESS_QUERY_INFORMATION | PROCESS_QUERY_LIMITED_INFORMATION))
        return stand_in_fail(ERROR_INVALID_HANDLE, FALSE);
    if (token == nullptr)
        return stand_in_fail(ERROR_NOACCESS, FALSE);
    *token = stand_in_new_handle();
    s_open[*token] = access;
    return TRUE;
}

static BOOL WINAPI stand_in_LookupPrivilegeValueA(const char *system, const char *name, LUID *luid)
{
    DWORD value;

    if (system != nullptr && *system != '\0')
        return stand_in_fail(RPC_S_SERVER_UNAVAILABLE, FALSE);
    if (name == nullptr || !luid_of(name, &value))
        return stand_in_fail(ERROR_NO_SUCH_PRIVILEGE, FALSE);
    if (luid == nullptr)
        return stand_in_fail(ERROR_NOACCESS, FALSE);
    *luid = {value, 0};
    return TRUE;
}

/* What a call asks for: LUID and attributes, for every enabled privilege when all are disabled. */
static std::vector<LUID_AND_ATTRIBUTES> wanted_states(BOOL disable_all, const TOKEN_PRIVILEGES *set)
{
    std::vector<LUID_AND_ATTRIBUTES> wanted;

    if (disable_all)
        for (const DWORD luid : s_enabled)
            wanted.push_back({
                {luid, 0},
                0
            });
    else
        wanted.assign(set->Privileges, set->Privileges + set->PrivilegeCount);
    return wanted;
}

/* Applies one change to a held privilege. Result: whether it changed anything. */
static bool apply(const LUID_AND_ATTRIBUTES &wanted)
{
    const DWORD luid = wanted.Luid.LowPart;

    if ((wanted.Attributes & SE_PRIVILEGE_REMOVED) != 0) {
        s_enabled.erase(luid);
        return s_removed.insert(luid).second;
    }
    if ((wanted.Attributes & SE_PRIVILEGE_ENABLED) != 0)
        return s_enabled.insert(luid).second;
    return s_enabled.erase(luid) != 0;
}

static BOOL apply_all(const std::vector<LUID_AND_ATTRIBUTES> &wanted, TOKEN_PRIVILEGES *previous)
{
    bool all_held = true;
    DWORD changed = 0;

    for (const LUID_AND_ATTRIBUTES &one : wanted) {
        const DWORD before = s_enabled.count(one.Luid.LowPart) != 0 ? SE_PRIVILEGE_ENABLED : 0;

        if (!is_held(one.Luid))
            all_held = false;
        else if (apply(one) && previous != nullptr)
            previous->Privileges[changed++] = {one.Luid, before};
    }
    if (previous != nullptr)
        previous->PrivilegeCount = changed;
    /* A success, too, when the token lacks some: only the last error differs. */
    SetLastError(all_held ? ERROR_SUCCESS : ERROR_NOT_ALL_ASSIGNED);
    return TRUE;
}

static BOOL WINAPI stand_in_AdjustTokenPrivileges(HANDLE token, BOOL disable_all,
                                                  TOKEN_PRIVILEGES *set, DWORD bytes,
                                                  TOKEN_PRIVILEGES *previous, DWORD *needed)
{
    auto open = s_open.find(token);
    const DWORD rights = TOKEN_ADJUST_PRIVILEGES | (previous != nullptr ? TOKEN_QUERY : 0);

    if (open == s_open.end())
        return stand_in_fail(ERROR_INVALID_HANDLE, FALSE);
    if ((open->second & rights) != rights)
        return stand_in_fail(ERROR_ACCESS_DENIED, FALSE);
    if (!disable_all && (set == nullptr || set->PrivilegeCount > MAX_PRIVILEGES))
        return stand_in_fail(ERROR_INVALID_PARAMETER, FALSE);
    if (previous != nullptr && needed == nullptr)
        return stand_in_fail(ERROR_NOACCESS, FALSE);
    const std::vector<LUID_AND_ATTRIBUTES> wanted = wanted_states(disable_all, set);
    if (needed != nullptr)
        *needed = static_cast<DWORD>(sizeof(DWORD) + wanted.size() * PRIVILEGE_BYTES);
    if (previous != nullptr && bytes < *needed)
        return stand_in_fail(ERROR_INSUFFICIENT_BUFFER, FALSE);
    return apply_all(wanted, previous);
}

bool machine_close_token(HANDLE handle)
{
    return s_open.erase(handle) != 0;
}

void *machine_token_stand_in(const char *name)
{
    static const stand_in_row rows[] = {
        STAND_IN(OpenProcessToken),
        STAND_IN(LookupPrivilegeValueA),
        STAND_IN(AdjustTokenPrivileges),
    };

    return stand_in_find(rows, name);
}
