/* The service manager: each handle has the rights that it was opened with. */
#include "machine.h"

#include "../base/text.h"
#include "../calls/stand_in.h"
#include "machine_internal.h"

static constexpr int MAX_SERVICE_NAME_CHARS = 256;

struct open_service {
    bool is_manager;
    std::wstring name; /* in lower case */
    DWORD access;
};

static std::map<HANDLE, open_service> s_open;

/* SERVICE_QUERY_STATUS is part of generic reading, too. */
static bool grants_query(DWORD access)
{
    return (access & (SERVICE_QUERY_STATUS | GENERIC_READ | GENERIC_ALL | MAXIMUM_ALLOWED)) != 0;
}

static SC_HANDLE open_handle(const open_service &service)
{
    HANDLE handle = stand_in_new_handle();

    s_open[handle] = service;
    return static_cast<SC_HANDLE>(handle);
}

static SC_HANDLE refuse(DWORD error)
{
    return stand_in_fail(error, static_cast<SC_HANDLE>(nullptr));
}

static SC_HANDLE WINAPI stand_in_OpenSCManagerW(const wchar_t *computer, const wchar_t *database,
                                                DWORD access)
{
    if (computer != nullptr && *computer != L'\0')
        return refuse(RPC_S_SERVER_UNAVAILABLE);
    if (database != nullptr && lstrcmpiW(database, SERVICES_FAILED_DATABASEW) == 0)
        return refuse(ERROR_DATABASE_DOES_NOT_EXIST);
    if (database != nullptr && lstrcmpiW(database, SERVICES_ACTIVE_DATABASEW) != 0)
        return refuse(ERROR_INVALID_NAME);
    return open_handle({true, L"", access});
}

static SC_HANDLE WINAPI stand_in_OpenServiceW(SC_HANDLE manager, const wchar_t *name, DWORD access)
{
    auto open = s_open.find(manager);

    if (open == s_open.end() || !open->second.is_manager)
        return refuse(ERROR_INVALID_HANDLE);
    if (name == nullptr)
        return refuse(ERROR_INVALID_ADDRESS);
    const std::wstring lower = text_lower(std::wstring(name));
    if (lower.empty() || lower.size() > MAX_SERVICE_NAME_CHARS ||
        lower.find_first_of(L"\\/") != std::wstring::npos)
        return refuse(ERROR_INVALID_NAME);
    if (machine_get().services.count(lower) == 0)
        return refuse(ERROR_SERVICE_DOES_NOT_EXIST);
    return open_handle({false, lower, access});
}

static BOOL WINAPI stand_in_QueryServiceStatus(SC_HANDLE handle, SERVICE_STATUS *status)
{
    auto service = s_open.find(handle);

    if (service == s_open.end() || service->second.is_manager)
        return stand_in_fail(ERROR_INVALID_HANDLE, FALSE);
    if (!grants_query(service->second.access))
        return stand_in_fail(ERROR_ACCESS_DENIED, FALSE);
    if (status == nullptr)
        return stand_in_fail(ERROR_INVALID_ADDRESS, FALSE);
    std::vector<DWORD> &states = machine_get().services[service->second.name];
    ZeroMemory(status, sizeof(*status));
    status->dwServiceType = SERVICE_KERNEL_DRIVER;
    status->dwCurrentState = states.front();
    if (states.size() > 1)
        states.erase(states.begin());
    return TRUE;
}

static BOOL WINAPI stand_in_CloseServiceHandle(SC_HANDLE handle)
{
    return s_open.erase(handle) != 0 || stand_in_fail(ERROR_INVALID_HANDLE, FALSE);
}

void *machine_service_stand_in(const char *name)
{
    static const stand_in_row rows[] = {
        STAND_IN(OpenSCManagerW),
        STAND_IN(OpenServiceW),
        STAND_IN(QueryServiceStatus),
        STAND_IN(CloseServiceHandle),
    };

    return stand_in_find(rows, name);
}
