/*
 * The token of the agent's process: which privileges it holds and which of them are enabled. A new
 * process has those of the machine, all disabled.
 */
#include "machine.h"

#include <algorithm>
#include <iterator>
#include <utility>

#include "../calls/privileges.h"
#include "../calls/stand_in.h"
#include "machine_internal.h"

static constexpr uint32_t MAX_PRIVILEGES =
    1024u; /* a count beyond is taken for a mistake, not read */
static constexpr size_t PRIVILEGE_BYTES = sizeof(LUID_AND_ATTRIBUTES);

static std::map<HANDLE, DWORD> s_open; /* token handle to its rights */
/* The privileges that the process enabled, and that it removed, which is final: a bit for each. */
static uint64_t s_enabled, s_removed;

static_assert(FIRST_PRIVILEGE + ARRAYSIZE(PRIVILEGES) <= 64, "each LUID has a bit");

static uint64_t bit_of(DWORD luid)
{
    return uint64_t{1} << luid;
}

static bool luid_of(const char *name, DWORD *luid)
{
    /* In the usual spelling first: a plug-in looks one up at each poll. */
    const auto *found =
        std::find(std::begin(PRIVILEGES), std::end(PRIVILEGES), std::string_view(name));

    if (found == std::end(PRIVILEGES))
        found = std::find_if(std::begin(PRIVILEGES), std::end(PRIVILEGES),
                             [name](auto each) { return _stricmp(each.data(), name) == 0; });
    *luid = static_cast<DWORD>(found - std::begin(PRIVILEGES)) + FIRST_PRIVILEGE;
    return found != std::end(PRIVILEGES);
}

static bool is_held(const LUID &luid)
{
    const DWORD place = luid.LowPart - FIRST_PRIVILEGE;

    return luid.HighPart == 0 && place < ARRAYSIZE(PRIVILEGES) &&
           (s_removed & bit_of(luid.LowPart)) == 0 &&
           machine_get().privileges.count(PRIVILEGES[place]) != 0;
}

void machine_start_token(void)
{
    s_open.clear();
    s_enabled = s_removed = 0;
}

bool machine_token_has_enabled(const char *name)
{
    DWORD luid;

    return luid_of(name, &luid) && is_held({luid, 0}) && (s_enabled & bit_of(luid)) != 0;
}

std::string machine_token_changes(void)
{
    std::string text;

    for (const auto &change :
         {std::make_pair(s_enabled, " enabled"), std::make_pair(s_removed, " removed")})
        for (DWORD i = 0; i < ARRAYSIZE(PRIVILEGES); i++)
            if ((change.first & bit_of(FIRST_PRIVILEGE + i)) != 0)
                text += (text.empty() ? "" : ", ") + std::string(PRIVILEGES[i]) + change.second;
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

    if (!disable_all)
        return {set->Privileges, set->Privileges + set->PrivilegeCount};
    for (DWORD luid = FIRST_PRIVILEGE; luid < FIRST_PRIVILEGE + ARRAYSIZE(PRIVILEGES); luid++)
        if ((s_enabled & bit_of(luid)) != 0)
            wanted.push_back({
                {luid, 0},
                0
            });
    return wanted;
}

/* Applies one change to a held privilege. Result: whether it changed anything. */
static bool apply(const LUID_AND_ATTRIBUTES &wanted)
{
    const uint64_t bit = bit_of(wanted.Luid.LowPart), enabled = s_enabled, removed = s_removed;

    if ((wanted.Attributes & (SE_PRIVILEGE_REMOVED | SE_PRIVILEGE_ENABLED)) == SE_PRIVILEGE_ENABLED)
        s_enabled |= bit;
    else
        s_enabled &= ~bit;
    if ((wanted.Attributes & SE_PRIVILEGE_REMOVED) == 0)
        return s_enabled != enabled;
    s_removed |= bit;
    return s_removed != removed;
}

static BOOL apply_all(const std::vector<LUID_AND_ATTRIBUTES> &wanted, TOKEN_PRIVILEGES *previous)
{
    bool all_held = true;
    DWORD changed = 0;

    for (const LUID_AND_ATTRIBUTES &one : wanted) {
        const uint64_t enabled = s_enabled;

        if (!is_held(one.Luid))
            all_held = false;
        else if (apply(one) && previous != nullptr)
            previous->Privileges[changed++] = {
                one.Luid, (enabled & bit_of(one.Luid.LowPart)) != 0 ? SE_PRIVILEGE_ENABLED : 0ul};
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
