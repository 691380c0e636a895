/* Detects crashes and hangs. The last lines of the process are printed without allocating: its heap
 * may be damaged. */
#include "watch.h"

#include <csignal>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <windows.h>

#include "base/terminal.h"

#define ENDED_IN "ended in trial "
static constexpr int WHAT_CHARS = 1024;

static char s_what[WHAT_CHARS];
static volatile LONG64 s_number, s_began;
static LONG64 s_limit_ms;

static void put(const char *text)
{
    DWORD written;

    WriteFile(GetStdHandle(STD_OUTPUT_HANDLE), text, static_cast<DWORD>(strlen(text)), &written,
              nullptr);
}

[[noreturn]] static void end_process(const char *why, UINT status)
{
    char number[64];

    fflush(stdout);
    put(why);
    put("\n  reproduce: ");
    put(s_what);
    snprintf(number, sizeof(number), "\n" ENDED_IN "%lld\n", static_cast<long long>(s_number));
    put(number);
    TerminateProcess(GetCurrentProcess(), status);
    abort();
}

/* "crash: exception 0xc0000005 at libbypass_mgr.dll+0x1234". */
static void describe(const EXCEPTION_RECORD *record, char *text, size_t size)
{
    HMODULE module = nullptr;
    char path[MAX_PATH] = "";
    const char *name = path;

    if (GetModuleHandleExA(GET_MODULE_HANDLE_EX_FLAG_FROM_ADDRESS |
                               GET_MODULE_HANDLE_EX_FLAG_UNCHANGED_REFCOUNT,
                           static_cast<const char *>(record->ExceptionAddress), &module))
        GetModuleFileNameA(module, path, sizeof(path));
    for (const char *at = path; *at != '\0'; at++)
        if (*at == '\\')
            name = at + 1;
    snprintf(text, size, "crash: exception 0x%lx at %s+0x%llx", record->ExceptionCode, name,
             static_cast<unsigned long long>(reinterpret_cast<uintptr_t>(record->ExceptionAddress) -
                                             reinterpret_cast<uintptr_t>(module)));
}

static LONG WINAPI crashed(EXCEPTION_POINTERS *pointers)
{
    char text[512];

    describe(pointers->ExceptionRecord, text, sizeof(text));
    end_process(text, WATCH_CRASHED);
}

/* The filter for unhandled exceptions would need stack, of which nothing remains. */
static LONG WINAPI overflowed(EXCEPTION_POINTERS *pointers)
{
    if (pointers->ExceptionRecord->ExceptionCode == EXCEPTION_STACK_OVERFLOW)
        end_process("crash: the stack overflowed", WATCH_CRASHED);
    return EXCEPTION_CONTINUE_SEARCH;
}

static void aborted(int)
{
    end_process("crash: abort was called", WATCH_CRASHED);
}

static DWORD WINAPI watch(void *)
{
    for (;;) {
        Sleep(500);
        LONG64 began = s_began;

        if (began != 0 && static_cast<LONG64>(GetTickCount64()) - began > s_limit_ms)
            end_process("hang: the trial takes too long", WATCH_HUNG);
    }
}

void watch_open(unsigned seconds)
{
    s_limit_ms = seconds * 1000ll;
    SetErrorMode(SEM_NOGPFAULTERRORBOX | SEM_FAILCRITICALERRORS);
    SetUnhandledExceptionFilter(crashed);
    AddVectoredExceptionHandler(1, overflowed);
    signal(SIGABRT, aborted);
    CloseHandle(CreateThread(nullptr, 0, watch, nullptr, 0, nullptr));
}

void watch_try(const std::string &what, uint64_t number)
{
    snprintf(s_what, sizeof(s_what), "%s", what.c_str());
    terminal_reached(what);
    s_number = static_cast<LONG64>(number);
    s_began = static_cast<LONG64>(GetTickCount64());
}

int64_t watch_ended_in(const std::string &output)
{
    size_t at = output.rfind(ENDED_IN);

    return at == std::string::npos ? -1 : atoll(output.c_str() + at + strlen(ENDED_IN));
}
