/*
 * Reading of an .evtx file: its chunks, their records, and what is damaged. Intact records after
 * damage are found again, since all records begin at multiples of 8.
 */
#include "evtx_reader.h"

#include <cstring>

#include <algorithm>

#include "../base/terminal.h"
#include "../base/text.h"
#include "binary_xml.h"
#include "evtx_layout.h"

static constexpr uint32_t RECORD_HEADER_BYTES = 24u;
static constexpr uint32_t LEAST_RECORD_BYTES =
    RECORD_HEADER_BYTES + 4u; /* with the copy of its size */
static constexpr uint32_t RECORD_MAGIC = 0x2A2Au;
static constexpr uint32_t FLAG_NO_CHECK_SUMS = 4u;
static constexpr uint32_t PROGRESS_CHUNKS = 256u;

/* What reading a log needs from chunk to chunk. */
struct log_reader {
    const event_filter *filter;
    evidence_log *log;
    binary_xml xml;
    std::vector<uint32_t> numbers; /* of all records, unwanted ones included */
    uint64_t first, last;          /* the record numbers that the headers name */
};

void evidence_note_gap(evidence_log *log, uint64_t first, uint64_t end)
{
    if (first >= end)
        return;
    log->damage.push_back(first + 1 == end ? "record missing: " + std::to_string(first)
                                           : "records missing: " + std::to_string(first) + " to " +
                                                 std::to_string(end - 1));
    log->gaps.push_back({first, end - 1});
    log->lost_records += end - first;
}

static std::string chunk_place(uint64_t number)
{
    return "chunk " + std::to_string(number) + " at byte " +
           std::to_string(EVTX_HEADER_BYTES + number * EVTX_CHUNK_BYTES);
}

static bool has_header(const uint8_t *chunk, uint32_t size)
{
    return size >= EVTX_CHUNK_HEADER_BYTES && memcmp(chunk, EVTX_CHUNK_BEGINS, 8) == 0;
}

/* The checksums of a chunk that has a header, and the record numbers that it names. */
static void check_chunk(log_reader &reader, const uint8_t *chunk, uint32_t size, uint64_t number)
{
    const uint32_t end = evtx_load<uint32_t>(chunk + 0x30);
    const uint64_t first = evtx_load<uint64_t>(chunk + 0x18);
    const uint64_t last = evtx_load<uint64_t>(chunk + 0x20);

    if ((evtx_load<uint32_t>(chunk + 0x78) & FLAG_NO_CHECK_SUMS) == 0) {
        if (evtx_chunk_header_sum(chunk) != evtx_load<uint32_t>(chunk + 0x7C)) {
            reader.log->damage.push_back("wrong checksum of the header: " + chunk_place(number));
            return;
        }
        if (size == EVTX_CHUNK_BYTES &&
            (end < EVTX_CHUNK_HEADER_BYTES || end > size ||
             oxni_crc32_calc(chunk + EVTX_CHUNK_HEADER_BYTES, end - EVTX_CHUNK_HEADER_BYTES) !=
                 evtx_load<uint32_t>(chunk + 0x34)))
            reader.log->damage.push_back("wrong checksum of the records, which are used: " +
                                         chunk_place(number));
    }
    if (first <= last && last != UINT64_MAX) { /* a chunk without records has -1 */
        reader.first = std::min(reader.first, first);
        reader.last = std::max(reader.last, last);
    }
}

/* Whether a record with sound edges is at an offset. */
static bool is_record(const uint8_t *chunk, uint32_t size, uint32_t at)
{
    const uint32_t bytes = evtx_load<uint32_t>(chunk + at + 4);

    return evtx_load<uint32_t>(chunk + at) == RECORD_MAGIC && bytes >= LEAST_RECORD_BYTES &&
           bytes <= size - at && evtx_load<uint32_t>(chunk + at + bytes - 4) == bytes &&
           evtx_load<uint64_t>(chunk + at + 8) <= UINT32_MAX;
}

/* Result: false for a record that cannot be read. */
static bool read_record(log_reader &reader, const uint8_t *chunk, uint32_t at)
{
    const uint32_t bytes = evtx_load<uint32_t>(chunk + at + 4);
    event_record event = {};

    event.number = evtx_load<uint32_t>(chunk + at + 8);
    const int64_t time = time_unix(evtx_load<uint64_t>(chunk + at + 16));
    event.time = static_cast<uint32_t>(std::clamp<int64_t>(time, 0, UINT32_MAX));
    switch (reader.xml.read(at + RECORD_HEADER_BYTES, at + bytes - 4, reader.filter, &event)) {
    case XML_BAD: return false;
    case XML_READ: reader.log->events.push_back(std::move(event)); break;
    case XML_UNWANTED: break;
    }
    reader.numbers.push_back(evtx_load<uint32_t>(chunk + at + 8));
    return true;
}

/* The records up to the free space, and beyond it as long as their numbers continue: the header of a
 * log in use lags. Without a header, the remains of older records end the chunk: their numbers are
 * lower. Result: the number of places that cannot be read. */
static size_t read_records(log_reader &reader, const uint8_t *chunk, uint32_t size)
{
    const bool trusted = has_header(chunk, size);
    uint32_t end = trusted ? evtx_load<uint32_t>(chunk + 0x30) : size, bytes = 0;
    uint64_t next = 0; /* 0: no record yet */
    size_t bad = 0;
    bool searching = false;

    if (end < EVTX_CHUNK_HEADER_BYTES || end > size)
        end = size;
    reader.xml.begin(chunk, size);
    for (uint32_t at = EVTX_CHUNK_HEADER_BYTES; at + LEAST_RECORD_BYTES <= size; at += bytes) {
        const bool sound = is_record(chunk, size, at);
        const uint64_t number = evtx_load<uint64_t>(chunk + at + 8);

        if (at >= end && (!sound || next == 0 || number != next))
            break;
        if (!trusted && sound && number < next)
            break;
        bytes = sound ? evtx_load<uint32_t>(chunk + at + 4) : EVTX_RECORD_ALIGNMENT;
        if (!sound && !searching && evtx_load<uint64_t>(chunk + at) != 0)
            bad++;
        searching = !sound;
        if (!sound)
            continue;
        next = number + 1;
        if (!read_record(reader, chunk, at))
            bad++;
    }
    return bad;
}

static void read_chunk(log_reader &reader, const uint8_t *chunk, uint32_t size, uint64_t number)
{
    const size_t before = reader.numbers.size();

    if (has_header(chunk, size))
        check_chunk(reader, chunk, size, number);
    const size_t bad = read_records(reader, chunk, size);
    if (size < EVTX_CHUNK_BYTES)
        return; /* it is reported as truncated */
    if (!has_header(chunk, size))
        reader.log->damage.push_back((reader.numbers.size() > before
                                          ? "chunk without a header, whose records are used: "
                                          : "chunk missing: ") +
                                     chunk_place(number));
    else if (bad > 0)
        reader.log->damage.push_back(text_count(bad, "unreadable record") + ": " +
                                     chunk_place(number));
}

static bool is_unused(const uint8_t *chunk, uint32_t size)
{
    return std::all_of(chunk, chunk + size, [](uint8_t byte) { return byte == 0; });
}

/* Result: the number of whole chunks. */
static uint64_t read_chunks(log_reader &reader, const evidence_file &file)
{
    const uint64_t bytes = file.bytes() - EVTX_HEADER_BYTES;
    bool after_unused = false;

    for (uint64_t number = 0; number * EVTX_CHUNK_BYTES < bytes; number++) {
        const uint8_t *chunk = file.data() + EVTX_HEADER_BYTES + number * EVTX_CHUNK_BYTES;
        const uint32_t size = static_cast<uint32_t>(
            std::min<uint64_t>(EVTX_CHUNK_BYTES, bytes - number * EVTX_CHUNK_BYTES));
        /* Most chunks are used, so the rest is read only for the others. */
        const bool unused = !has_header(chunk, size) && is_unused(chunk, size);

        if (number % PROGRESS_CHUNKS == 0)
            terminal_progress(text_format("reading %s, %llu of %llu MiB", file.path().c_str(),
                                          number >> 4, bytes >> 20));
        /* Windows enlarges a log by several chunks at a time and uses them in order. */
        if (!unused && after_unused)
            reader.log->damage.push_back("empty chunk before a used one: " +
                                         chunk_place(number - 1));
        if (!unused)
            read_chunk(reader, chunk, size, number);
        after_unused = unused;
    }
    if (bytes % EVTX_CHUNK_BYTES != 0)
        reader.log->cut_off = "truncated inside " + chunk_place(bytes / EVTX_CHUNK_BYTES);
    return bytes / EVTX_CHUNK_BYTES;
}

/* The header of a log in use is older than its chunks: it may count fewer chunks, never more. */
static void check_header(log_reader &reader, const uint8_t *header, uint64_t chunks)
{
    const uint64_t next_record = evtx_load<uint64_t>(header + 0x18);
    const uint64_t counted = evtx_load<uint16_t>(header + 0x2A);

    if ((evtx_load<uint32_t>(header + 0x78) & FLAG_NO_CHECK_SUMS) == 0 &&
        oxni_crc32_calc(header, 0x78) != evtx_load<uint32_t>(header + 0x7C)) {
        reader.log->damage.push_back("wrong checksum of the file's header at byte 0");
        return;
    }
    if (next_record > 0)
        reader.last = std::max(reader.last, next_record - 1);
    if (chunks < counted && reader.log->cut_off.empty())
        reader.log->cut_off = "truncated after " + std::to_string(chunks) + " of " +
                              text_count(counted, "chunk") + " at byte " +
                              std::to_string(EVTX_HEADER_BYTES + chunks * EVTX_CHUNK_BYTES);
}

/* A record that occurs twice is used once. */
static void sort_events(evidence_log *log)
{
    std::vector<event_record> &events = log->events;
    const auto lower = [](const event_record &a, const event_record &b) {
        return a.number < b.number;
    };
    const auto same = [](const event_record &a, const event_record &b) {
        return a.number == b.number;
    };

    if (!std::is_sorted(events.begin(), events.end(), lower)) /* a wrapped log is not */
        std::stable_sort(events.begin(), events.end(), lower);
    events.erase(std::unique(events.begin(), events.end(), same), events.end());
}

/* Windows numbers records without gaps: a number that is missing between first and last is lost. */
static void check_numbers(log_reader &reader)
{
    uint64_t next = reader.first;

    if (!std::is_sorted(reader.numbers.begin(), reader.numbers.end()))
        std::sort(reader.numbers.begin(), reader.numbers.end());
    for (const uint32_t number : reader.numbers) {
        if (number + 1ull == next && &number != reader.numbers.data())
            reader.log->damage.push_back("record occurs twice: " + std::to_string(number));
        evidence_note_gap(reader.log, next, number);
        next = number + 1ull;
    }
    evidence_note_gap(reader.log, next, reader.last + 1);
}

bool evidence_is_evtx(const evidence_file &file)
{
    return file.bytes() >= 8 && memcmp(file.data(), EVTX_FILE_BEGINS, 8) == 0;
}

void evidence_read_evtx(const evidence_file &file, const event_filter *filter, evidence_log *log)
{
    log_reader reader = {filter, log, {}, {}, UINT64_MAX, 0};

    if (file.bytes() < EVTX_HEADER_BYTES)
        file.bad("truncated inside the header at byte " + std::to_string(file.bytes()));
    const uint64_t chunks = read_chunks(reader, file);
    check_header(reader, file.data(), chunks);
    check_numbers(reader);
    sort_events(log);
    log->records = reader.numbers.size();
    if (!reader.numbers.empty()) {
        log->first_number = reader.numbers.front();
        log->last_number = reader.numbers.back();
    }
}
