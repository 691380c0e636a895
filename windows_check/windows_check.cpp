/*
 * windows_check.exe: the checks on the machine at hand. Makes files in a folder of its own below
 * the temporary folder and keys below one volatile key of its own, and removes both.
 *
 * usage: windows_check [FILE]   FILE gets the lines, too; by default windows-BUILD.txt
 */
#include "conformance.h"

#include <cstdio>

static constexpr int EXIT_DIFFERS = 1;
static constexpr int EXIT_NO_FILE = 2;

struct output {
    FILE *file;
};

static void print(const char *line, void *user)
{
    puts(line);
    fprintf(static_cast<output *>(user)->file, "%s\n", line);
}

/* The build of Windows, which GetVersionEx hides from programs without a manifest. */
static DWORD windows_build(void)
{
    wchar_t text[16] = L"0";
    DWORD bytes = sizeof(text);

    RegGetValueW(HKEY_LOCAL_MACHINE, L"SOFTWARE\\Microsoft\\Windows NT\\CurrentVersion",
                 L"CurrentBuild", RRF_RT_REG_SZ, nullptr, text, &bytes);
    return wcstoul(text, nullptr, 10);
}

/* HKEY_LOCAL_MACHINE where this user may write, else HKEY_CURRENT_USER. */
static HKEY writable_root(void)
{
    HKEY key = nullptr;

    if (RegOpenKeyExW(HKEY_LOCAL_MACHINE, L"SOFTWARE", 0, KEY_CREATE_SUB_KEY, &key) !=
        ERROR_SUCCESS)
        return HKEY_CURRENT_USER;
    RegCloseKey(key);
    return HKEY_LOCAL_MACHINE;
}

/* The package has an engine of its own, next to this program. */
static std::wstring engine_of_windows(void)
{
    wchar_t folder[MAX_PATH] = {};

    GetSystemDirectoryW(folder, ARRAYSIZE(folder));
    return std::wstring(folder) + L"\\dbgeng.dll";
}

static std::wstring make_folder(void)
{
    wchar_t temp[MAX_PATH];

    GetTempPathW(ARRAYSIZE(temp), temp);
    std::wstring folder =
        std::wstring(temp) + L"windows_check-" + std::to_wstring(GetCurrentProcessId());
    CreateDirectoryW(folder.c_str(), nullptr);
    return folder;
}

int wmain(int argc, wchar_t **argv);

int wmain(int argc, wchar_t **argv)
{
    const std::wstring name =
        argc > 1 ? argv[1] : L"windows-" + std::to_wstring(windows_build()) + L".txt";
    output out = {_wfopen(name.c_str(), L"w")};
    conformance run = {make_folder(),
                       engine_of_windows(),
                       writable_root(),
                       HKEY_LOCAL_MACHINE,
                       _wfopen,
                       print,
                       &out,
                       0,
                       0};

    if (out.file == nullptr) {
        fprintf(stderr, "windows_check: cannot write '%ls'\n", name.c_str());
        return EXIT_NO_FILE;
    }
    check_all(run);
    RemoveDirectoryW(run.folder.c_str());
    printf("%u checks, %u of them differ; the lines are in %ls\n", run.checks, run.differences,
           name.c_str());
    return fclose(out.file) != 0 ? EXIT_NO_FILE : run.differences != 0 ? EXIT_DIFFERS : 0;
}
