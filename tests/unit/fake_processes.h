/* The processes of a machine of the test's own: what a snapshot lists, and when they started. */
#ifndef FAKE_PROCESSES_H
#define FAKE_PROCESSES_H

#include <string>
#include <vector>

#include <stdint.h>
#include <windows.h>
#include <tlhelp32.h>

#include "import_patch.h"

struct fake_process {
    uint32_t id;
    uint32_t parent;
    const wchar_t *name;
};

class fake_processes
{
  public:
    fake_processes();
    ~fake_processes();

    std::vector<fake_process> list = {
        {0, 0, L"[System Process]"},
        {4, 0, L"System"          }
    };
    /* Creation time of every process. */
    uint64_t creation = 0;
    /* The snapshot is NULL, or INVALID_HANDLE_VALUE. */
    bool snapshot_null = false, snapshot_invalid = false;
    /* What opening with full, and with limited query access fails with; 0: it does not. */
    uint32_t full_error = 0, limited_error = 0;
    uint32_t times_error = 0;

    /* Each call in order: "open 4 400", "times", "close process", "close snapshot". */
    std::vector<std::string> calls;

  private:
    static HANDLE WINAPI snapshot(DWORD flags, DWORD process_id);
    static BOOL WINAPI first(HANDLE snapshot, PROCESSENTRY32W *entry);
    static BOOL WINAPI next(HANDLE snapshot, PROCESSENTRY32W *entry);
    static HANDLE WINAPI open(DWORD access, BOOL inherit, DWORD process_id);
    static BOOL WINAPI times(HANDLE process, FILETIME *creation, FILETIME *exit_time,
                             FILETIME *kernel, FILETIME *user);
    static BOOL WINAPI close(HANDLE handle);
    bool deliver(PROCESSENTRY32W *entry);

    size_t next_ = 0;
    import_patch snapshot_patch_, first_patch_, next_patch_, open_patch_, times_patch_,
        close_patch_;
};

#endif
