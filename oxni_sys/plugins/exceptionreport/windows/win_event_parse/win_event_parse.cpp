/* The System event log: the scan of its records and the one search that the plug-in makes in it.
 * Stateless; runs on the thread of the timer that asks. */
#include "win_event_parse.h"

#include "bypass_log.h"

#include <algorithm>

#include <stddef.h>
#include <stdio.h>
#include <string.h>

#include <oxni/base/memory.h>
#include <oxni/base/str.h>

/* Holds a few dozen ordinary records; grown only for a record that does not fit. */
#define READ_BUFFER_BYTES    4096
#define EVENT_ID_BUGCHECK    1001
#define SECONDS_1601_TO_1970 11644473600ULL
#define TICKS_PER_SECOND     10000000ULL

enum event_read_result {
    EVENT_READ_OPEN_FAILED = 1,
    EVENT_READ_NO_MEMORY = 2,
    EVENT_READ_FAILED = 3,
};

static_assert(sizeof(EVENTLOGRECORD) == 56, "the provider name begins at byte 56");
static_assert(offsetof(EVENTLOGRECORD, NumStrings) == 26, "record layout");
static_assert(offsetof(EVENTLOGRECORD, StringOffset) == 36, "record layout");

/* One record of a block, and where the search has to stop reading. */
struct found_event {
    uint32_t event_id;
    const wchar_t *provider;
    const uint8_t *record;
    const uint8_t *block_end;
};

/* event id, word for it in the log */
static const struct event_kind {
    uint32_t event_id;
    const char *word;
} s_event_kinds[] = {
    {12,                "windows_start"           },
    {41,                "windows_nonomal_shutdown"},
    {EVENT_ID_BUGCHECK, "windows_system_crash"    },
    {7001,              "windows_winlogin"        },
};

static const char *event_kind_word(uint32_t event_id)
{
    for (const event_kind &kind : s_event_kinds)
        if (kind.event_id == event_id)
            return kind.word;
    return "unknown";
}

/* Records need not be aligned, so their header is copied out. */
static EVENTLOGRECORD record_header(const uint8_t *record)
{
    EVENTLOGRECORD header;

    memcpy(&header, record, sizeof(header));
    return header;
}

static const wchar_t *wide_at(const uint8_t *bytes)
{
    return reinterpret_cast<const wchar_t *>(bytes);
}

/* A 32-bit field of a record; a scan needs two of each header, not a copy of it. */
static uint32_t field_at(const uint8_t *record, size_t offset)
{
    uint32_t value;

    memcpy(&value, record + offset, sizeof(value));
    return value;
}

static uint64_t event_id_bit(uint32_t event_id)
{
    return 1ULL << (event_id & 63);
}

/* The bits of all expected ids: nearly every record of a log is told apart by them, for less than
 * a look-up in the map takes. */
static uint64_t expected_id_bits(const expected_event_map &expected)
{
    uint64_t bits = 0;

    for (const auto &entry : expected)
        bits |= event_id_bit(entry.first.event_id);
    return bits;
}

/* Whether the name of a provider ends inside its record, which it should; warns if not. available:
 * wide characters from the name to the block's end. */
static bool is_name_whole(const uint8_t *record, const wchar_t *provider, size_t available)
{
    const uint32_t record_length = field_at(record, offsetof(EVENTLOGRECORD, Length));
    const uint32_t left =
        (record_length - (uint32_t)sizeof(EVENTLOGRECORD)) / (uint32_t)sizeof(wchar_t);
    /* left is no bound for a Length below the header's: it wraps. */
    const size_t bound = std::min<size_t>(left, available);
    size_t length;

    if (provider == NULL) {
        LOG_WARN("event id[%d] provider string is null!",
                 (int)field_at(record, offsetof(EVENTLOGRECORD, EventID)));
        return false;
    }
    length = oxni_wcsnlen(provider, bound);
    if (length < bound)
        return true;
    LOG_WARN("provider string length invalid! event id[%d] provider len[%d] record len[%d] left "
             "len[%d]",
             (int)field_at(record, offsetof(EVENTLOGRECORD, EventID)), (int)length,
             (int)record_length, (int)left);
    return false;
}

/* Appends a record's insertion strings. What the record says of them is not trusted: nothing behind
 * its end is read, and a string without a terminator ends there. */
static void append_insertion_strings(const found_event &found, std::vector<std::wstring> *strings)
{
    const EVENTLOGRECORD header = record_header(found.record);
    const size_t length = std::min<size_t>(header.Length, (size_t)(found.block_end - found.record));
    size_t offset = header.StringOffset;

    for (unsigned i = 0; i < header.NumStrings; i++) {
        if (offset + sizeof(wchar_t) > length)
            break;
        const wchar_t *text = wide_at(found.record + offset);
        const size_t chars = oxni_wcsnlen(text, (length - offset) / sizeof(wchar_t));
        strings->emplace_back(text, chars);
        offset += (chars + 1) * sizeof(wchar_t);
    }
}

static void capture_event(const found_event &found, event_info *info)
{
    info->time_generated = record_header(found.record).TimeGenerated;
    info->event_id = found.event_id;
    (void)format_event_time(info->time_generated, info->time_text); /* always fits */
    if (found.event_id == EVENT_ID_BUGCHECK) {
        append_insertion_strings(found, &info->strings);
        LOG_INFO("system crash time:%s", info->time_text);
    }
    LOG_INFO("capture expect event[%d][%s] provider[%S] time[%s], stop read event!",
             (int)found.event_id, event_kind_word(found.event_id), found.provider, info->time_text);
}

/* Makes room for the record that did not fit. On failure the buffer stays as it was. */
static bool grow_buffer(uint8_t **buffer, DWORD *size, DWORD needed)
{
    uint8_t *grown = static_cast<uint8_t *>(oxni_ralloc_(*buffer, needed));

    if (grown == NULL)
        return false;
    *buffer = grown;
    *size = needed;
    return true;
}

/* Reads block after block until a record is expected. Result as of get_crash_info. */
static uint32_t read_until_expected(HANDLE log, uint8_t **buffer, event_info *info,
                                    const expected_event_map &expected)
{
    DWORD size = READ_BUFFER_BYTES;
    DWORD filled = 0, needed = 0;
    uint32_t last_scan = 0; /* an empty log thus ends with success and an empty record */

    for (;;) {
        if (ReadEventLogW(log, EVENTLOG_SEQUENTIAL_READ | EVENTLOG_BACKWARDS_READ, 0, *buffer, size,
                          &filled, &needed)) {
            found_event found = {};
            found.block_end = *buffer + filled;
            last_scan = find_expected_event(*buffer, filled, &found.event_id, &found.provider,
                                            &found.record, expected);
            if (last_scan == 0 &&
                expected.find({found.event_id, found.provider}) != expected.end()) {
                capture_event(found, info);
                return 0;
            }
            if (filled == 0) /* would be so for ever */
                return last_scan;
            continue;
        }
        const DWORD error = GetLastError();
        if (error == ERROR_HANDLE_EOF)
            return last_scan;
        /* A call that wants no more room than it has would want it for ever. */
        if (error != ERROR_INSUFFICIENT_BUFFER || needed <= size)
            return EVENT_READ_FAILED;
        if (!grow_buffer(buffer, &size, needed))
            return EVENT_READ_NO_MEMORY;
    }
}

static uint32_t search_system_log(event_info *info, const expected_event_map &expected)
{
    uint32_t result = EVENT_READ_NO_MEMORY;
    uint8_t *buffer;
    HANDLE log = OpenEventLogW(NULL, L"System");

    if (log == NULL)
        return EVENT_READ_OPEN_FAILED;
    buffer = static_cast<uint8_t *>(oxni_zero_malloc_(READ_BUFFER_BYTES));
    if (buffer != NULL)
        result = read_until_expected(log, &buffer, info, expected);
    oxni_free_(buffer);
    CloseEventLog(log);
    return result;
}

static void set_token_privilege(HANDLE token, const LUID &luid, int32_t enable)
{
    TOKEN_PRIVILEGES privileges = {};
    DWORD error;

    privileges.PrivilegeCount = 1;
    privileges.Privileges[0].Luid = luid;
    privileges.Privileges[0].Attributes = enable == 1 ? SE_PRIVILEGE_ENABLED : 0;
    if (!AdjustTokenPrivileges(token, FALSE, &privileges, 0, NULL, NULL)) {
        error = GetLastError();
        LOG_WARN("AdjustTokenPrivileges failed: %d ", (int)error);
        return;
    }
    /* Windows calls it a success when the token lacks the privilege, and only this tells. */
    error = GetLastError();
    if (error == ERROR_NOT_ALL_ASSIGNED)
        LOG_WARN("The token does not have the specified privilege: %d ", (int)error);
    else
        LOG_INFO("adjust process privilege success with %d ", enable);
}

bool event_key_less::operator()(const event_key &a, const event_key &b) const
{
    const int32_t id_a = (int32_t)a.event_id, id_b = (int32_t)b.event_id;

    if (id_a != id_b)
        return id_a < id_b;
    if (a.provider == NULL || b.provider == NULL)
        return false;
    return oxni_wcscmp(a.provider, b.provider) != 0;
}

uint32_t win_event_parse::get_crash_info(event_info *info, const expected_event_map &expected) const
{
    uint32_t result;

    adjust_process_privilege("SeSecurityPrivilege", 1);
    result = search_system_log(info, expected);
    if (result != 0)
        LOG_WARN("get_crash_info failed:%d ", (int)result);
    adjust_process_privilege("SeSecurityPrivilege", 0);
    return result;
}

void adjust_process_privilege(const char *name, int32_t enable)
{
    HANDLE token = NULL;
    DWORD error;
    LUID luid;

    if (!OpenProcessToken(GetCurrentProcess(), TOKEN_ADJUST_PRIVILEGES | TOKEN_QUERY, &token)) {
        error = GetLastError();
        LOG_WARN("OpenProcessToken failed: %d ", (int)error);
        return;
    }
    if (LookupPrivilegeValueA(NULL, name, &luid)) {
        set_token_privilege(token, luid, enable);
    } else {
        error = GetLastError();
        LOG_WARN("LookupPrivilegeValue failed: %d ", (int)error);
    }
    CloseHandle(token);
}

uint32_t find_expected_event(const uint8_t *buffer, uint32_t size, uint32_t *event_id,
                             const wchar_t **provider, const uint8_t **record,
                             const expected_event_map &expected)
{
    const uint64_t id_bits = expected_id_bits(expected);
    size_t left = size;

    if (buffer == NULL)
        return ERROR_INVALID_DATA;
    for (const uint8_t *at = buffer; left >= sizeof(EVENTLOGRECORD);) {
        const wchar_t *name = wide_at(at + sizeof(EVENTLOGRECORD));
        const uint32_t id = field_at(at, offsetof(EVENTLOGRECORD, EventID)) & 0xFFFF;
        const uint32_t length = field_at(at, offsetof(EVENTLOGRECORD, Length));

        if (is_name_whole(at, name, (left - sizeof(EVENTLOGRECORD)) / sizeof(wchar_t)) &&
            (id_bits & event_id_bit(id)) != 0 && expected.find({id, name}) != expected.end()) {
            *event_id = id;
            *provider = name;
            *record = at;
            return 0;
        }
        /* Behind one that reaches beyond the block there is none; behind one without a length it
         * would be itself, for ever. */
        if (length == 0 || length > left)
            break;
        at += length;
        left -= length;
    }
    return ERROR_INVALID_DATA;
}

void unix_time_to_filetime(uint32_t seconds, FILETIME *filetime)
{
    const uint64_t ticks = (seconds + SECONDS_1601_TO_1970) * TICKS_PER_SECOND;

    if (filetime == NULL)
        return;
    filetime->dwLowDateTime = (DWORD)ticks;
    filetime->dwHighDateTime = (DWORD)(ticks >> 32);
}

int format_event_time(uint32_t seconds, char *buffer)
{
    FILETIME utc, local = {};
    SYSTEMTIME time = {};

    unix_time_to_filetime(seconds, &utc);
    (void)FileTimeToLocalFileTime(&utc, &local); /* any 32-bit time can be converted */
    (void)FileTimeToSystemTime(&local, &time);
    return snprintf(buffer, EVENT_TIME_TEXT_CHARS, "%d/%d/%d %.2d:%.2d:%.2d", time.wMonth,
                    time.wDay, time.wYear, time.wHour, time.wMinute, time.wSecond);
}
