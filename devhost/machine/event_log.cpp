/*
 * The System log as ReadEventLogW gives it: whole records in the layout of EVENTLOGRECORD, newest
 * first, each call going on where the last one stopped.
 */
#include "machine.h"

#include <string.h>

#include "../base/text.h"
#include "stand_in.h"

#define RECORD_SIGNATURE    0x654c664cu /* "LfLe" */
#define RECORD_HEADER_BYTES 56u
#define COMPUTER            L"DESKTOP"

struct open_log {
    size_t left; /* records not read yet, the oldest of the log */
};

static std::map<HANDLE, open_log> s_open_logs;
static machine_read s_last_read;

static void put_u32(char *bytes, size_t at, uint32_t value)
{
    memcpy(bytes + at, &value, sizeof(value));
}

static void put_u16(char *bytes, size_t at, uint16_t value)
{
    memcpy(bytes + at, &value, sizeof(value));
}

static size_t aligned(size_t bytes)
{
    return (bytes + 3) / 4 * 4;
}

/* Where the strings of a record stand, and its size. */
static size_t strings_at(const event_record &event)
{
    return aligned(RECORD_HEADER_BYTES + (event.source.size() + 1) * sizeof(wchar_t) +
                   sizeof(COMPUTER));
}

static size_t record_bytes(const event_record &event)
{
    return aligned(strings_at(event) + event.strings.packed().size() * sizeof(wchar_t)) +
           sizeof(uint32_t);
}

/* One EVENTLOGRECORD of that size, as record_bytes told. */
static void pack_record(const event_record &event, size_t size, char *bytes)
{
    const size_t strings = strings_at(event);
    const size_t source = (event.source.size() + 1) * sizeof(wchar_t);

    /* Zeros where nothing is written below: in the header, and in the gaps that aligning leaves
     * before the strings and before the closing length. A whole log is read by this. */
    memset(bytes, 0, RECORD_HEADER_BYTES);
    put_u32(bytes, strings - sizeof(uint32_t), 0);
    put_u32(bytes, size - 2 * sizeof(uint32_t), 0);
    memcpy(bytes + RECORD_HEADER_BYTES, event.source.c_str(), source);
    memcpy(bytes + RECORD_HEADER_BYTES + source, COMPUTER, sizeof(COMPUTER));
    memcpy(bytes + strings, event.strings.packed().data(),
           event.strings.packed().size() * sizeof(wchar_t));
    put_u32(bytes, 0, static_cast<uint32_t>(size));
    put_u32(bytes, 4, RECORD_SIGNATURE);
    put_u32(bytes, 8, event.number);
    put_u32(bytes, 12, event.time);
    put_u32(bytes, 16, event.time);
    put_u32(bytes, 20, event.id);
    put_u16(bytes, 24, event.type);
    put_u16(bytes, 26, static_cast<uint16_t>(event.strings.count()));
    put_u32(bytes, 36, static_cast<uint32_t>(strings)); /* StringOffset */
    put_u32(bytes, 44, static_cast<uint32_t>(strings)); /* UserSidOffset: no SID */
    put_u32(bytes, 52, static_cast<uint32_t>(strings)); /* DataOffset: no data */
    put_u32(bytes, size - sizeof(uint32_t), static_cast<uint32_t>(size));
}

static HANDLE WINAPI stand_in_OpenEventLogW(const wchar_t *server, const wchar_t *source)
{
    HANDLE handle = machine_new_handle();

    if (server != NULL || source == NULL || text_lower(std::wstring(source)) != L"system") {
        SetLastError(ERROR_FILE_NOT_FOUND);
        return NULL;
    }
    s_open_logs[handle] = {machine_get().events.size()};
    return handle;
}

static BOOL WINAPI stand_in_ReadEventLogW(HANDLE handle, DWORD flags, DWORD offset, void *buffer,
                                          DWORD bytes, DWORD *read, DWORD *needed)
{
    auto log = s_open_logs.find(handle);
    const std::vector<event_record> &events = machine_get().events;
    DWORD filled = 0;

    *read = 0;
    *needed = 0;
    s_last_read = {};
    (void)offset;
    if (log == s_open_logs.end() || flags != (EVENTLOG_SEQUENTIAL_READ | EVENTLOG_BACKWARDS_READ)) {
        SetLastError(log == s_open_logs.end() ? ERROR_INVALID_HANDLE : ERROR_INVALID_PARAMETER);
        return FALSE;
    }
    if (log->second.left == 0) {
        SetLastError(ERROR_HANDLE_EOF);
        return FALSE;
    }
    for (; log->second.left > 0; log->second.left--) {
        const event_record &event = events[log->second.left - 1];
        const DWORD size = static_cast<DWORD>(record_bytes(event));

        if (size > bytes - filled) {
            if (filled != 0)
                break;
            *needed = size;
            SetLastError(ERROR_INSUFFICIENT_BUFFER);
            return FALSE;
        }
        pack_record(event, size, static_cast<char *>(buffer) + filled);
        filled += size;
        if (s_last_read.newest == 0)
            s_last_read.newest = event.number;
        s_last_read.oldest = event.number;
    }
    *read = filled;
    return TRUE;
}

static BOOL WINAPI stand_in_CloseEventLog(HANDLE handle)
{
    if (s_open_logs.erase(handle) != 0)
        return TRUE;
    SetLastError(ERROR_INVALID_HANDLE);
    return FALSE;
}

machine_read machine_last_read(void)
{
    return s_last_read;
}

void machine_log(event_record record)
{
    std::vector<event_record> &events = machine_get().events;

    if (record.number == 0)
        record.number = events.empty() ? 1 : events.back().number + 1;
    events.push_back(std::move(record));
}

void *machine_event_log_stand_in(const char *name)
{
    static const stand_in_row rows[] = {
        STAND_IN(OpenEventLogW),
        STAND_IN(ReadEventLogW),
        STAND_IN(CloseEventLog),
    };

    return stand_in_find(rows, name);
}
