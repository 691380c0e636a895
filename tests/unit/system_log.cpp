#include "system_log.h"

#include <stdexcept>

#include <cstring>
#include <windows.h>

static constexpr int MOMENT = 1709802341; /* seconds since 1970 UTC */

static block s_log_bytes; /* what ReadEventLogW still has to return */

std::string wide_bytes(const std::wstring &text)
{
    return std::string(reinterpret_cast<const char *>(text.data()), text.size() * sizeof(wchar_t));
}

static void put_text(block *bytes, const std::wstring &text)
{
    const std::string from = wide_bytes(text + L'\0');

    bytes->insert(bytes->end(), from.begin(), from.end());
}

block event_record(uint32_t event_id, const std::wstring &source,
                   const std::vector<std::wstring> &strings)
{
    block bytes(sizeof(EVENTLOGRECORD));
    EVENTLOGRECORD header = {};

    put_text(&bytes, source);
    put_text(&bytes, L"COMPUTER");
    header.StringOffset = static_cast<DWORD>(bytes.size());
    for (const std::wstring &text : strings)
        put_text(&bytes, text);
    bytes.resize((bytes.size() + 3) / 4 * 4 + sizeof(DWORD));
    header.Length = static_cast<DWORD>(bytes.size());
    header.Reserved = 0x654c664c;
    header.TimeGenerated = MOMENT;
    header.TimeWritten = MOMENT + 60; /* does not count */
    header.EventID = event_id;
    header.EventCategory = 63; /* nor does this */
    header.NumStrings = static_cast<WORD>(strings.size());
    memcpy(bytes.data(), &header, sizeof(header));
    memcpy(&bytes[bytes.size() - sizeof(DWORD)], &header.Length, sizeof(DWORD));
    return bytes;
}

int system_log::logs_open;
bool system_log::read_throws;

static BOOL WINAPI read_log(HANDLE, DWORD, DWORD, void *buffer, DWORD size, DWORD *filled,
                            DWORD *needed)
{
    if (system_log::read_throws)
        throw std::range_error("read");
    if (s_log_bytes.empty() || s_log_bytes.size() > size) {
        *needed = static_cast<DWORD>(s_log_bytes.size());
        SetLastError(s_log_bytes.empty() ? ERROR_HANDLE_EOF : ERROR_INSUFFICIENT_BUFFER);
        return FALSE;
    }
    memcpy(buffer, s_log_bytes.data(), s_log_bytes.size());
    *filled = static_cast<DWORD>(s_log_bytes.size());
    s_log_bytes.clear();
    return TRUE;
}

system_log::system_log(const block &bytes)
    : open_("OpenEventLogW",
            [](const wchar_t *, const wchar_t *) -> void * {
                logs_open++;
                return &s_log_bytes;
            }),
      read_("ReadEventLogW", read_log), close_("CloseEventLog", [](HANDLE) {
          logs_open--;
          return TRUE;
      })
{
    fill(bytes);
    read_throws = false;
}

void system_log::fill(const block &bytes)
{
    s_log_bytes = bytes;
}
