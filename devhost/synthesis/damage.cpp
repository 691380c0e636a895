#include "damage.h"

#include <cstring>

#include <algorithm>
#include <random>

#include "../base/text.h"
#include "../evtx/evtx_layout.h"
#include "../evtx/evtx_writer.h"

static constexpr wchar_t COMPUTER[] = L"デスクトップ-17";
static constexpr uint32_t MOST_BAD_RECORDS = 3u;
static constexpr uint32_t LOST_IN_A_ROW = 3u;

namespace
{
struct placed_record {
    uint32_t number;
    size_t at, chunk; /* offset in the file */
};

struct damaged_log {
    std::string bytes;
    std::vector<placed_record> records;
    size_t chunks;
    std::mt19937_64 random;
    damage_report *report;

    size_t chunk_at(size_t chunk) const
    {
        return EVTX_HEADER_BYTES + chunk * EVTX_CHUNK_BYTES;
    }
    std::vector<placed_record> of_chunk(size_t chunk) const
    {
        std::vector<placed_record> found;

        for (const placed_record &record : records)
            if (record.chunk == chunk)
                found.push_back(record);
        return found;
    }
    template <typename T> T get(size_t at) const
    {
        T value;

        memcpy(&value, &bytes[at], sizeof(value));
        return value;
    }
    template <typename T> void put(size_t at, T value)
    {
        memcpy(&bytes[at], &value, sizeof(value));
    }
    void needs(size_t least) const
    {
        if (chunks < least)
            throw devhost_error(EXIT_BAD_CALL, "--damage: the log has " +
                                                   text_count(chunks, "chunk") + " and needs " +
                                                   std::to_string(least) +
                                                   " for this; make it longer with --noise");
    }
    void lose(const placed_record &record)
    {
        report->gone.insert(record.number);
        report->lost = report->gone.size();
        report->damaged = true;
    }
    void sum_chunk_header(size_t chunk)
    {
        const size_t at = chunk_at(chunk);

        put(at + 0x7C, evtx_chunk_header_sum(&bytes[at]));
    }
    void sum_file_header()
    {
        put(0x7C, oxni_crc32_calc(bytes.data(), 0x78));
    }
};
} // namespace

static void find_records(damaged_log *log)
{
    log->chunks = (log->bytes.size() - EVTX_HEADER_BYTES) / EVTX_CHUNK_BYTES;
    for (size_t chunk = 0; chunk < log->chunks; chunk++) {
        const size_t begin = log->chunk_at(chunk), end = begin + log->get<uint32_t>(begin + 0x30);

        for (size_t at = begin + EVTX_CHUNK_HEADER_BYTES; at < end;
             at += log->get<uint32_t>(at + 4))
            log->records.push_back({log->get<uint32_t>(at + 8), at, chunk});
    }
}

/* In the middle of a record of the last chunk. */
static void truncate(damaged_log *log)
{
    const std::vector<placed_record> last = log->of_chunk(log->chunks - 1);
    const size_t kept = last.size() - 1 - log->random() % ((last.size() + 1) / 2);

    for (size_t i = kept; i < last.size(); i++)
        log->lose(last[i]);
    log->bytes.resize(last[kept].at + 20);
    log->report->cut_off = true;
}

static void flip_bits(damaged_log *log)
{
    for (size_t i = 0; i < MOST_BAD_RECORDS; i++) {
        const placed_record &record = log->records[log->random() % log->records.size()];

        if (log->report->gone.count(record.number) != 0)
            continue;
        log->bytes[record.at + log->random() % 2] ^= static_cast<char>(1u << log->random() % 8);
        log->lose(record);
    }
}

static void spoil_sums(damaged_log *log)
{
    const size_t chunk = log->random() % log->chunks;

    log->put(log->chunk_at(chunk) + (log->random() % 2 == 0 ? 0x34u : 0x7Cu),
             static_cast<uint32_t>(log->random()));
    log->put(0x7C, static_cast<uint32_t>(log->random()));
    log->report->damaged = true;
}

/* Neither the first nor the last one, whose absence no number shows. */
static void clear_chunk(damaged_log *log)
{
    log->needs(3);
    const size_t chunk = 1 + log->random() % (log->chunks - 2);

    for (const placed_record &record : log->of_chunk(chunk))
        log->lose(record);
    memset(&log->bytes[log->chunk_at(chunk)], log->random() % 2 == 0 ? 0 : 'N', EVTX_CHUNK_BYTES);
}

/* A log that was copied while Windows had it open: its headers are older than its last chunk. */
static void make_dirty(damaged_log *log)
{
    const size_t at = log->chunk_at(log->chunks - 1);
    const std::vector<placed_record> last = log->of_chunk(log->chunks - 1);
    const placed_record &known = last[log->random() % last.size()];
    const uint32_t end = static_cast<uint32_t>(known.at - at) + log->get<uint32_t>(known.at + 4);

    log->put(at + 0x10, uint64_t(known.number));
    log->put(at + 0x20, uint64_t(known.number));
    log->put(at + 0x2C, static_cast<uint32_t>(known.at - at));
    log->put(at + 0x30, end);
    log->put(at + 0x34, oxni_crc32_calc(&log->bytes[at + EVTX_CHUNK_HEADER_BYTES],
                                        end - EVTX_CHUNK_HEADER_BYTES));
    log->sum_chunk_header(log->chunks - 1);
    log->put(0x18, uint64_t(last.front().number));
    log->put(0x2A, static_cast<uint16_t>(std::max<size_t>(log->chunks - 1, 1)));
    log->put(0x78, uint32_t(1));
    log->sum_file_header();
}

/* The newest chunk has replaced the oldest one. */
static void wrap(damaged_log *log)
{
    log->needs(3);
    for (const placed_record &record : log->records)
        if (record.chunk == 0)
            log->report->gone.insert(record.number);
    const size_t last = log->chunk_at(log->chunks - 1);

    log->bytes.replace(log->chunk_at(0), EVTX_CHUNK_BYTES, log->bytes.substr(last));
    log->bytes.resize(last);
    log->put(0x08, uint64_t(1));
    log->put(0x10, uint64_t(0));
    log->put(0x2A, static_cast<uint16_t>(log->chunks - 1));
    log->sum_file_header();
}

static const struct {
    std::string name;
    void (*damage)(damaged_log *log);
} s_kinds[] = {
    {"truncated",        truncate   },
    {"bit-errors",       flip_bits  },
    {"wrong-check-sums", spoil_sums },
    {"missing-chunk",    clear_chunk},
    {"dirty",            make_dirty },
    {"wrapped",          wrap       },
    {"lost-records",     nullptr    }, /* Windows never wrote them */
};

const std::vector<std::string> &damage_kinds(void)
{
    static std::vector<std::string> names;

    if (names.empty())
        for (const auto &kind : s_kinds)
            names.push_back(kind.name);
    return names;
}

/* Neither the first record nor the last one, whose absence nothing shows. */
static std::vector<event_record> without_some(const std::vector<event_record> &records,
                                              uint64_t seed, damage_report *report)
{
    std::vector<event_record> kept = records;

    if (records.size() < LOST_IN_A_ROW + 2)
        throw devhost_error(EXIT_BAD_CALL, "--damage: the log is too short to lose records");
    const size_t first = 1 + std::mt19937_64(seed)() % (records.size() - LOST_IN_A_ROW - 1);

    for (size_t i = 0; i < LOST_IN_A_ROW; i++)
        report->gone.insert(records[first + i].number);
    kept.erase(kept.begin() + static_cast<ptrdiff_t>(first),
               kept.begin() + static_cast<ptrdiff_t>(first + LOST_IN_A_ROW));
    report->lost = LOST_IN_A_ROW;
    report->damaged = true;
    return kept;
}

std::string damage_log(const std::vector<event_record> &records, const std::string &kind,
                       uint64_t seed, damage_report *report)
{
    *report = {};
    if (kind == "lost-records")
        return evtx_bytes(without_some(records, seed, report), COMPUTER);
    damaged_log log = {evtx_bytes(records, COMPUTER), {}, 0, std::mt19937_64(seed), report};

    find_records(&log);
    for (const auto &row : s_kinds)
        if (row.name == kind && row.damage != nullptr)
            row.damage(&log);
    return log.bytes;
}
