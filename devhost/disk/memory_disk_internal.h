/*
 * Shared by the files of the memory disk: its table of files (memory_files.cpp), the calls of Windows
 * (memory_disk.cpp, memory_search.cpp) and the streams of the C runtime (memory_streams.cpp). Host's
 * one thread.
 */
#ifndef DEVHOST_MEMORY_DISK_INTERNAL_H
#define DEVHOST_MEMORY_DISK_INTERNAL_H

#include <cstring>
#include <windows.h>

#include <algorithm>
#include <map>
#include <memory>
#include <string>

/* The real call under the name real_NAME: this program's own imports are redirected, too. */
#define REAL(library, name)                                                                        \
    static const auto real_##name = reinterpret_cast<decltype(&(name))>(                           \
        reinterpret_cast<void *>(GetProcAddress(GetModuleHandleW(library), #name)))

struct memory_file {
    std::wstring name; /* as it was made */
    bool is_folder;
    std::string bytes;
    FILETIME created, accessed, written;
    /* Mappings, and streams that this program opens, need a real file, which has the bytes from
     * then on. Empty: they are here. */
    std::wstring real_path;
};
typedef std::shared_ptr<memory_file> file_ptr;

/* By bytes, which memcmp compares faster than characters; the keys of a folder are neighbours. */
struct key_order {
    bool operator()(const std::wstring &one, const std::wstring &other) const
    {
        const size_t chars = std::min(one.size(), other.size());
        const int order = memcmp(one.data(), other.data(), chars * sizeof(wchar_t));

        return order != 0 ? order < 0 : one.size() < other.size();
    }
};
typedef std::map<std::wstring, file_ptr, key_order> file_map;

extern file_map memory_files; /* by key */

bool memory_files_are_open(void);
void memory_files_open(const std::wstring &folder);

/* The key of a path: what follows the disk's folder, in lower case, with a backslash at its begin
 * and none at its end. The folder itself has the empty key. Result: whether the path is below the
 * folder. */
bool memory_file_key(const wchar_t *path, std::wstring *key);
/* Whether a path is the disk's folder or a parent of it. */
bool memory_disk_is_below(const wchar_t *path);
/* NULL: there is none. */
file_ptr memory_file_find(const std::wstring &key);
/* The last name of a path. */
std::wstring memory_file_name(const wchar_t *path);
/* A new, empty one; path gives its name. */
file_ptr memory_file_make(const std::wstring &key, const wchar_t *path, bool folder);
/* Moves the bytes to a real file. Result: whether the file has one. */
bool memory_file_make_real(const file_ptr &file);

/* The key of the folder that a key is in. */
std::wstring memory_parent(const std::wstring &key);
bool memory_is_folder(const std::wstring &key);
/* The error of Windows for a file that is missing: file or path not found. */
DWORD memory_missing(const std::wstring &key);
/* The machine's time. */
FILETIME memory_now(void);
DWORD memory_attributes(const memory_file &file);

/* The stand-ins of FindFirstFileW, FindNextFileW and FindClose; NULL for another name. */
void *memory_search_stand_in(const char *name);

/* Redirects the stream calls of a module. in_memory: its _wfopen opens streams that fread, fwrite,
 * fseek and fclose of a redirected module take, and no other call; else it opens a real file. */
void memory_streams_redirect(HMODULE module, bool in_memory);

#endif
