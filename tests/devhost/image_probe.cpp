/* A DLL that shows how it was started: with which data, and through which imports. */
#include <windows.h>

extern "C" {
__declspec(dllexport) DWORD probe_tick_of_entry_point(void);
__declspec(dllexport) DWORD probe_tick(void);
__declspec(dllexport) int probe_count(void);
}

namespace
{
struct end_notice {
    ~end_notice()
    {
        Sleep(0);
    }
} s_end_notice;

DWORD s_tick_of_entry_point = GetTickCount();
int s_count;
} // namespace

DWORD probe_tick_of_entry_point(void)
{
    return s_tick_of_entry_point;
}

DWORD probe_tick(void)
{
    return GetTickCount();
}

int probe_count(void)
{
    return ++s_count;
}
