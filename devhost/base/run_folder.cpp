/* The folder of a run. */
#include "run_folder.h"

#include <windows.h>

#include "text.h"

/* A new, empty folder below the temporary one, or the one that was asked for. The name of one that
 * was not asked for has the same length each time, since the plug-in's calls depend on it. */
static std::string make_run_folder(const std::string &keep, const std::string &place)
{
    wchar_t temp[1024], full[1024];
    std::string folder = keep;

    if (folder.empty()) {
        GetTempPathW(ARRAYSIZE(temp), temp);
        folder = (place.empty() ? text_narrow(temp) : place + "\\") +
                 text_format("oxni_devhost-%08lu-%010lu", GetCurrentProcessId(), GetTickCount());
    }
    GetFullPathNameW(text_wide(folder).c_str(), ARRAYSIZE(full), full, NULL);
    if (!CreateDirectoryW(full, NULL))
        throw devhost_error(EXIT_BAD_CALL,
                            text_format("%s: %s, error %lu", folder.c_str(),
                                        GetLastError() == ERROR_ALREADY_EXISTS
                                            ? "is there already, expected a folder to be made"
                                            : "cannot be made",
                                        GetLastError()));
    return text_narrow(full);
}

static void empty_folder(const std::wstring &folder)
{
    WIN32_FIND_DATAW entry;
    HANDLE find = FindFirstFileW((folder + L"\\*").c_str(), &entry);

    if (find == INVALID_HANDLE_VALUE)
        return;
    do {
        std::wstring name = entry.cFileName, path = folder + L"\\" + name;

        if (name == L"." || name == L"..")
            continue;
        if ((entry.dwFileAttributes & FILE_ATTRIBUTE_DIRECTORY) != 0)
            empty_folder(path);
        if ((entry.dwFileAttributes & FILE_ATTRIBUTE_DIRECTORY) != 0)
            RemoveDirectoryW(path.c_str());
        else
            DeleteFileW(path.c_str());
    } while (FindNextFileW(find, &entry));
    FindClose(find);
}

run_folder::run_folder(const std::string &keep, const std::string &place)
    : path(make_run_folder(keep, place)), kept(!keep.empty())
{
}

run_folder::~run_folder()
{
    if (kept)
        return;
    empty();
    RemoveDirectoryW(text_wide(path).c_str());
}

void run_folder::empty() const
{
    empty_folder(text_wide(path));
}

std::string run_standard_plugin(void)
{
    wchar_t path[1024];
    const DWORD chars = GetModuleFileNameW(NULL, path, ARRAYSIZE(path));
    const std::string text = text_narrow(std::wstring(path, chars));

    return text.substr(0, text.find_last_of('\\')) + "\\libbypass_mgr.dll";
}
