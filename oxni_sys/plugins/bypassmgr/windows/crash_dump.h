/*
 * Crash dumps: where Windows writes them and which of them is new.
 *
 * Nothing is cached between calls; the host's timer thread, and the core. File times count 100 ns
 * since 1601-01-01 00:00 UTC. Functions with a std::wstring or a crash_module_set throw
 * std::bad_alloc.
 */
#ifndef CRASH_DUMP_H
#define CRASH_DUMP_H

#include <string>

#include <stdint.h>
#include <windows.h>

#include "crash_info.h"

/* One dump file; the path is empty and the time 0 when there is none. */
struct crash_dump_info {
    std::wstring path;
    uint64_t write_time;
};

/* Reads a text value of an open key up to its first NUL, unexpanded; written on success. Result: 0;
 * ERROR_INVALID_PARAMETER for NULL; ERROR_NOT_ENOUGH_MEMORY; ERROR_NOT_FOUND for another type;
 * otherwise the error of the query. */
uint32_t read_reg_string_value(HKEY key, const wchar_t *name, std::wstring *text);

/* The text with its environment references replaced; empty when that fails. */
std::wstring expand_env_path(const std::wstring &text);

/* Last-write time of a file, written on success. Result: 0 or the Windows error code. */
uint32_t get_file_write_time(const wchar_t *path, uint64_t *write_time);

/* The file of a folder that was written last; of equal times the one that Windows lists first.
 * Result: 0; ERROR_NOT_FOUND the folder holds no file; otherwise the Windows error code. */
uint32_t find_newest_file(const wchar_t *folder, std::wstring *path, uint64_t *write_time);

/* The complete memory dump and the newest minidump, where Windows is set to write them. Each is
 * written only when it exists. */
void get_crash_dump_files(crash_dump_info *complete, crash_dump_info *minidump);

/*
 * Finds the dump that was written since Windows started and analyses it: the newest minidump, or
 * the complete dump when no minidump is new.
 *
 * timeout_ms  Limits the loading of the dump.
 * use_record  1: a dump newer than the recorded time is new, too. Anything else: the record is not
 *             read.
 * modules     As analyze_dmp_file leaves it.
 * dump_time, dump_path
 *             Written when the result is true; a minidump's time also when its path is refused. The
 *             path is the minidump's, in UTF-8, also when the complete dump was taken: it may be empty,
 *             or of an older one.
 * Result      Whether a dump was analysed and has at least one module.
 * Throws      std::range_error when the minidump's path is not UTF-16; std::bad_alloc.
 */
bool find_new_crash_dump(uint32_t timeout_ms, uint32_t use_record, crash_module_set *modules,
                         uint64_t *dump_time, std::string *dump_path);

/* Whether a file was written at or after the start of Windows; false when it cannot be read. Throws
 * nothing. */
bool is_file_updated_since_boot(const wchar_t *path);

#endif
