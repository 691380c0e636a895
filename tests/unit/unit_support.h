/* What several of the unit tests need of the machine: its log, a private registry, a folder. */
#ifndef UNIT_SUPPORT_H
#define UNIT_SUPPORT_H

#include <string>
#include <vector>

#include <stdint.h>
#include <windows.h>

#include "import_patch.h"

/* Collects log lines of every level while it lives, as "level message". A log statement changes the
 * thread's last error meanwhile, as opening the log does: what is logged must have been taken
 * before. */
class log_capture
{
  public:
    log_capture();
    ~log_capture();
    log_capture(const log_capture &) = delete;
    log_capture &operator=(const log_capture &) = delete;

    /* The lines since the last call. */
    std::vector<std::string> take();

  private:
    static void receive(int level, const char *line, void *user);

    std::vector<std::string> lines_;
    import_patch level_patch_;
};

/* HKEY_LOCAL_MACHINE is an empty key of this test while it lives. */
class private_registry
{
  public:
    private_registry();
    ~private_registry();
    private_registry(const private_registry &) = delete;
    private_registry &operator=(const private_registry &) = delete;

    /* Creates the key when it is missing. size in bytes. */
    void set_value(const wchar_t *path, const wchar_t *name, DWORD type, const void *data,
                   size_t size);
    void set_text(const wchar_t *path, const wchar_t *name, DWORD type, const std::wstring &text);
    bool has_key(const wchar_t *path) const;
    /* Whether the key goes with the next start of Windows: a lasting key below it is refused. */
    bool is_volatile(const wchar_t *path) const;

  private:
    HKEY root_ = NULL;
};

/* An empty folder below the system's temporary one; removed with its files, one level of
 * folders. */
class temporary_folder
{
  public:
    temporary_folder();
    ~temporary_folder();
    temporary_folder(const temporary_folder &) = delete;
    temporary_folder &operator=(const temporary_folder &) = delete;

    /* Without a slash at the end. */
    const std::wstring &path() const
    {
        return path_;
    }
    std::string utf8() const;
    /* Path of a file in it. */
    std::wstring file(const wchar_t *name) const;
    /* Writes a file; write_time is its last-write time unless 0. */
    std::wstring write(const wchar_t *name, const std::string &bytes,
                       uint64_t write_time = 0) const;

  private:
    std::wstring path_;
};

std::string read_whole_file(const std::wstring &path);
std::string to_utf8(const std::wstring &text);

#endif
