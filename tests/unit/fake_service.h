/* One service behind the service control calls of Windows, and the waits for it. */
#ifndef FAKE_SERVICE_H
#define FAKE_SERVICE_H

#include <string>
#include <vector>

#include <windows.h>

#include "import_patch.h"

class fake_service
{
  public:
    fake_service();
    ~fake_service();

    /* What opening the manager, and the service fails with; 0: it does not. */
    DWORD manager_error = 0, service_error = 0;
    /* What each query of the state answers, the last one again and again; 0: the query fails with
     * ERROR_ACCESS_DENIED. */
    std::vector<DWORD> states = {SERVICE_STOPPED};

    std::wstring opened_name;
    std::vector<unsigned> sleeps; /* seconds */
    int open_handles = 0;

  private:
    static SC_HANDLE WINAPI open_manager(const wchar_t *machine, const wchar_t *database,
                                         DWORD access);
    static SC_HANDLE WINAPI open_service(SC_HANDLE manager, const wchar_t *name, DWORD access);
    static BOOL WINAPI query(SC_HANDLE service, SERVICE_STATUS *status);
    static BOOL WINAPI close(SC_HANDLE handle);
    static void sleep(unsigned seconds);

    size_t queries_ = 0;
    import_patch manager_patch_, service_patch_, query_patch_, close_patch_, sleep_patch_;
};

#endif
