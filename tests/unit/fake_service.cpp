/* One service of the test's own. */
#include "fake_service.h"

#include <algorithm>

static fake_service *s_service;

fake_service::fake_service()
    : manager_patch_("OpenSCManagerW", open_manager), service_patch_("OpenServiceW", open_service),
      query_patch_("QueryServiceStatus", query), close_patch_("CloseServiceHandle", close),
      sleep_patch_("oxni_sleep", sleep)
{
    s_service = this;
}

fake_service::~fake_service()
{
    s_service = NULL;
}

/* A handle, or NULL with the error set. The service itself stands for both. */
static SC_HANDLE handle_or_error(DWORD error)
{
    SetLastError(error);
    if (error != 0)
        return NULL;
    s_service->open_handles++;
    return reinterpret_cast<SC_HANDLE>(s_service);
}

SC_HANDLE WINAPI fake_service::open_manager(const wchar_t *machine, const wchar_t *database,
                                            DWORD access)
{
    if (machine != NULL || database != NULL || access != 0xF003F)
        return handle_or_error(ERROR_INVALID_PARAMETER);
    return handle_or_error(s_service->manager_error);
}

SC_HANDLE WINAPI fake_service::open_service(SC_HANDLE, const wchar_t *name, DWORD access)
{
    s_service->opened_name = name;
    return handle_or_error(access == SERVICE_QUERY_STATUS ? s_service->service_error
                                                          : ERROR_INVALID_PARAMETER);
}

BOOL WINAPI fake_service::query(SC_HANDLE, SERVICE_STATUS *status)
{
    status->dwCurrentState =
        s_service->states[std::min(s_service->queries_++, s_service->states.size() - 1)];
    SetLastError(ERROR_ACCESS_DENIED);
    return status->dwCurrentState != 0;
}

BOOL WINAPI fake_service::close(SC_HANDLE)
{
    s_service->open_handles--;
    return TRUE;
}

void fake_service::sleep(unsigned seconds)
{
    s_service->sleeps.push_back(seconds);
}
