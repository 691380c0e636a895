/*
 * The System log as ReadEventLogW returns it: whole records in the layout of EVENTLOGRECORD. All
 * other logs are empty.
 */
#include "event_log.h"

#include <cstring>

#include <map>
#include <vector>

#include "../base/text.h"
#include "../calls/stand_in.h"
#include "machine.h"
#include "machine_internal.h"

static constexpr uint32_t RECORD_SIGNATURE = 0x654c664cu; /* "LfLe" */
static constexpr uint32_t RECORD_HEADER_BYTES = 56u;
static constexpr wchar_t COMPUTER[] = L"DESKTOP";

/* Every third record was logged by an account, every fourth has data, so that a reader takes the
 * offsets from the header. */
static const unsigned char s_system_sid[] = {1, 1, 0, 0, 0, 0, 0, 5, 18, 0, 0, 0}; /* S-1-5-18 */
static const unsigned char s_data[] = {0, 0, 0, 0, 2, 0, 0x50, 0};

static constexpr uint32_t MAX_READ_BYTES = 0x7ffffu; /* documented for ReadEventLogW */

struct open_log {
    bool is_system;  /* all other logs are empty */
    bool started;    /* the first read decides where the log is entered */
    size_t position; /* number of records before the place of the next read, oldest first */
};

static std::map<HANDLE, open_log> s_open_logs;
static machine_read s_last_read;
/* The records as they are read, packed once: reading them takes most of a query's time. Record i
 * ends at s_ends[i]. */
static std::string s_packed;
static std::vector<size_t> s_ends;

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

/* The offsets of a record's parts; size is the record's. */
struct record_layout {
    size_t sid, sid_bytes, strings, data, data_bytes, size;
};

static record_layout layout_of(const event_record &event)
{
    record_layout at = {};

    at.sid = aligned(RECORD_HEADER_BYTES + (event.source.size() + 1) * sizeof(wchar_t) +
                     sizeof(COMPUTER));
    at.sid_bytes = event.number % 3 == 0 ? sizeof(s_system_sid) : 0;
    at.strings = at.sid + at.sid_bytes;
    at.data = at.strings + event.strings.packed().size() * sizeof(wchar_t);
    at.data_bytes = event.number % 4 == 1 ? sizeof(s_data) : 0;
    at.size = aligned(at.data + at.data_bytes) + sizeof(uint32_t);
    return at;
}

/* Appends one EVENTLOGRECORD. */
static void pack_record(const event_record &event)
{
    const record_layout at = layout_of(event);
    const size_t source = (event.source.size() + 1) * sizeof(wchar_t), begin = s_packed.size();

    s_packed.append(at.size, '\0');
    char *bytes = &s_packed[begin];
    memcpy(bytes + RECORD_HEADER_BYTES, event.source.c_str(), source);
    memcpy(bytes + RECORD_HEADER_BYTES + source, COMPUTER, sizeof(COMPUTER));
    memcpy(bytes + at.sid, s_system_sid, at.sid_bytes);
    memcpy(bytes + at.strings, event.strings.packed().data(), at.data - at.strings);
    memcpy(bytes + at.data, s_data, at.data_bytes);
    put_u32(bytes, 0, static_cast<uint32_t>(at.size));
    put_u32(bytes, 4, RECORD_SIGNATURE);
    put_u32(bytes, 8, event.number);
    put_u32(bytes, 12, event.time);
    put_u32(bytes, 16, event.time);
    put_u32(bytes, 20, event.id);
    put_u16(bytes, 24, event.type);
    put_u16(bytes, 26, static_cast<uint16_t>(event.strings.count()));
    put_u32(bytes, 36, static_cast<uint32_t>(at.strings)); /* StringOffset */
    put_u32(bytes, 40, static_cast<uint32_t>(at.sid_bytes));
    put_u32(bytes, 44, static_cast<uint32_t>(at.sid)); /* UserSidOffset */
    put_u32(bytes, 48, static_cast<uint32_t>(at.data_bytes));
    put_u32(bytes, 52, static_cast<uint32_t>(at.data)); /* DataOffset */
    put_u32(bytes, at.size - sizeof(uint32_t), static_cast<uint32_t>(at.size));
    s_ends.push_back(s_packed.size());
}

/* Packs the records that were logged since the last read. A shorter log is another one. */
static void pack_new_records(void)
{
    const std::vector<event_record> &events = machine_get().events;

    if (events.size() < s_ends.size())
        machine_open_event_log();
    for (size_t i = s_ends.size(); i < events.size(); i++)
        pack_record(events[i]);
}

void machine_open_event_log(void)
{
    s_packed.clear();
    s_ends.clear();
}

static HANDLE WINAPI stand_in_OpenEventLogW(const wchar_t *server, const wchar_t *source)
{
    const HANDLE none = nullptr, handle = stand_in_new_handle();

    if (server != nullptr && *server != L'\0')
        return stand_in_fail(RPC_S_SERVER_UNAVAILABLE, none);
    if (source == nullptr)
        return stand_in_fail(ERROR_INVALID_PARAMETER, none);
    const std::wstring log = text_lower(std::wstring(source));
    if (log == L"security" && !machine_token_has_enabled("SeSecurityPrivilege"))
        return stand_in_fail(ERROR_PRIVILEGE_NOT_HELD, none);
    /* Windows takes an unknown name for a source of the Application log. */
    s_open_logs[handle] = {log == L"system", false, 0};
    return handle;
}

/* Whether exactly one of two flags is set. */
static bool is_one_of(DWORD flags, DWORD one, DWORD other)
{
    return ((flags & one) != 0) != ((flags & other) != 0);
}

/* Moves to the place where a read begins. Result: whether the flags ask for one that exists. */
static bool enter_log(open_log &log, DWORD flags, DWORD number)
{
    const std::vector<event_record> &events = machine_get().events;
    const bool backwards = (flags & EVENTLOG_BACKWARDS_READ) != 0;

    if ((flags & EVENTLOG_SEEK_READ) != 0) {
        size_t index = 0;

        while (index < s_ends.size() && events[index].number != number)
            index++;
        if (index == s_ends.size() || !log.is_system)
            return false;
        log.position = backwards ? index + 1 : index;
    } else if (!log.started) {
        log.position = backwards && log.is_system ? s_ends.size() : 0;
    }
    log.started = true;
    return true;
}

/* The index of the record that the next read gives; -1 at the end of the log. */
static ptrdiff_t next_record(const open_log &log, bool backwards)
{
    if (backwards)
        return static_cast<ptrdiff_t>(log.position) - 1;
    return log.is_system && log.position < s_ends.size() ? static_cast<ptrdiff_t>(log.position)
                                                         : -1;
}

/* Copies whole records as long as they fit. Result: bytes copied; needed is set when not even the
 * first one fits. */
static DWORD copy_records(open_log &log, bool backwards, char *buffer, DWORD bytes, DWORD *needed)
{
    const std::vector<event_record> &events = machine_get().events;
    DWORD filled = 0;

    for (ptrdiff_t next; (next = next_record(log, backwards)) >= 0;) {
        const size_t index = static_cast<size_t>(next), begin = index > 0 ? s_ends[index - 1] : 0;
        const DWORD size = static_cast<DWORD>(s_ends[index] - begin);

        if (size > bytes - filled) {
            *needed = filled == 0 ? size : 0;
            break;
        }
        memcpy(buffer + filled, &s_packed[begin], size);
        filled += size;
        log.position = backwards ? index : index + 1;
        if (s_last_read.newest == 0)
            s_last_read.newest = events[index].number;
        s_last_read.oldest = events[index].number;
    }
    return filled;
}

static BOOL WINAPI stand_in_ReadEventLogW(HANDLE handle, DWORD flags, DWORD offset, void *buffer,
                                          DWORD bytes, DWORD *read, DWORD *needed)
{
    auto log = s_open_logs.find(handle);
    const bool backwards = (flags & EVENTLOG_BACKWARDS_READ) != 0;

    s_last_read = {};
    if (log == s_open_logs.end())
        return stand_in_fail(ERROR_INVALID_HANDLE, FALSE);
    if (!is_one_of(flags, EVENTLOG_SEQUENTIAL_READ, EVENTLOG_SEEK_READ) ||
        !is_one_of(flags, EVENTLOG_FORWARDS_READ, EVENTLOG_BACKWARDS_READ) || buffer == nullptr ||
        bytes > MAX_READ_BYTES || read == nullptr || needed == nullptr)
        return stand_in_fail(ERROR_INVALID_PARAMETER, FALSE);
    pack_new_records();
    if (!enter_log(log->second, flags, offset))
        return stand_in_fail(ERROR_INVALID_PARAMETER, FALSE);
    *needed = 0;
    *read = copy_records(log->second, backwards, static_cast<char *>(buffer), bytes, needed);
    if (*read != 0)
        return TRUE;
    return stand_in_fail(*needed != 0 ? ERROR_INSUFFICIENT_BUFFER : ERROR_HANDLE_EOF, FALSE);
}

static BOOL WINAPI stand_in_CloseEventLog(HANDLE handle)
{
    return s_open_logs.erase(handle) != 0 || stand_in_fail(ERROR_INVALID_HANDLE, FALSE);
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
