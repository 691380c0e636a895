/* The System event log: the scan of its records and the one search that the plug-in makes in it.
 * Stateless; runs on the thread of the timer that asks. */
#include "win_event_parse.h"

#include <algorithm>

#include <stdio.h>
#include <string.h>

#include <oxni/base/memory.h>
#include <oxni/base/str.h>

#include "bypass_log.h"
#include "exception_boundary.h"
#include "filetime.h"
#include "process_privilege.h"
#include "system_events.h"
#include "windows_owner.h"

/* Holds a few dozen ordinary records; grown only for a record that does not fit. */
#define READ_BUFFER_BYTES 4096

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
    {EVENT_WINDOWS_START,       "windows_start"           },
    {EVENT_UNEXPECTED_SHUTDOWN, "windows_nonomal_shutdown"},
    {EVENT_BUGCHECK,            "windows_system_crash"    },
    {EVENT_WINLOGON,            "windows_winlogin"        },
};

static const char *event_kind_word(uint32_t event_id)
{
    for (const event_kind &kind : s_event_kinds)
        if (kind.event_id == event_id)
            return kind.word;
    return "unknown";
}

static bool is_expected(const expected_event_map &expected, const event_key &key)
{
    const event_key *end = expected.keys + expected.count;
    const event_key *candidate = std::lower_bound(expected.keys, end, key, event_key_less());

    return candidate != end && !event_key_less()(key, *candidate);
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
    return (const wchar_t *)bytes;
}

/* Whether the name of a provider ends inside its record, as it should; warns if not. available:
 * wide characters from the name to the block's end. */
static bool is_name_whole(const EVENTLOGRECORD &header, const wchar_t *provider, size_t available)
{
    const uint32_t left =
        (header.Length - (uint32_t)sizeof(EVENTLOGRECORD)) / (uint32_t)sizeof(wchar_t);
    /* left is no bound for a Length below the header's: it wraps. */
    const size_t bound = std::min<size_t>(left, available);
    size_t length;

    if (provider == NULL) {
        LOG_WARN("event id[%d] provider string is null!", (int)header.EventID);
        return false;
    }
    length = oxni_wcsnlen(provider, bound);
    if (length < bound)
        return true;
    LOG_WARN("provider string length invalid! event id[%d] provider len[%d] record len[%d] left "
             "len[%d]",
             (int)header.EventID, (int)length, (int)header.Length, (int)left);
    return false;
}

/* Appends a record's insertion strings. The record's own fields are not trusted: nothing after its
 * end is read, and a string without a terminator ends there. */
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
    if (found.event_id == EVENT_BUGCHECK) {
        /* What the record says of the crash matters less than that there was one. */
        exception_boundary("insertion strings",
                           [&] { append_insertion_strings(found, &info->strings); });
        LOG_INFO("system crash time:%s", info->time_text);
    }
    LOG_INFO("capture expect event[%d][%s] provider[%S] time[%s], stop read event!",
             (int)found.event_id, event_kind_word(found.event_id), found.provider, info->time_text);
}

/* Makes room for the record that did not fit. On failure the buffer stays as it was. */
static bool grow_buffer(owned_block *buffer, DWORD *size, DWORD needed)
{
    void *grown = oxni_ralloc_(buffer->get(), needed);

    if (grown == NULL)
        return false;
    (void)buffer->release(); /* stolen by the call above */
    buffer->reset(grown);
    *size = needed;
    return true;
}

/* Reads block after block until a record is expected. Result as of get_crash_info. */
static uint32_t read_until_expected(HANDLE log, owned_block *buffer, event_info *info,
                                    const expected_event_map &expected)
{
    DWORD size = READ_BUFFER_BYTES;
    DWORD filled = 0, needed = 0;
    uint32_t last_scan = 0; /* an empty log thus ends with success and an empty record */

    for (;;) {
        if (ReadEventLogW(log, EVENTLOG_SEQUENTIAL_READ | EVENTLOG_BACKWARDS_READ, 0, buffer->get(),
                          size, &filled, &needed)) {
            const uint8_t *block = (const uint8_t *)buffer->get();
            found_event found = {};
            found.block_end = block + filled;
            last_scan = find_expected_event(block, filled, &found.event_id, &found.provider,
                                            &found.record, expected);
            if (last_scan == 0 && is_expected(expected, {found.event_id, found.provider})) {
                capture_event(found, info);
                return 0;
            }
            if (filled == 0) /* a read of nothing would repeat without end */
                return last_scan;
            continue;
        }
        const DWORD error = GetLastError();
        if (error == ERROR_HANDLE_EOF)
            return last_scan;
        /* A call that needs no more room than it has would fail so without end. */
        if (error != ERROR_INSUFFICIENT_BUFFER || needed <= size)
            return EVENT_READ_FAILED;
        if (!grow_buffer(buffer, &size, needed))
            return EVENT_READ_NO_MEMORY;
    }
}

static uint32_t search_system_log(event_info *info, const expected_event_map &expected)
{
    const owned_event_log log(OpenEventLogW(NULL, L"System"));

    if (!log.is_valid())
        return EVENT_READ_OPEN_FAILED;
    owned_block buffer(oxni_zero_malloc_(READ_BUFFER_BYTES));
    if (!buffer.is_valid())
        return EVENT_READ_NO_MEMORY;
    return read_until_expected(log.get(), &buffer, info, expected);
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
    const enabled_privilege privilege("SeSecurityPrivilege");
    const uint32_t result = search_system_log(info, expected);

    if (result != 0)
        LOG_WARN("get_crash_info failed:%d ", (int)result);
    return result;
}

uint32_t find_expected_event(const uint8_t *buffer, uint32_t size, uint32_t *event_id,
                             const wchar_t **provider, const uint8_t **record,
                             const expected_event_map &expected)
{
    size_t left = size;

    if (buffer == NULL)
        return ERROR_INVALID_DATA;
    for (const uint8_t *at = buffer; left >= sizeof(EVENTLOGRECORD);) {
        const EVENTLOGRECORD header = record_header(at);
        const wchar_t *name = wide_at(at + sizeof(EVENTLOGRECORD));
        const uint32_t id = header.EventID & 0xFFFF;

        if (is_name_whole(header, name, (left - sizeof(EVENTLOGRECORD)) / sizeof(wchar_t)) &&
            is_expected(expected, {id, name})) {
            *event_id = id;
            *provider = name;
            *record = at;
            return 0;
        }
        /* A record that reaches beyond the block is the last one; a length of zero would lead to
         * the same record without end. */
        if (header.Length == 0 || header.Length > left)
            break;
        at += header.Length;
        left -= header.Length;
    }
    return ERROR_INVALID_DATA;
}

void unix_time_to_filetime(uint32_t seconds, FILETIME *filetime)
{
    if (filetime == NULL)
        return;
    *filetime = filetime_of_value(
        (uint64_t)((seconds + FILETIME_SECONDS_1601_TO_1970) * FILETIME_TICKS_PER_SECOND));
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
