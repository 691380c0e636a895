/* Reading of an .evtx file. The library reads the records; it does not report wrong check sums, missing
 * records and truncated files, so this file does. */
#include "log.h"

#include <windows.h>

#include <string.h>

#include <algorithm>
#include <memory>
#include <vector>

#include <oxni/base/algo.h>

#include "../base/terminal.h"
#include "../base/text.h"
#include "file.h"

/* The library's header includes another library's for functions that are not used here. */
#include <libevtx/features.h>
#undef LIBEVTX_HAVE_BFIO
#include <libevtx.h>

/* From that other library, which is part of this one's archive: a file in memory. */
extern "C" {
typedef intptr_t libbfio_handle_t;
int libbfio_memory_range_initialize(libbfio_handle_t **handle, libevtx_error_t **error);
int libbfio_memory_range_set(libbfio_handle_t *handle, uint8_t *buffer, size_t size,
                             libevtx_error_t **error);
int libbfio_handle_free(libbfio_handle_t **handle, libevtx_error_t **error);
int libevtx_file_open_file_io_handle(libevtx_file_t *file, libbfio_handle_t *handle, int flags,
                                     libevtx_error_t **error);
}

#define HEADER_BYTES       4096u
#define CHUNK_BYTES        65536u
#define CHUNK_HEADER_BYTES 512u
/* The part of the file that the library has open at a time. */
#define SLICE_BYTES (64ull * CHUNK_BYTES)
/* The header counts chunks in 16 bits. */
#define MOST_BYTES (HEADER_BYTES + 0xffffull * CHUNK_BYTES)

namespace
{
struct log_closer {
    void operator()(libevtx_file_t *file) const
    {
        libevtx_file_free(&file, NULL);
    }
};

struct range_closer {
    void operator()(libbfio_handle_t *range) const
    {
        libbfio_handle_free(&range, NULL);
    }
};

struct record_closer {
    void operator()(libevtx_record_t *record) const
    {
        libevtx_record_free(&record, NULL);
    }
};

/* The record numbers that the headers of the chunks name. */
struct record_range {
    uint64_t first = UINT64_MAX;
    uint64_t last = 0;
};
} // namespace

template <typename T> static T at(const uint8_t *bytes, size_t offset)
{
    T value;

    memcpy(&value, bytes + offset, sizeof value);
    return value;
}

/* The CRC-32 of the header without the check sum itself. */
static uint32_t crc32_of_chunk_header(const uint8_t *chunk)
{
    uint8_t pieces[0x78 + CHUNK_HEADER_BYTES - 0x80];

    memcpy(pieces, chunk, 0x78);
    memcpy(pieces + 0x78, chunk + 0x80, sizeof(pieces) - 0x78);
    return oxni_crc32_calc(pieces, sizeof(pieces));
}

static std::string chunk_place(uint64_t number)
{
    return "chunk " + std::to_string(number) + " at byte " +
           std::to_string(HEADER_BYTES + number * CHUNK_BYTES);
}

static void check_chunk(const uint8_t *chunk, uint64_t number, evidence_log *log,
                        record_range *range)
{
    if (memcmp(chunk, "ElfChnk", 8) != 0) {
        log->damage.push_back("chunk missing: " + chunk_place(number));
        return;
    }
    if (crc32_of_chunk_header(chunk) != at<uint32_t>(chunk, 0x7C)) {
        log->damage.push_back("wrong check sum of the header: " + chunk_place(number));
        return;
    }
    const uint64_t first = at<uint64_t>(chunk, 0x18);
    const uint64_t last = at<uint64_t>(chunk, 0x20);

    /* A chunk without records has -1. */
    if (first <= last && last != UINT64_MAX) {
        range->first = std::min(range->first, first);
        range->last = std::max(range->last, last);
    }
    const uint32_t end = at<uint32_t>(chunk, 0x30);

    if (end < CHUNK_HEADER_BYTES || end > CHUNK_BYTES ||
        oxni_crc32_calc(chunk + CHUNK_HEADER_BYTES, end - CHUNK_HEADER_BYTES) !=
            at<uint32_t>(chunk, 0x34))
        log->damage.push_back("wrong check sum of the records, which are used: " +
                              chunk_place(number));
}

static bool is_unused(const uint8_t *chunk)
{
    return std::all_of(chunk, chunk + CHUNK_BYTES, [](uint8_t byte) { return byte == 0; });
}

static void check_chunks(const evidence_file &file, evidence_log *log, record_range *range,
                         uint64_t *chunks)
{
    bool after_unused = false;

    *chunks = (file.bytes() - HEADER_BYTES) / CHUNK_BYTES;
    for (uint64_t number = 0; number < *chunks; number++) {
        const uint8_t *chunk = file.data() + HEADER_BYTES + number * CHUNK_BYTES;
        /* Most chunks are used, so the rest is read only for the others. */
        const bool unused = memcmp(chunk, "ElfChnk", 8) != 0 && is_unused(chunk);

        /* Windows enlarges a log by several chunks at a time and uses them in order. */
        if (!unused && after_unused)
            log->damage.push_back("empty chunk before a used one: " + chunk_place(number - 1));
        if (!unused)
            check_chunk(chunk, number, log, range);
        after_unused = unused;
    }
    if ((file.bytes() - HEADER_BYTES) % CHUNK_BYTES != 0)
        log->cut_off = "truncated inside " + chunk_place(*chunks);
}

/* The header of a log in use is older than its chunks: it may count fewer chunks, never more. */
static void check_header(const uint8_t *header, uint64_t chunks, evidence_log *log,
                         record_range *range)
{
    const uint64_t next_record = at<uint64_t>(header, 0x18);
    const uint64_t counted = at<uint16_t>(header, 0x2A);

    if (oxni_crc32_calc(header, 0x78) != at<uint32_t>(header, 0x7C)) {
        log->damage.push_back("wrong check sum of the file's header at byte 0");
        return;
    }
    if (next_record > 0)
        range->last = std::max(range->last, next_record - 1);
    if (chunks < counted && log->cut_off.empty())
        log->cut_off = "truncated after " + std::to_string(chunks) + " of " +
                       std::to_string(counted) + " chunks at byte " +
                       std::to_string(HEADER_BYTES + chunks * CHUNK_BYTES);
}

static void check_file(const std::string &path, const evidence_file &file, evidence_log *log,
                       record_range *range)
{
    uint64_t chunks = 0;

    if (!evidence_is_evtx(file))
        evidence_bad(path, "not an event log: it does not begin with \"ElfFile\"");
    if (file.bytes() < HEADER_BYTES)
        evidence_bad(path, "truncated inside the header at byte " + std::to_string(file.bytes()));
    check_chunks(file, log, range, &chunks);
    check_header(file.data(), chunks, log, range);
}

/* The library's message in one line; frees the error. */
static std::string library_error(libevtx_error_t **error)
{
    char text[512] = "";

    if (*error == NULL || libevtx_error_sprint(*error, text, sizeof(text)) < 0)
        strcpy(text, "unknown error");
    libevtx_error_free(error);
    std::string line = text;

    std::replace(line.begin(), line.end(), '\n', ' ');
    while (!line.empty() && (line.back() == ' ' || line.back() == '.'))
        line.pop_back();
    return line;
}

/* Reads a text: size_of gives its size in characters with the NUL, 0 for an empty one. */
template <typename Size, typename Text>
static bool read_text(Size size_of, Text text_of, std::wstring *text, libevtx_error_t **error)
{
    size_t size = 0;

    text->clear();
    if (size_of(&size, error) == -1)
        return false;
    if (size == 0)
        return true;
    text->resize(size);
    if (text_of(reinterpret_cast<uint16_t *>(&(*text)[0]), size, error) == -1)
        return false;
    text->resize(wcsnlen(text->c_str(), size));
    return true;
}

static bool read_strings(libevtx_record_t *record, event_record *event, libevtx_error_t **error)
{
    std::wstring string;
    int count = 0;

    if (libevtx_record_get_number_of_strings(record, &count, error) != 1)
        return false;
    for (int i = 0; i < count; i++) {
        const auto size_of = [&](size_t *size, libevtx_error_t **e) {
            return libevtx_record_get_utf16_string_size(record, i, size, e);
        };
        const auto text_of = [&](uint16_t *text, size_t size, libevtx_error_t **e) {
            return libevtx_record_get_utf16_string(record, i, text, size, e);
        };

        if (!read_text(size_of, text_of, &string, error))
            return false;
        event->strings.add(string);
    }
    return true;
}

/* Whether a text can be binary data, which the library writes in hexadecimal. */
static bool is_hexadecimal(const std::wstring &text)
{
    return !text.empty() && text.size() % 2 == 0 &&
           text.find_first_not_of(L"0123456789abcdefABCDEF") == std::wstring::npos;
}

/* The library returns an event's binary data as the last string; in a classic record it is separate.
 * Only the record's XML shows whether there is any, which takes longer than everything else. */
static bool drop_binary(libevtx_record_t *record, event_record *event, libevtx_error_t **error)
{
    std::wstring xml;
    const auto size_of = [record](size_t *size, libevtx_error_t **e) {
        return libevtx_record_get_utf16_xml_string_size(record, size, e);
    };
    const auto text_of = [record](uint16_t *text, size_t size, libevtx_error_t **e) {
        return libevtx_record_get_utf16_xml_string(record, text, size, e);
    };

    if (event->strings.count() == 0 || !is_hexadecimal(event->strings.last()))
        return true;
    if (!read_text(size_of, text_of, &xml, error))
        return false;
    if (xml.find(L"<Binary") != std::wstring::npos)
        event->strings.drop_last();
    return true;
}

static uint16_t type_of(uint8_t level)
{
    switch (level) {
    case 1: /* critical */
    case 2: return EVENTLOG_ERROR_TYPE;
    case 3: return EVENTLOG_WARNING_TYPE;
    default: return EVENTLOG_INFORMATION_TYPE;
    }
}

static bool read_event(libevtx_record_t *record, event_record *event, libevtx_error_t **error)
{
    uint64_t filetime = 0;
    uint32_t qualifiers = 0;
    uint8_t level = 0;
    const auto size_of = [record](size_t *size, libevtx_error_t **e) {
        return libevtx_record_get_utf16_source_name_size(record, size, e);
    };
    const auto text_of = [record](uint16_t *text, size_t size, libevtx_error_t **e) {
        return libevtx_record_get_utf16_source_name(record, text, size, e);
    };

    if (libevtx_record_get_written_time(record, &filetime, error) != 1 ||
        libevtx_record_get_event_identifier(record, &event->id, error) != 1 ||
        libevtx_record_get_event_identifier_qualifiers(record, &qualifiers, error) == -1 ||
        libevtx_record_get_event_level(record, &level, error) != 1 ||
        !read_text(size_of, text_of, &event->source, error) ||
        !read_strings(record, event, error) || !drop_binary(record, event, error))
        return false;
    event->id = (event->id & 0xFFFF) | qualifiers << 16;
    event->type = type_of(level);
    event->time = static_cast<uint32_t>(time_unix(filetime));
    return true;
}

/* A record that the library cannot read completely is skipped, and counts as missing. */
static void read_record(libevtx_file_t *file, int index, evidence_log *log)
{
    const double start = time_real_ms();
    libevtx_record_t *got = NULL;
    libevtx_error_t *error = NULL;
    event_record event = {};
    uint64_t number = 0;
    bool sound = false;

    if (libevtx_file_get_record_by_index(file, index, &got, &error) != 1 ||
        libevtx_record_get_identifier(got, &number, &error) != 1)
        log->damage.push_back(library_error(&error) + " at index " + std::to_string(index));
    const std::unique_ptr<libevtx_record_t, record_closer> record(got);

    if (number != 0)
        sound = read_event(got, &event, &error);
    log->library_ms += time_real_ms() - start;
    if (number == 0)
        return;
    event.number = static_cast<uint32_t>(number);
    if (sound)
        log->events.push_back(std::move(event));
    else
        log->damage.push_back(library_error(&error) + ": record " + std::to_string(number));
}

/* Reads the records of one slice, a log of its own in memory. */
static void read_slice(const std::string &path, std::string *bytes, evidence_log *log)
{
    const double start = time_real_ms();
    libbfio_handle_t *range = NULL;
    libevtx_file_t *file = NULL;
    libevtx_error_t *error = NULL;
    int count = 0;
    bool sound = libbfio_memory_range_initialize(&range, &error) == 1;
    const std::unique_ptr<libbfio_handle_t, range_closer> range_owner(range);

    sound = sound &&
            libbfio_memory_range_set(range, reinterpret_cast<uint8_t *>(&(*bytes)[0]),
                                     bytes->size(), &error) == 1 &&
            libevtx_file_initialize(&file, &error) == 1;
    const std::unique_ptr<libevtx_file_t, log_closer> file_owner(file);

    if (!sound || libevtx_file_open_file_io_handle(file, range, LIBEVTX_OPEN_READ, &error) != 1 ||
        libevtx_file_get_number_of_records(file, &count, &error) != 1)
        evidence_bad(path, library_error(&error));
    log->library_ms += time_real_ms() - start;
    for (int i = 0; i < count; i++)
        read_record(file, i, log);
}

/* The library needs several times the memory of the open part, so it gets slices. No record crosses a
 * chunk. */
static void read_records(const std::string &path, const evidence_file &file, evidence_log *log)
{
    const char *data = reinterpret_cast<const char *>(file.data());
    std::string slice;

    for (uint64_t at = HEADER_BYTES; at < file.bytes(); at += SLICE_BYTES) {
        const uint64_t left = file.bytes() - at;

        terminal_progress(text_format("reading %s, %llu of %llu MiB", path.c_str(),
                                      static_cast<unsigned long long>(at >> 20),
                                      static_cast<unsigned long long>(file.bytes() >> 20)));
        slice.assign(data, HEADER_BYTES);
        slice.append(data + at, static_cast<size_t>(left < SLICE_BYTES ? left : SLICE_BYTES));
        read_slice(path, &slice, log);
    }
}

/* Windows numbers records without gaps: a number that is missing between first and last is lost. */
static void check_numbers(evidence_log *log, const record_range &range)
{
    std::vector<event_record> &events = log->events;
    uint64_t next = range.first;
    size_t kept = 0;
    std::stable_sort(
        events.begin(), events.end(),
        [](const event_record &a, const event_record &b) { return a.number < b.number; });
    for (event_record &event : events) {
        if (kept > 0 && event.number == events[kept - 1].number) {
            log->damage.push_back("record occurs twice: " + std::to_string(event.number));
            continue;
        }
        evidence_note_gap(log, next, event.number);
        next = event.number + 1ull;
        if (&events[kept] != &event)
            events[kept] = std::move(event);
        kept++;
    }
    events.resize(kept);
    evidence_note_gap(log, next, range.last + 1);
}

bool evidence_is_evtx(const evidence_file &file)
{
    return file.bytes() >= 8 && memcmp(file.data(), "ElfFile", 8) == 0;
}

void evidence_read_evtx(const std::string &path, evidence_log *log)
{
    const evidence_file file(path, MOST_BYTES);
    record_range range;

    *log = {};
    check_file(path, file, log, &range);
    read_records(path, file, log);
    check_numbers(log, range);
}
