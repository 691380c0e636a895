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

    conform(run, "GetWindowsDirectoryW", "its length",
            GetWindowsDirectoryW(folder, ARRAYSIZE(folder)) == wcslen(folder), {1});
    conform(run, "GetWindowsDirectoryW", "a buffer that is too small: the size with its end",
            GetWindowsDirectoryW(tiny, 1), {wcslen(folder) + 1});
    conform(run, "ExpandEnvironmentStringsW", "a known name: with its end",
            expand(L"%SystemRoot%\\x", &text), {wcslen(folder) + 3});
    expand(L"%systemROOT%", &windows);
    conform(run, "ExpandEnvironmentStringsW", "the case of names is ignored",
            _wcsicmp(windows.c_str(), folder) == 0, {1});
    expand(L"%no such name%", &text);
    conform(run, "ExpandEnvironmentStringsW", "an unknown name stays", text == L"%no such name%",
            {1});
    expand(L"%no such name%SystemDrive%", &text);
    conform(run, "ExpandEnvironmentStringsW", "an unknown name next to a known one",
            text == L"%no such name%SystemDrive%", {1}, OBSERVED);
    expand(L"%%SystemDrive%", &text);
    conform(run, "ExpandEnvironmentStringsW", "two percent signs before a name", text.size(), {},
            OPEN);
    conform(run, "ExpandEnvironmentStringsW", "a buffer that is too small: the size with its end",
            ExpandEnvironmentStringsW(L"%SystemRoot%", tiny, ARRAYSIZE(tiny)),
            {wcslen(folder) + 1, wcslen(folder) + 2});
}

static void check_coding(conformance &run)
{
    wchar_t wide[8] = {};
    char narrow[8] = {};

    conform(run, "MultiByteToWideChar", "UTF-8",
            static_cast<uint64_t>(MultiByteToWideChar(CP_UTF8, 0, "\xc3\xa4", -1, wide, 8)), {2});
    conform(run, "MultiByteToWideChar", "UTF-8: the character", wide[0], {0xe4});
    conform(run, "MultiByteToWideChar", "invalid UTF-8 with the flag",
            error_if(MultiByteToWideChar(CP_UTF8, MB_ERR_INVALID_CHARS, "\xff", -1, wide, 8) == 0),
            {ERROR_NO_UNICODE_TRANSLATION});
    conform(run, "MultiByteToWideChar", "a buffer that is too small",
            error_if(MultiByteToWideChar(CP_UTF8, 0, "abc", -1, wide, 1) == 0),
            {ERROR_INSUFFICIENT_BUFFER});
    conform(run, "WideCharToMultiByte", "UTF-8",
            static_cast<uint64_t>(
                WideCharToMultiByte(CP_UTF8, 0, L"\x20ac", -1, narrow, 8, nullptr, nullptr)),
            {4});
    conform(run, "WideCharToMultiByte", "a buffer that is too small",
            error_if(WideCharToMultiByte(CP_UTF8, 0, L"abc", -1, narrow, 1, nullptr, nullptr) == 0),
            {ERROR_INSUFFICIENT_BUFFER});
    conform(run, "WideCharToMultiByte", "no length",
            error_if(WideCharToMultiByte(CP_UTF8, 0, L"abc", 0, narrow, 8, nullptr, nullptr) == 0),
            {ERROR_INVALID_PARAMETER});
}

static void check_clock(conformance &run)
{
    SYSTEMTIME time = {}, broken = {};
    FILETIME utc = {}, local = {}, back = {};
    const DWORD ticks = GetTickCount();

    GetSystemTime(&time);
    conform(run, "GetSystemTime", "a month", time.wMonth >= 1 && time.wMonth <= 12, {1});
    conform(run, "SystemTimeToFileTime", "now", error_if(!SystemTimeToFileTime(&time, &utc)), {0});
    conform(run, "SystemTimeToFileTime", "no date", error_if(!SystemTimeToFileTime(&broken, &back)),
            {ERROR_INVALID_PARAMETER});
    conform(run, "FileTimeToSystemTime", "now", error_if(!FileTimeToSystemTime(&utc, &broken)),
            {0});
    conform(run, "FileTimeToSystemTime", "now: equal", memcmp(&time, &broken, sizeof(time)) == 0,
            {1});
    back = {0xffffffff, 0xffffffff};
    conform(run, "FileTimeToSystemTime", "a negative time",
            error_if(!FileTimeToSystemTime(&back, &broken)), {ERROR_INVALID_PARAMETER});
    conform(run, "FileTimeToLocalFileTime", "now", error_if(!FileTimeToLocalFileTime(&utc, &local)),
            {0});
    conform(run, "LocalFileTimeToFileTime", "and back",
            error_if(!LocalFileTimeToFileTime(&local, &back)), {0});
    conform(run, "LocalFileTimeToFileTime", "and back: equal",
            memcmp(&utc, &back, sizeof(utc)) == 0, {1});
    conform(run, "GetTickCount", "does not go back", GetTickCount() - ticks < 60000, {1});
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

    conform(run, "GetModuleHandleA", "a loaded module", error_if(kernel == nullptr), {0});
    conform(run, "GetModuleHandleA", "a module that is none",
            error_if(GetModuleHandleA("no such module") == nullptr), {ERROR_MOD_NOT_FOUND});
    tick_fn tick = reinterpret_cast<tick_fn>(
        reinterpret_cast<void *>(GetProcAddress(kernel, "GetTickCount64")));
    conform(run, "GetProcAddress", "GetTickCount64", error_if(tick == nullptr), {0});
    const uint64_t before = tick != nullptr ? tick() : 0;
    conform(run, "GetTickCount64", "does not go back", tick == nullptr || tick() - before < 60000,
            {1});
    conform(run, "GetProcAddress", "a function that is none",
            error_if(GetProcAddress(kernel, "no_such_function") == nullptr),
            {ERROR_PROC_NOT_FOUND});
    loaded = LoadLibraryW(L"dbghelp.dll");
    conform(run, "LoadLibraryW", "a library of Windows", error_if(loaded == nullptr), {0});
    LoadLibraryW(L"dbghelp.dll");
    conform(run, "FreeLibrary", "a loaded library", error_if(!FreeLibrary(loaded)), {0});
    conform(run, "FreeLibrary", "each load is freed", error_if(!FreeLibrary(loaded)), {0});
    conform(run, "FreeLibrary", "more often than loaded fails", !FreeLibrary(loaded), {1});
    conform(run, "LoadLibraryW", "a library that is none",
            error_if(LoadLibraryW(L"no such library.dll") == nullptr), {ERROR_MOD_NOT_FOUND});
    conform(run, "LoadLibraryW", "no name", error_if(LoadLibraryW(nullptr) == nullptr),
            {ERROR_INVALID_PARAMETER, ERROR_MOD_NOT_FOUND});
}
