/* Stand-ins for the file operations of plug-in and platform. */
#include "file_operations.h"

#include <cstdio>
#include <windows.h>

#include <string>

#include "agent/agent.h"
#include "base/text.h"
#include "calls/imports.h"

struct file_operations file_operations;

/* Open in the present operation; Windows would close them with the process. */
static HANDLE s_file;
static FILE *s_stream;

bool file_operations_document(const std::string &name)
{
    return name.size() > 4 && name.compare(name.size() - 4, 4, ".ejs") == 0;
}

/* Result: whether this write is torn. */
static bool operation(bool writes)
{
    file_operations.count++;
    if (file_operations.before != nullptr)
        file_operations.before(writes);
    if (file_operations.count != file_operations.at)
        return false;
    if (writes && file_operations.torn)
        return true;
    file_operations.end();
    return false;
}

/* Stand-ins that call the real functions of one module: the plug-in's are those of the machine. */
template <int module> struct operations {
    static inline decltype(&::CreateFileW) create_w;
    static inline decltype(&::CreateFileA) create_a;
    static inline decltype(&::WriteFile) write;
    static inline decltype(&::FlushFileBuffers) flush;
    static inline decltype(&::MoveFileExW) move;
    static inline decltype(&::DeleteFileW) remove;
    static inline decltype(&::SetFileTime) set_time;
    static inline decltype(&::fclose) close;

    static HANDLE WINAPI do_create_w(const wchar_t *path, DWORD access, DWORD share,
                                     SECURITY_ATTRIBUTES *security, DWORD disposition, DWORD flags,
                                     HANDLE other)
    {
        if ((access & GENERIC_WRITE) != 0)
            (void)operation(false);
        return create_w(path, access, share, security, disposition, flags, other);
    }
    static HANDLE WINAPI do_create_a(const char *path, DWORD access, DWORD share,
                                     SECURITY_ATTRIBUTES *security, DWORD disposition, DWORD flags,
                                     HANDLE other)
    {
        if ((access & GENERIC_WRITE) != 0)
            (void)operation(false);
        return create_a(path, access, share, security, disposition, flags, other);
    }
    static BOOL WINAPI do_write(HANDLE file, const void *bytes, DWORD count, DWORD *written,
                                OVERLAPPED *overlapped)
    {
        s_file = module != 0 ? file : nullptr;
        if (operation(true)) {
            (void)write(file, bytes, count / 2, written, overlapped);
            file_operations.end();
        }
        s_file = nullptr;
        return write(file, bytes, count, written, overlapped);
    }
    static BOOL WINAPI do_flush(HANDLE file)
    {
        s_file = file;
        (void)operation(false);
        s_file = nullptr;
        return flush(file);
    }
    static BOOL WINAPI do_move(const wchar_t *from, const wchar_t *to, DWORD flags)
    {
        (void)operation(false);
        return move(from, to, flags);
    }
    static BOOL WINAPI do_remove(const wchar_t *path)
    {
        (void)operation(false);
        if (file_operations_document(text_narrow(path)))
            file_operations.deleted = text_narrow(path);
        return remove(path);
    }
    static BOOL WINAPI do_set_time(HANDLE file, const FILETIME *created, const FILETIME *accessed,
                                   const FILETIME *written)
    {
        (void)operation(false);
        return set_time(file, created, accessed, written);
    }
    static int do_close(FILE *file)
    {
        s_stream = file;
        (void)operation(false); /* what was written goes to the disk now */
        s_stream = nullptr;
        return close(file);
    }

    template <typename Function>
    static void redirect(void **entry, Function *real, Function stand_in)
    {
        *real =
            reinterpret_cast<Function>(imports_redirect(entry, reinterpret_cast<void *>(stand_in)));
    }

    static void redirect_name(const std::string &name, void **entry)
    {
        if (name == "CreateFileW")
            redirect(entry, &create_w, &do_create_w);
        if (name == "CreateFileA")
            redirect(entry, &create_a, &do_create_a);
        if (name == "WriteFile" && module != 2) /* there it is the log's */
            redirect(entry, &write, &do_write);
        if (name == "FlushFileBuffers")
            redirect(entry, &flush, &do_flush);
        if (name == "MoveFileExW")
            redirect(entry, &move, &do_move);
        if (name == "DeleteFileW")
            redirect(entry, &remove, &do_remove);
        if (name == "SetFileTime")
            redirect(entry, &set_time, &do_set_time);
        if (name == "fclose")
            redirect(entry, &close, &do_close);
    }

    static void redirect_all(HMODULE of)
    {
        imports_each(of, [](const std::string &, const char *name, void **entry) {
            redirect_name(name, entry);
        });
    }
};

static void redirect_plugin(HMODULE plugin)
{
    operations<0>::redirect_all(plugin);
}

void file_operations_open(void)
{
    operations<1>::redirect_all(GetModuleHandleW(L"libwdu_ejs.dll"));
    operations<2>::redirect_all(GetModuleHandleW(L"liboxnibase.dll"));
    agent_watch_load(redirect_plugin);
}

void file_operations_close_files(void)
{
    if (s_file != nullptr)
        CloseHandle(s_file);
    if (s_stream != nullptr)
        fclose(s_stream);
    s_file = nullptr;
    s_stream = nullptr;
}
