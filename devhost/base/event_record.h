/* A record of the System log with the members of the classic event-log interface of Windows. */
#ifndef DEVHOST_EVENT_RECORD_H
#define DEVHOST_EVENT_RECORD_H

#include <cstdint>
#include <cwchar>

#include <algorithm>
#include <initializer_list>
#include <string>
#include <vector>

/* Insertion strings of a record, packed one after the other: a log of tens of thousands of records must
 * not take many times its size. */
class event_strings
{
  public:
    event_strings() = default;
    event_strings(std::initializer_list<std::wstring> texts)
    {
        for (const std::wstring &text : texts)
            add(text);
    }
    void add(const std::wstring &text)
    {
        text_.append(text.c_str(), wcslen(text.c_str()) + 1); /* ends at its first NUL */
        count_++;
    }
    size_t count() const
    {
        return count_;
    }
    /* Empty when there is none. */
    std::wstring at(size_t index) const
    {
        size_t from = 0;

        for (size_t i = 0; i < index && from < text_.size(); i++)
            from = text_.find(L'\0', from) + 1;
        return index < count_ ? std::wstring(text_.c_str() + from) : std::wstring();
    }
    /* Each with its NUL. */
    const std::wstring &packed() const
    {
        return text_;
    }

  private:
    std::wstring text_;
    uint16_t count_ = 0;
};

/* Records of one source with one id, without qualifiers. */
struct event_kind {
    const wchar_t *source;
    uint32_t id;
};

/* One record of the System log. */
struct event_record {
    uint32_t number;     /* record number; they give the order */
    uint32_t time;       /* TimeGenerated and TimeWritten, seconds since 1970 UTC */
    uint32_t id;         /* the full EventID, qualifiers in its upper half */
    uint16_t type;       /* EVENTLOG_INFORMATION_TYPE and so on */
    std::wstring source; /* EventSourceName where the provider has one, else its name */
    event_strings strings;

    bool is(const event_kind &kind) const
    {
        return (id & 0xffff) == kind.id && source == kind.source;
    }
};

/* Which records are wanted. */
struct event_filter {
    std::vector<event_kind> kinds;

    /* Asked first, since most records end here. */
    bool wants_id(uint32_t id) const
    {
        return std::any_of(kinds.begin(), kinds.end(),
                           [id](const event_kind &kind) { return kind.id == (id & 0xffff); });
    }
    bool wants(const event_record &event) const
    {
        return std::any_of(kinds.begin(), kinds.end(),
                           [&event](const event_kind &kind) { return event.is(kind); });
    }
};

#endif
