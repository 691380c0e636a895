/* A System log of the test's own. */
#include "fake_event_log.h"

#include <string.h>
#include <windows.h>

static fake_event_log *s_log;

static void put_text(std::vector<uint8_t> *bytes, const std::wstring &text)
{
    const uint8_t *from = reinterpret_cast<const uint8_t *>(text.c_str());

    bytes->insert(bytes->end(), from, from + (text.size() + 1) * sizeof(wchar_t));
}

std::vector<uint8_t> event_record(uint32_t event_id, const std::wstring &source, uint32_t seconds,
                                  const std::vector<std::wstring> &strings)
{
    std::vector<uint8_t> bytes(sizeof(EVENTLOGRECORD));
    EVENTLOGRECORD header = {};

    put_text(&bytes, source);
    put_text(&bytes, L"COMPUTER");
    header.StringOffset = (DWORD)bytes.size();
    for (const std::wstring &text : strings)
        put_text(&bytes, text);
    bytes.resize((bytes.size() + 3) / 4 * 4 + sizeof(DWORD));
    header.Length = (DWORD)bytes.size();
    header.Reserved = 0x654c664c;
    header.TimeGenerated = header.TimeWritten = seconds;
    header.EventID = event_id;
    header.NumStrings = (WORD)strings.size();
    memcpy(bytes.data(), &header, sizeof(header));
    memcpy(&bytes[bytes.size() - sizeof(DWORD)], &header.Length, sizeof(DWORD));
    return bytes;
}

fake_event_log::fake_event_log()
    : open_patch_("OpenEventLogW", open), read_patch_("ReadEventLogW", read),
      close_patch_("CloseEventLog", close)
{
    s_log = this;
}

fake_event_log::~fake_event_log()
{
    s_log = NULL;
}

void *__stdcall fake_event_log::open(const wchar_t *server, const wchar_t *name)
{
    s_log->opens++;
    if (s_log->open_fails || server != NULL || wcscmp(name, L"System") != 0) {
        SetLastError(ERROR_ACCESS_DENIED);
        return NULL;
    }
    s_log->next_ = 0;
    return s_log;
}

int __stdcall fake_event_log::read(void *log, unsigned long flags, unsigned long offset,
                                   void *buffer, unsigned long size, unsigned long *filled,
                                   unsigned long *needed)
{
    const std::vector<std::vector<uint8_t>> &records = s_log->records;
    unsigned long error = ERROR_HANDLE_EOF;

    *filled = *needed = 0;
    s_log->read_sizes.push_back(size);
    if (log != s_log || flags != 9 || offset != 0)
        error = ERROR_INVALID_PARAMETER;
    else if (s_log->read_sizes.size() == s_log->failing_read)
        error = s_log->read_error;
    else if (s_log->next_ < records.size()) {
        while (s_log->next_ < records.size() && records[s_log->next_].size() <= size - *filled) {
            const std::vector<uint8_t> &record = records[s_log->next_++];
            memcpy(static_cast<uint8_t *>(buffer) + *filled, record.data(), record.size());
            *filled += (unsigned long)record.size();
        }
        if (*filled != 0)
            return TRUE;
        *needed = (unsigned long)records[s_log->next_].size();
        error = ERROR_INSUFFICIENT_BUFFER;
    }
    SetLastError(error);
    return FALSE;
}

int __stdcall fake_event_log::close(void *log)
{
    s_log->closes += log == s_log;
    return TRUE;
}
