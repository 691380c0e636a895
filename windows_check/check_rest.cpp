/* Checks of texts, times and modules. */
#include "conformance.h"

#include <cstring>
#include <cwchar>

/* The characters that an expansion gives, the closing NUL included; 0: it failed. */
static DWORD expand(const wchar_t *text, std::wstring *expanded)
{
    wchar_t buffer[512] = {};
    const DWORD chars = ExpandEnvironmentStringsW(text, buffer, ARRAYSIZE(buffer));

    *expanded = buffer;
    return chars;
}

static void check_environment(conformance &run)
{
    std::wstring text, windows;
    wchar_t folder[MAX_PATH] = {}, tiny[2] = {};

    run.holds("GetWindowsDirectoryW", "its length",
              GetWindowsDirectoryW(folder, ARRAYSIZE(folder)) == wcslen(folder));
    run.gives("GetWindowsDirectoryW", "a buffer that is too small: the size with its end",
              GetWindowsDirectoryW(tiny, 1), {wcslen(folder) + 1});
    run.gives("ExpandEnvironmentStringsW", "a known name: with its end",
              expand(L"%SystemRoot%\\x", &text), {wcslen(folder) + 3});
    expand(L"%systemROOT%", &windows);
    run.holds("ExpandEnvironmentStringsW", "the case of names is ignored",
              _wcsicmp(windows.c_str(), folder) == 0);
    expand(L"%no such name%", &text);
    run.holds("ExpandEnvironmentStringsW", "an unknown name stays", text == L"%no such name%");
    expand(L"%no such name%SystemDrive%", &text);
    run.holds("ExpandEnvironmentStringsW", "an unknown name next to a known one",
              text == L"%no such name%SystemDrive%", OBSERVED);
    expand(L"%%SystemDrive%", &text);
    run.gives("ExpandEnvironmentStringsW", "two percent signs before a name", text.size(), {},
              OPEN);
    run.gives("ExpandEnvironmentStringsW", "a buffer that is too small: the size with its end",
              ExpandEnvironmentStringsW(L"%SystemRoot%", tiny, ARRAYSIZE(tiny)),
              {wcslen(folder) + 1, wcslen(folder) + 2});
}

static void check_coding(conformance &run)
{
    wchar_t wide[8] = {};
    char narrow[8] = {};

    run.gives("MultiByteToWideChar", "UTF-8",
              MultiByteToWideChar(CP_UTF8, 0, "\xc3\xa4", -1, wide, 8), {2});
    run.gives("MultiByteToWideChar", "UTF-8: the character", wide[0], {0xe4});
    run.fails("MultiByteToWideChar", "invalid UTF-8 with the flag",
              MultiByteToWideChar(CP_UTF8, MB_ERR_INVALID_CHARS, "\xff", -1, wide, 8) != 0,
              {ERROR_NO_UNICODE_TRANSLATION});
    run.fails("MultiByteToWideChar", "a buffer that is too small",
              MultiByteToWideChar(CP_UTF8, 0, "abc", -1, wide, 1) != 0,
              {ERROR_INSUFFICIENT_BUFFER});
    run.gives("WideCharToMultiByte", "UTF-8",
              WideCharToMultiByte(CP_UTF8, 0, L"\x20ac", -1, narrow, 8, nullptr, nullptr), {4});
    run.fails("WideCharToMultiByte", "a buffer that is too small",
              WideCharToMultiByte(CP_UTF8, 0, L"abc", -1, narrow, 1, nullptr, nullptr) != 0,
              {ERROR_INSUFFICIENT_BUFFER});
    run.fails("WideCharToMultiByte", "no length",
              WideCharToMultiByte(CP_UTF8, 0, L"abc", 0, narrow, 8, nullptr, nullptr) != 0,
              {ERROR_INVALID_PARAMETER});
}

static void check_clock(conformance &run)
{
    SYSTEMTIME time = {}, broken = {};
    FILETIME utc = {}, local = {}, back = {};
    const DWORD ticks = GetTickCount();

    GetSystemTime(&time);
    run.holds("GetSystemTime", "a month", time.wMonth >= 1 && time.wMonth <= 12);
    run.works("SystemTimeToFileTime", "now", SystemTimeToFileTime(&time, &utc));
    run.fails("SystemTimeToFileTime", "no date", SystemTimeToFileTime(&broken, &back),
              {ERROR_INVALID_PARAMETER});
    run.works("FileTimeToSystemTime", "now", FileTimeToSystemTime(&utc, &broken));
    run.holds("FileTimeToSystemTime", "now: equal", memcmp(&time, &broken, sizeof(time)) == 0);
    back = {0xffffffff, 0xffffffff};
    run.fails("FileTimeToSystemTime", "a negative time", FileTimeToSystemTime(&back, &broken),
              {ERROR_INVALID_PARAMETER});
    run.works("FileTimeToLocalFileTime", "now", FileTimeToLocalFileTime(&utc, &local));
    run.works("LocalFileTimeToFileTime", "and back", LocalFileTimeToFileTime(&local, &back));
    run.holds("LocalFileTimeToFileTime", "and back: equal", memcmp(&utc, &back, sizeof(utc)) == 0);
    run.holds("GetTickCount", "does not go back", GetTickCount() - ticks < 60000);
}

void check_texts_and_times(conformance &run)
{
    check_environment(run);
    check_coding(run);
    check_clock(run);
}

void check_modules(conformance &run)
{
    HMODULE kernel = GetModuleHandleA("kernel32.dll"), loaded;
    typedef ULONGLONG(WINAPI * tick_fn)(void);

    run.works("GetModuleHandleA", "a loaded module", kernel != nullptr);
    run.fails("GetModuleHandleA", "a module that is none",
              GetModuleHandleA("no such module") != nullptr, {ERROR_MOD_NOT_FOUND});
    tick_fn tick = reinterpret_cast<tick_fn>(
        reinterpret_cast<void *>(GetProcAddress(kernel, "GetTickCount64")));
    run.works("GetProcAddress", "GetTickCount64", tick != nullptr);
    const uint64_t before = tick != nullptr ? tick() : 0;
    run.holds("GetTickCount64", "does not go back", tick == nullptr || tick() - before < 60000);
    run.fails("GetProcAddress", "a function that is none",
              GetProcAddress(kernel, "no_such_function") != nullptr, {ERROR_PROC_NOT_FOUND});
    loaded = LoadLibraryW(L"dbghelp.dll");
    run.works("LoadLibraryW", "a library of Windows", loaded != nullptr);
    LoadLibraryW(L"dbghelp.dll");
    run.works("FreeLibrary", "a loaded library", FreeLibrary(loaded));
    run.works("FreeLibrary", "each load is freed", FreeLibrary(loaded));
    run.holds("FreeLibrary", "more often than loaded fails", !FreeLibrary(loaded));
    run.fails("LoadLibraryW", "a library that is none",
              LoadLibraryW(L"no such library.dll") != nullptr, {ERROR_MOD_NOT_FOUND});
    run.fails("LoadLibraryW", "no name", LoadLibraryW(nullptr) != nullptr,
              {ERROR_INVALID_PARAMETER, ERROR_MOD_NOT_FOUND});
}
