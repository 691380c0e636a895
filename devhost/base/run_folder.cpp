/* The folder of a run. */
#include "run_folder.h"

#include <windows.h>

#include <mutex>
#include <set>

#include "file.h"
#include "text.h"

/* Folders that are not kept. */
static std::set<std::string> s_temporary;
static std::mutex s_lock;

static std::string usual_place(void)
{
    wchar_t text[1024] = L"";

    if (GetEnvironmentVariableW(L"BYPASS_PLACE", text, ARRAYSIZE(text)) == 0)
        GetTempPathW(ARRAYSIZE(text), text);
    return text_narrow(text);
}

/* A generated name has the same length each time, since the plug-in's calls depend on it. */
static std::string make_run_folder(const std::string &keep, const std::string &place)
{
    wchar_t full[1024];
    std::string folder = keep;

    if (folder.empty())
        folder = (place.empty() ? usual_place() : place) +
                 text_format("\\oxni_devhost-%08lu-%010lu", GetCurrentProcessId(), GetTickCount());
    folder_make(folder);
    GetFullPathNameW(text_wide(folder).c_str(), ARRAYSIZE(full), full, nullptr);
    return text_narrow(full);
}

run_folder::run_folder(const std::string &keep, const std::string &place)
    : path(make_run_folder(keep, place)), kept(!keep.empty())
{
    const std::lock_guard<std::mutex> lock(s_lock);

    if (!kept)
        s_temporary.insert(path);
}

run_folder::~run_folder()
{
    if (kept)
        return;
    empty();
    RemoveDirectoryW(text_wide(path).c_str());

    const std::lock_guard<std::mutex> lock(s_lock);

    s_temporary.erase(path);
}

void run_folder::empty() const
{
    folder_empty(path);
}

void run_folder_remove_all(void)
{
    const std::lock_guard<std::mutex> lock(s_lock);

    for (const std::string &path : s_temporary) {
        folder_empty(path);
        RemoveDirectoryW(text_wide(path).c_str());
    }
}

std::string run_standard_plugin(void)
{
    wchar_t path[1024];
    const DWORD chars = GetModuleFileNameW(nullptr, path, ARRAYSIZE(path));
    const std::string text = text_narrow(std::wstring(path, chars));

    return text.substr(0, text.find_last_of('\\')) + "\\libbypass_mgr.dll";
}
