/* What this computer offers, by real calls: the results that the plug-in itself would get here. */
#include "commands.h"

#include <cstdio>
#include <windows.h>

#include <algorithm>
#include <map>

#include "../base/text.h"

static constexpr wchar_t CRASH_CONTROL_KEY[] = L"SYSTEM\\CurrentControlSet\\Control\\CrashControl";

static void show(const char *what, const std::string &found)
{
    printf("%-14s %s\n", what, found.c_str());
}

template <typename Function> static Function *function_of(const char *name)
{
    return reinterpret_cast<Function *>(
        reinterpret_cast<void *>(GetProcAddress(GetModuleHandleW(L"ntdll.dll"), name)));
}

static void show_windows(void)
{
    const auto version = function_of<LONG WINAPI(OSVERSIONINFOW *)>("RtlGetVersion");
    const auto wine = function_of<const char *(void)>("wine_get_version");
    OSVERSIONINFOW info = {};

    info.dwOSVersionInfoSize = sizeof(info);
    if (version != nullptr)
        (void)version(&info); /* fails only for a wrong size */
    show("Windows", text_format("%lu.%lu build %lu%s%s", info.dwMajorVersion, info.dwMinorVersion,
                                info.dwBuildNumber, wine != nullptr ? ", by Wine " : "",
                                wine != nullptr ? wine() : ""));
}

/* Result: whether it can be loaded. */
static bool show_plugin(void)
{
    const std::string path = run_standard_plugin();
    const HMODULE plugin = LoadLibraryW(text_wide(path).c_str());
    const DWORD error = GetLastError();

    show("plug-in",
         path + (plugin != nullptr ? ", loads" : ", cannot be loaded: " + text_error(error)));
    if (plugin != nullptr)
        FreeLibrary(plugin);
    return plugin != nullptr;
}

/* The debugger engine that a program here loads by name. Result: whether it is the stand-in that
 * replay needs. */
static bool show_engine(void)
{
    const HMODULE engine = LoadLibraryW(L"dbgeng.dll");
    const DWORD error = GetLastError();
    wchar_t path[1024] = L"";

    if (engine == nullptr) {
        show("engine", "dbgeng.dll cannot be loaded: " + text_error(error));
        return false;
    }
    const bool own = GetProcAddress(engine, "engine_script_set") != nullptr;
    const bool usable = GetProcAddress(engine, "DebugCreate") != nullptr;

    GetModuleFileNameW(engine, path, ARRAYSIZE(path));
    show("engine", text_narrow(path) + (own      ? ", the stand-in that reads kernel dumps"
                                        : usable ? ", the system's own"
                                                 : ", without DebugCreate"));
    FreeLibrary(engine);
    return own;
}

static void show_privilege(void)
{
    TOKEN_PRIVILEGES wanted = {};
    HANDLE token = nullptr;

    wanted.PrivilegeCount = 1;
    wanted.Privileges[0].Attributes = SE_PRIVILEGE_ENABLED;
    /* The last call succeeds even when it adjusts nothing, so its error counts. */
    if (OpenProcessToken(GetCurrentProcess(), TOKEN_ADJUST_PRIVILEGES | TOKEN_QUERY, &token) &&
        LookupPrivilegeValueW(nullptr, L"SeSecurityPrivilege", &wanted.Privileges[0].Luid))
        (void)AdjustTokenPrivileges(token, FALSE, &wanted, 0, nullptr, nullptr);
    const DWORD error = GetLastError();

    if (token != nullptr)
        CloseHandle(token);
    show("privilege", error == ERROR_SUCCESS
                          ? "SeSecurityPrivilege is held"
                          : "SeSecurityPrivilege is not held: " + text_error(error));
}

static void show_log(void)
{
    const HANDLE log = OpenEventLogW(nullptr, L"System");
    DWORD error = GetLastError(), records = 0;

    if (log == nullptr) {
        show("System log", "cannot be opened: " + text_error(error));
        return;
    }
    if (!GetNumberOfEventLogRecords(log, &records)) {
        error = GetLastError();
        show("System log", "opens, but cannot be queried: " + text_error(error));
    } else {
        show("System log", "opens, " + text_count(records, "record"));
    }
    CloseEventLog(log);
}

static std::wstring expanded(const wchar_t *value, const wchar_t *usual)
{
    wchar_t text[1024] = L"", full[1024] = L"";
    DWORD bytes = sizeof(text);

    if (RegGetValueW(HKEY_LOCAL_MACHINE, CRASH_CONTROL_KEY, value,
                     RRF_RT_REG_SZ | RRF_RT_REG_EXPAND_SZ | RRF_NOEXPAND, nullptr, text,
                     &bytes) != ERROR_SUCCESS)
        lstrcpyW(text, usual);
    (void)ExpandEnvironmentStringsW(text, full, ARRAYSIZE(full)); /* empty when too long */
    return full;
}

static void show_dump_settings(void)
{
    static const std::map<DWORD, const char *> kinds = {
        {0, "none"     },
        {1, "complete" },
        {2, "kernel"   },
        {3, "small"    },
        {7, "automatic"}
    };
    DWORD enabled = 0, bytes = sizeof(enabled);
    std::string name = "by default";

    if (RegGetValueW(HKEY_LOCAL_MACHINE, CRASH_CONTROL_KEY, L"CrashDumpEnabled", RRF_RT_REG_DWORD,
                     nullptr, &enabled, &bytes) == ERROR_SUCCESS) {
        const auto kind = kinds.find(enabled);

        name = kind != kinds.end() ? kind->second : text_format("unknown kind %lu", enabled);
    }
    show("dumps", name);
}

static void show_file(const char *what, const std::wstring &pattern)
{
    uint64_t newest = 0;
    unsigned count = 0;

    for (const found_file &found : files_find(text_narrow(pattern))) {
        count += !found.is_folder;
        newest = found.is_folder ? newest : std::max(newest, found.written_100ns);
    }
    show(what, text_narrow(pattern) + ", " + text_count(count, "file") +
                   (count > 0 ? ", the newest written " + time_iso(newest) : ""));
}

int replay_doctor(void)
{
    const bool plugin = show_plugin(), engine = show_engine();

    show_windows();
    show_privilege();
    show_log();
    show("time zone", zone_of_this_computer() + "; replay uses that of the evidence");
    show_dump_settings();
    show_file("complete dump", expanded(L"DumpFile", L"%SystemRoot%\\MEMORY.DMP"));
    show_file("small dumps", expanded(L"MinidumpDir", L"%SystemRoot%\\Minidump") + L"\\*");
    show("replay", plugin && engine ? "ready" : "not possible here");
    return plugin && engine ? EXIT_ALL_HOLD : EXIT_NO_PLUGIN;
}
