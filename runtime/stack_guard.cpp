/*
 * The symbols that -fstack-protector needs in every module. The compiler's own library calls a
 * cryptographic provider while the module is being loaded, which loads further modules under the
 * loader lock. This file generates the guard as the Windows C runtime generates its security
 * cookie.
 */
#include <cstdint>
#include <windows.h>

/* winnt.h, FAST_FAIL_STACK_COOKIE_CHECK_FAILURE. */
static constexpr unsigned STACK_COOKIE_CHECK_FAILURE = 2;

extern "C" {
uintptr_t __stack_chk_guard;
[[noreturn]] void __stack_chk_fail(void);
}

/* Runs before all other constructors: the guard must not change between a function's entry and its
 * return. */
__attribute__((constructor(101), no_stack_protector)) static void make_guard(void)
{
    FILETIME time;
    LARGE_INTEGER counter;

    GetSystemTimeAsFileTime(&time);
    QueryPerformanceCounter(&counter);
    __stack_chk_guard = (static_cast<uintptr_t>(time.dwLowDateTime) << 32 | time.dwHighDateTime) ^
                        static_cast<uintptr_t>(counter.QuadPart) ^
                        (static_cast<uintptr_t>(GetCurrentThreadId()) << 16) ^
                        GetCurrentProcessId() ^ reinterpret_cast<uintptr_t>(&counter);
    __stack_chk_guard *= 0x9e3779b97f4a7c15ull; /* spreads the few bits that change per start */
    __stack_chk_guard &= ~UINT64_C(0xff);       /* its NUL byte ends a string that overflows */
}

/* Uses __fastfail: the process, including its exception handlers, can no longer be trusted. */
void __stack_chk_fail(void)
{
    __asm__ volatile("int $0x29" : : "c"(STACK_COOKIE_CHECK_FAILURE)); /* __fastfail */
    __builtin_unreachable();
}
