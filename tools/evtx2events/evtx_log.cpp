/* Reading of an event log. The library reads the records; it says nothing of wrong check sums, lost
 * records and cut-off files, so those are looked for here. */
#include "evtx_log.h"

#include <algorithm>
#include <cerrno>
#include <cstdio>
#include <cstring>
#include <memory>

/* The library's header wants another library's for functions that are not used here. */
#include <libevtx/features.h>
#undef LIBEVTX_HAVE_BFIO
#include <libevtx.h>

#define HEADER_BYTES       4096u
#define CHUNK_BYTES        65536u
#define CHUNK_HEADER_BYTES 512u
/* 100-ns units from 1601-01-01 to 1970-01-01. */
#define FILETIME_OF_1970  116444736000000000ll
#define FILETIME_A_SECOND 10000000ll

namespace
{
struct file_closer {
    void operator()(FILE *file) const
    {
        fclose(file);
    }
};

struct log_closer {
    void operator()(libevtx_file_t *file) const
    {
        libevtx_file_free(&file, NULL);
    }
};

struct record_closer {
    void operator()(libevtx_record_t *record) const
    {
        libevtx_record_free(&record, NULL);
    }
};

/* The numbers that the file's chunks say they hold. */
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

static uint32_t crc32_of(const uint8_t *bytes, size_t size, uint32_t crc)
{
    crc = ~crc;
    for (size_t i = 0; i < size; i++) {
        crc ^= bytes[i];
        for (int bit = 0; bit < 8; bit++)
            crc = crc >> 1 ^ (crc & 1 ? 0xEDB88320u : 0u);
    }
    return ~crc;
}

static std::string chunk_place(uint64_t number)
{
    return "chunk " + std::to_string(number) + " at byte " +
           std::to_string(HEADER_BYTES + number * CHUNK_BYTES);
}

static void check_chunk(const uint8_t *chunk, uint64_t number, evtx_log *log, record_range *range)
{
    uint32_t crc;

    if (memcmp(chunk, "ElfChnk", 8) != 0) {
        log->damage.push_back("no chunk where one should be, " + chunk_place(number));
        return;
    }
    crc = crc32_of(chunk, 0x78, 0);
    crc = crc32_of(chunk + 0x80, CHUNK_HEADER_BYTES - 0x80, crc);
    if (crc != at<uint32_t>(chunk, 0x7C)) {
        log->damage.push_back("wrong check sum of the header, " + chunk_place(number));
        return;
    }
    const uint64_t first = at<uint64_t>(chunk, 0x18);
    const uint64_t last = at<uint64_t>(chunk, 0x20);

    /* A chunk without a record says -1. */
    if (first <= last && last != UINT64_MAX) {
        range->first = std::min(range->first, first);
        range->last = std::max(range->last, last);
    }
    const uint32_t end = at<uint32_t>(chunk, 0x30);

    if (end < CHUNK_HEADER_BYTES || end > CHUNK_BYTES ||
        crc32_of(chunk + CHUNK_HEADER_BYTES, end - CHUNK_HEADER_BYTES, 0) !=
            at<uint32_t>(chunk, 0x34))
        log->damage.push_back("wrong check sum of the records, which are kept, " +
                              chunk_place(number));
}

static void check_chunks(FILE *file, evtx_log *log, record_range *range, uint64_t *chunks)
{
    std::vector<uint8_t> chunk(CHUNK_BYTES);
    bool after_unused = false;
    size_t bytes;

    *chunks = 0;
    while ((bytes = fread(chunk.data(), 1, CHUNK_BYTES, file)) == CHUNK_BYTES) {
        const bool unused =
            std::all_of(chunk.begin(), chunk.end(), [](uint8_t b) { return b == 0; });

        /* Windows lets a log grow by several chunks at a time, which are used one after another. */
        if (!unused && after_unused)
            log->damage.push_back("empty chunk before a used one, " + chunk_place(*chunks - 1));
        if (!unused)
            check_chunk(chunk.data(), *chunks, log, range);
        after_unused = unused;
        (*chunks)++;
    }
    if (bytes > 0)
        log->cut_off = "cut off, inside " + chunk_place(*chunks);
}

/* The header of a log in use lags behind its chunks: it may say less than there is, never more. */
static void check_header(const uint8_t *header, uint64_t chunks, evtx_log *log, record_range *range)
{
    const uint64_t next_record = at<uint64_t>(header, 0x18);
    const uint64_t said = at<uint16_t>(header, 0x2A);

    if (crc32_of(header, 0x78, 0) != at<uint32_t>(header, 0x7C)) {
        log->damage.push_back("wrong check sum of the file's header, at byte 0");
        return;
    }
    if (next_record > 0)
        range->last = std::max(range->last, next_record - 1);
    if (chunks < said && log->cut_off.empty())
        log->cut_off = "cut off, behind " + std::to_string(chunks) + " of " + std::to_string(said) +
                       " chunks, at byte " + std::to_string(HEADER_BYTES + chunks * CHUNK_BYTES);
}

static bool check_file(const std::string &path, evtx_log *log, record_range *range,
                       std::string *error)
{
    const std::unique_ptr<FILE, file_closer> file(fopen(path.c_str(), "rb"));
    uint8_t header[HEADER_BYTES];
    uint64_t chunks = 0;

    if (file == nullptr) {
        *error = std::string("cannot be opened: ") + strerror(errno);
        return false;
    }
    const size_t bytes = fread(header, 1, sizeof header, file.get());

    if (ferror(file.get())) {
        *error = std::string("cannot be read: ") + strerror(errno);
    } else if (bytes < 8 || memcmp(header, "ElfFile", 8) != 0) {
        *error = "no event log, it does not begin with \"ElfFile\" at byte 0";
    } else if (bytes < sizeof header) {
        *error = "cut off, inside the header at byte " + std::to_string(bytes);
    } else {
        check_chunks(file.get(), log, range, &chunks);
        check_header(header, chunks, log, range);
        if (ferror(file.get()))
            *error = std::string("cannot be read: ") + strerror(errno);
    }
    return error->empty();
}

/* The library's message, which it frees; one line. */
static std::string library_error(libevtx_error_t **error)
{
    char text[512] = "";

    if (*error == NULL || libevtx_error_sprint(*error, text, sizeof text) < 0)
        strcpy(text, "unknown error");
    libevtx_error_free(error);
    std::string line = text;

    std::replace(line.begin(), line.end(), '\n', ' ');
    while (!line.empty() && (line.back() == ' ' || line.back() == '.'))
        line.pop_back();
    return line;
}

/* Size with its NUL from one function, text from the other; 0 for an empty one. */
template <typename Size, typename Text>
static bool read_text(Size size_of, Text text_of, std::string *text, libevtx_error_t **error)
{
    size_t size = 0;

    text->clear();
    if (size_of(&size, error) == -1)
        return false;
    if (size == 0)
        return true;
    std::vector<uint8_t> bytes(size + 1);

    if (text_of(bytes.data(), size, error) == -1)
        return false;
    *text = (const char *)bytes.data();
    return true;
}

static bool read_strings(libevtx_record_t *record, evtx_event *event, libevtx_error_t **error)
{
    int count = 0;

    if (libevtx_record_get_number_of_strings(record, &count, error) != 1)
        return false;
    event->strings.resize((size_t)count);
    for (int i = 0; i < count; i++) {
        const auto size_of = [&](size_t *size, libevtx_error_t **e) {
            return libevtx_record_get_utf8_string_size(record, i, size, e);
        };
        const auto text_of = [&](uint8_t *text, size_t size, libevtx_error_t **e) {
            return libevtx_record_get_utf8_string(record, i, text, size, e);
        };

        if (!read_text(size_of, text_of, &event->strings[(size_t)i], error))
            return false;
    }
    return true;
}

/* The library counts an event's binary data as its last string; a classic record keeps it apart. */
static bool drop_binary(libevtx_record_t *record, evtx_event *event, libevtx_error_t **error)
{
    std::string xml;
    const auto size_of = [record](size_t *size, libevtx_error_t **e) {
        return libevtx_record_get_utf8_xml_string_size(record, size, e);
    };
    const auto text_of = [record](uint8_t *text, size_t size, libevtx_error_t **e) {
        return libevtx_record_get_utf8_xml_string(record, text, size, e);
    };

    if (!read_text(size_of, text_of, &xml, error))
        return false;
    if (xml.find("<Binary") != std::string::npos && !event->strings.empty())
        event->strings.pop_back();
    return true;
}

static uint32_t type_of(uint8_t level)
{
    switch (level) {
    case 1: /* critical */
    case 2: return 1;
    case 3: return 2;
    default: return 4;
    }
}

static bool read_event(libevtx_record_t *record, evtx_event *event, libevtx_error_t **error)
{
    uint64_t filetime = 0;
    uint32_t qualifiers = 0;
    uint8_t level = 0;
    const auto size_of = [record](size_t *size, libevtx_error_t **e) {
        return libevtx_record_get_utf8_source_name_size(record, size, e);
    };
    const auto text_of = [record](uint8_t *text, size_t size, libevtx_error_t **e) {
        return libevtx_record_get_utf8_source_name(record, text, size, e);
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
    event->time = (int64_t)(filetime / FILETIME_A_SECOND) - FILETIME_OF_1970 / FILETIME_A_SECOND;
    return true;
}

static void read_record(libevtx_file_t *file, int index, evtx_log *log)
{
    std::unique_ptr<libevtx_record_t, record_closer> record;
    libevtx_record_t *got = NULL;
    libevtx_error_t *error = NULL;
    evtx_event event = {};

    if (libevtx_file_get_record_by_index(file, index, &got, &error) != 1 ||
        libevtx_record_get_identifier(got, &event.record, &error) != 1) {
        /* Its number is missing then, and is counted as lost with the other missing ones. */
        log->damage.push_back(library_error(&error) + ", at index " + std::to_string(index));
    }
    record.reset(got);
    if (event.record == 0)
        return;
    if (read_event(got, &event, &error))
        log->events.push_back(event);
    else
        log->damage.push_back(library_error(&error) + ", record " + std::to_string(event.record));
}

static bool read_records(const std::string &path, evtx_log *log, std::string *error)
{
    std::unique_ptr<libevtx_file_t, log_closer> file;
    libevtx_file_t *made = NULL;
    libevtx_error_t *why = NULL;
    int count = 0;

    if (libevtx_file_initialize(&made, &why) != 1) {
        *error = library_error(&why);
        return false;
    }
    file.reset(made);
    if (libevtx_file_open(made, path.c_str(), LIBEVTX_OPEN_READ, &why) != 1 ||
        libevtx_file_get_number_of_records(made, &count, &why) != 1) {
        *error = library_error(&why);
        return false;
    }
    for (int i = 0; i < count; i++)
        read_record(made, i, log);
    return true;
}

/* The numbers of a log have no gaps: what is missing between its first and last is lost. */
static void check_numbers(evtx_log *log, const record_range &range)
{
    std::vector<evtx_event> sorted;
    uint64_t next = range.first;
    const auto missing = [log](uint64_t first, uint64_t end) {
        if (first >= end)
            return;
        log->damage.push_back("records missing, numbers " + std::to_string(first) + " to " +
                              std::to_string(end - 1));
        log->lost_records += end - first;
    };

    std::stable_sort(log->events.begin(), log->events.end(),
                     [](const evtx_event &a, const evtx_event &b) { return a.record < b.record; });
    for (const evtx_event &event : log->events) {
        if (!sorted.empty() && event.record == sorted.back().record) {
            log->damage.push_back("record twice, number " + std::to_string(event.record));
            continue;
        }
        missing(next, event.record);
        next = event.record + 1;
        sorted.push_back(event);
    }
    missing(next, range.last + 1);
    log->events = sorted;
}

bool evtx_log_read(const std::string &path, evtx_log *log, std::string *error)
{
    record_range range;

    *log = evtx_log();
    error->clear();
    if (!check_file(path, log, &range, error) || !read_records(path, log, error))
        return false;
    check_numbers(log, range);
    return true;
}
