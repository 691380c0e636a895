/* Searches in folders of the memory disk. */
#include <vector>

#include "../base/text.h"
#include "../calls/stand_in.h"
#include "memory_disk_internal.h"

REAL(L"kernel32.dll", FindFirstFileW);
REAL(L"kernel32.dll", FindNextFileW);
REAL(L"kernel32.dll", FindClose);

struct open_search {
    std::vector<WIN32_FIND_DATAW> found;
    size_t next;
};

static std::map<HANDLE, open_search> s_searches;

static void add_found(open_search &search, const std::wstring &name, const memory_file &file)
{
    WIN32_FIND_DATAW data = {};

    data.dwFileAttributes = memory_attributes(file);
    data.ftCreationTime = file.created;
    data.ftLastAccessTime = file.accessed;
    data.ftLastWriteTime = file.written;
    data.nFileSizeLow = static_cast<DWORD>(file.bytes.size());
    lstrcpynW(data.cFileName, name.c_str(), ARRAYSIZE(data.cFileName));
    search.found.push_back(data);
}

/* key: of the pattern. */
static open_search search_for(const std::wstring &key)
{
    std::wstring folder = memory_parent(key) + L"\\";
    std::string pattern = text_narrow(key.substr(folder.size()));
    open_search search = {{}, 0};

    if (pattern == "*.*") /* for Windows the same, names without a dot included */
        pattern = "*";
    if (pattern == "*")
        for (const wchar_t *name : {L".", L".."})
            add_found(search, name, {L"", true, "", memory_now(), memory_now(), memory_now(), L""});
    for (auto at = memory_files.upper_bound(folder);
         at != memory_files.end() && at->first.rfind(folder, 0) == 0; at++) {
        std::wstring name = at->first.substr(folder.size());

        if (name.find(L'\\') == std::wstring::npos && text_fits(text_narrow(name), pattern))
            add_found(search, at->second->name, *at->second);
    }
    return search;
}

static HANDLE WINAPI stand_in_FindFirstFileW(const wchar_t *pattern, WIN32_FIND_DATAW *data)
{
    std::wstring key;

    if (!memory_file_key(pattern, &key))
        return real_FindFirstFileW(pattern, data);
    open_search search = search_for(key);
    if (search.found.empty() || !memory_is_folder(memory_parent(key)))
        return stand_in_fail(memory_missing(key), INVALID_HANDLE_VALUE);
    HANDLE handle = stand_in_new_handle();
    *data = search.found[search.next++];
    s_searches[handle] = search;
    return handle;
}

static BOOL WINAPI stand_in_FindNextFileW(HANDLE handle, WIN32_FIND_DATAW *data)
{
    auto search = s_searches.find(handle);

    if (search == s_searches.end())
        return real_FindNextFileW(handle, data);
    if (search->second.next == search->second.found.size())
        return stand_in_fail(ERROR_NO_MORE_FILES, FALSE);
    *data = search->second.found[search->second.next++];
    return TRUE;
}

static BOOL WINAPI stand_in_FindClose(HANDLE handle)
{
    return s_searches.erase(handle) != 0 || real_FindClose(handle);
}

void *memory_search_stand_in(const char *name)
{
    static const stand_in_row rows[] = {
        STAND_IN(FindFirstFileW),
        STAND_IN(FindNextFileW),
        STAND_IN(FindClose),
    };

    return stand_in_find(rows, name);
}
