/*
 * How the previous run of Windows ended: the timed check after boot (crash_info.cpp), the crash
 * dump and the record of its time (crash_info_dump.cpp), and the crash records that the platform's
 * drivers keep in files (crash_info_record.cpp).
 *
 * Runs on the host's threads that deliver timers and messages, one call at a time. File times count
 * 100 ns since 1601-01-01 00:00 UTC.
 */
#ifndef CRASH_INFO_H
#define CRASH_INFO_H

#include <string>

#include <stddef.h>
#include <stdint.h>
#include <windows.h>

#include "win_event_parse.h"
#include "analyze_dmp.h"

#define CRASH_TEXT_CHARS 260

/* The crash that was blamed; every text is empty when there is none. */
struct crash_info {
    char crash_path[CRASH_TEXT_CHARS];        /* of the dump that was analysed */
    char crash_create_time[CRASH_TEXT_CHARS]; /* of the dump, local date and time */
    char crash_module[CRASH_TEXT_CHARS];      /* the registered module; empty when none is blamed */
};

/* The check after boot. */

enum status_check_result {
    STATUS_CHECK_NORMAL = 0,              /* neither crash nor unexpected shutdown */
    STATUS_CHECK_FAILED = 1,              /* the check could not go on */
    STATUS_CHECK_CRASH = 2,               /* a blue screen was recorded since the last start */
    STATUS_CHECK_UNEXPECTED_SHUTDOWN = 3, /* power loss or reset, and no blue screen */
};

/*
 * What a check found; called exactly once a check, everything but user borrowed for the call.
 *
 * result              enum status_check_result.
 * modules, dump_path  As of find_new_crash_dump; empty unless result is STATUS_CHECK_CRASH.
 * event               Always empty.
 * Result              Ignored.
 */
typedef int (*status_check_cb)(int32_t result, const crash_module_set &modules,
                               const std::string &dump_path, const event_info &event, void *user);

/* Starts a check: a poll every 30 s, by timers, until the log tells or the polls are used up.
 * Several may run side by side; none can be stopped. Result: 1 started; 0 callback is NULL, or was
 * called with STATUS_CHECK_FAILED already. */
int32_t start_bypass_status_check(status_check_cb callback, void *user);

/* Crash dumps. */

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
 * use_record  1: newer than the recorded time is new, too. Anything else: the record is not asked.
 * modules     As analyze_dmp_file leaves it.
 * dump_time, dump_path
 *             Written when the result is 1; the time also before the path is refused. The path is
 *             the minidump's, in UTF-8, also when the
 *             complete dump was taken: it may be empty, or of an older one.
 * Result      1 analysed, with at least one module; 0 otherwise.
 * Throws      std::range_error when the minidump's path is not UTF-16.
 */
uint8_t find_new_crash_dump(uint32_t timeout_ms, uint32_t use_record, crash_module_set *modules,
                            uint64_t *dump_time, std::string *dump_path);

/* Makes the data folder if it is missing and resolves the dump record's path in it. Result 0. */
int get_dumprecord_path(char *buffer, size_t size);

/* The recorded dump time. Result: whether there is one; otherwise it is untouched. */
bool get_dumprecord_time(int64_t *dump_time);

/* Replaces the record. Result 1 written, 0 not. */
int set_dumprecord_time(int64_t dump_time);

/* Whether a file was written at or after the start of Windows; false when it cannot be read. */
bool is_file_updated_since_boot(const wchar_t *path);

/* Crash records of the platform's drivers. */

/* A crash_config.cfg after decoding. What the driver keeps for itself is preserved. */
#pragma pack(push, 1)
struct crash_config_record {
    uint8_t driver_head[30];
    uint32_t count; /* crashes, as the driver counted them */
    uint8_t driver_tail[16];
};
#pragma pack(pop)
static_assert(sizeof(crash_config_record) == 50, "the file holds 50 bytes");
static_assert(offsetof(crash_config_record, count) == 30, "the count lies at byte 30");

/* What the two functions below, and those of the drivers that use them, answer. */
enum crash_config_result {
    CRASH_CONFIG_OK = 0,
    CRASH_CONFIG_NULL = 1,      /* a null argument */
    CRASH_CONFIG_NOT_OPEN = 2,  /* the file cannot be opened */
    CRASH_CONFIG_TOO_SHORT = 3, /* it holds less than a record */
};

/* Reads and decodes the first 50 bytes of a file. The caller zeroes record; from a file that is too
 * short it receives what there is, coded. */
int read_crash_config(crash_config_record *record, const wchar_t *path);

/* Replaces the file by the coded record. record is coded in place and left so. */
int write_crash_config(crash_config_record *record, const wchar_t *path);

#endif
