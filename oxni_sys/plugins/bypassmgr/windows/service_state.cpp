/* The service manager of Windows. Stateless; any thread of the host. */
#include "service_state.h"

#include <windows.h>

#include <oxni/base/time.h>

#include "bypass_log.h"
#include "windows_owner.h"

#define STATE_PAUSE_SECONDS 1

static bool is_pending(DWORD state)
{
    return state == SERVICE_START_PENDING || state == SERVICE_STOP_PENDING;
}

/* Waits for the end of a change of state, as long as the count allows. */
static bool is_open_service_stopped(SC_HANDLE service, const wchar_t *name, int32_t wait_count)
{
    SERVICE_STATUS status = {};

    for (;;) {
        if (!QueryServiceStatus(service, &status)) {
            const DWORD error = GetLastError();
            LOG_WARN("query service %S status failed %x.", name, (unsigned)error);
            return true;
        }
        if (!is_pending(status.dwCurrentState) || wait_count < 2)
            return status.dwCurrentState == SERVICE_STOPPED;
        wait_count--;
        oxni_sleep(STATE_PAUSE_SECONDS);
    }
}

bool is_service_stopped(int32_t wait_count, const wchar_t *service)
{
    const owned_service manager(OpenSCManagerW(NULL, NULL, SC_MANAGER_ALL_ACCESS));
    DWORD error;

    if (!manager.is_valid()) {
        error = GetLastError();
        LOG_WARN("open manager failed %x.", (unsigned)error);
        return false;
    }
    const owned_service handle(OpenServiceW(manager.get(), service, SERVICE_QUERY_STATUS));
    if (handle.is_valid())
        return is_open_service_stopped(handle.get(), service, wait_count);
    error = GetLastError();
    if (error == ERROR_SERVICE_DOES_NOT_EXIST)
        return true;
    LOG_WARN("open service %S failed %x.", service, (unsigned)error);
    return false;
}
