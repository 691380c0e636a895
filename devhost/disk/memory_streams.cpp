/* Binary streams of the C runtime, for the crash records that the plug-in reads and writes through
 * the platform's oxni_file_open_w. */
#include "memory_disk_internal.h"

#include <cerrno>
#include <cstdio>
#include <cstring>

#include <algorithm>

#include "../calls/imports.h"
#include "../calls/stand_in.h"

REAL(L"msvcrt.dll", _wfopen);
REAL(L"msvcrt.dll", fread);
REAL(L"msvcrt.dll", fwrite);
REAL(L"msvcrt.dll", fseek);
REAL(L"msvcrt.dll", fclose);

struct memory_stream {
    file_ptr file;
    bool reads, writes;
    size_t at;
};

/* By what the caller holds in place of a real stream. */
static std::map<FILE *, memory_stream> s_streams;

/* The file of a path for that mode, made when the mode makes one. Result: NULL and errno. */
static file_ptr file_for(const std::wstring &key, const wchar_t *path, const wchar_t *mode)
{
    file_ptr file = memory_file_find(key);

    if (file == nullptr && (mode[0] == L'r' || !memory_is_folder(memory_parent(key)))) {
        errno = ENOENT;
        return nullptr;
    }
    if (file != nullptr && file->is_folder) {
        errno = EACCES;
        return nullptr;
    }
    return file != nullptr ? file : memory_file_make(key, path, false);
}

static FILE *open_real_stream(const wchar_t *path, const wchar_t *mode)
{
    std::wstring key;

    if (!memory_file_key(path, &key))
        return real__wfopen(path, mode);
    file_ptr file = file_for(key, path, mode);
    return file != nullptr && memory_file_make_real(file)
               ? real__wfopen(file->real_path.c_str(), mode)
               : nullptr;
}

static FILE *open_memory_stream(const wchar_t *path, const wchar_t *mode)
{
    const bool updates = wcschr(mode, L'+') != nullptr;
    std::wstring key;

    /* Appending and text modes are left to the C runtime. */
    if ((mode[0] != L'r' && mode[0] != L'w') || wcschr(mode, L'b') == nullptr ||
        !memory_file_key(path, &key))
        return open_real_stream(path, mode);
    file_ptr file = file_for(key, path, mode);
    if (file == nullptr || !file->real_path.empty())
        return file != nullptr ? real__wfopen(file->real_path.c_str(), mode) : nullptr;
    if (mode[0] == L'w') {
        file->bytes.clear();
        file->written = memory_now();
    }
    FILE *stream = reinterpret_cast<FILE *>(stand_in_new_handle());
    s_streams[stream] = {file, mode[0] == L'r' || updates, mode[0] == L'w' || updates, 0};
    return stream;
}

static size_t stand_in_fread(void *buffer, size_t size, size_t count, FILE *stream)
{
    auto found = s_streams.find(stream);

    if (found == s_streams.end())
        return real_fread(buffer, size, count, stream);
    memory_stream &open = found->second;
    const std::string &content = open.file->bytes;
    const size_t at = std::min(open.at, content.size());
    const size_t got = std::min(size * count, content.size() - at);
    if (!open.reads || size == 0)
        return 0;
    memcpy(buffer, content.data() + at, got);
    open.at = at + got;
    return got / size;
}

static size_t stand_in_fwrite(const void *buffer, size_t size, size_t count, FILE *stream)
{
    auto found = s_streams.find(stream);

    if (found == s_streams.end())
        return real_fwrite(buffer, size, count, stream);
    memory_stream &open = found->second;
    std::string &content = open.file->bytes;
    const size_t bytes = size * count;
    if (!open.writes)
        return 0;
    content.resize(std::max(content.size(), open.at + bytes));
    memcpy(content.data() + open.at, buffer, bytes);
    open.at += bytes;
    open.file->written = memory_now();
    return count;
}

static int stand_in_fseek(FILE *stream, long offset, int origin)
{
    auto found = s_streams.find(stream);

    if (found == s_streams.end())
        return real_fseek(stream, offset, origin);
    const size_t from = origin == SEEK_SET   ? 0
                        : origin == SEEK_CUR ? found->second.at
                                             : found->second.file->bytes.size();
    if (offset < 0 && from < static_cast<size_t>(-offset))
        return -1;
    found->second.at = from + static_cast<size_t>(offset);
    return 0;
}

static int stand_in_fclose(FILE *stream)
{
    return s_streams.erase(stream) != 0 ? 0 : real_fclose(stream);
}

void memory_streams_redirect(HMODULE module, bool in_memory)
{
    static const stand_in_row rows[] = {
        STAND_IN(fread),
        STAND_IN(fwrite),
        STAND_IN(fseek),
        STAND_IN(fclose),
    };

    imports_each(module, [in_memory](const std::string &, const char *name, void **entry) {
        if (void *function = stand_in_find(rows, name))
            imports_redirect(entry, function);
        if (strcmp(name, "_wfopen") == 0)
            imports_redirect(
                entry, reinterpret_cast<void *>(in_memory ? open_memory_stream : open_real_stream));
    });
}
