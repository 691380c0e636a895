#include "evtx_builder.h"

#include <string.h>

#include <oxni/base/algo.h>

#define FILE_HEADER_BYTES  4096u
#define CHUNK_HEADER_BYTES 512u
#define CHUNK_BYTES        65536u

enum value_type {
    VALUE_TEXT = 0x01,
    VALUE_U8 = 0x04,
    VALUE_U16 = 0x06,
    VALUE_U64 = 0x0A,
    VALUE_FILETIME = 0x11,
    VALUE_TEXTS = 0x81,
};

/* One chunk; places are counted from its start. */
class chunk_writer
{
  public:
    void record(const evtx_record &record)
    {
        const size_t start = bytes.size();

        put(0x2A2A, 4); /* "**" */
        put(0, 4);
        put(record.number, 8);
        put(record.filetime, 8);
        put(0x0001010F, 4);
        instance(record);
        put(0, 1);
        bytes.resize((bytes.size() + 7 + 4) / 8 * 8 - 4);
        put(bytes.size() + 4 - start, 4);
        patch(start + 4, bytes.size() - start, 4);
        last = start;
    }
    void put(uint64_t value, size_t count)
    {
        bytes.append(reinterpret_cast<const char *>(&value), count);
    }
    void patch(size_t at, uint64_t value, size_t count)
    {
        memcpy(&bytes[at], &value, count);
    }

    std::string bytes = std::string(CHUNK_HEADER_BYTES, '\0');
    size_t last = 0;

  private:
    void put_text(const std::string &text)
    {
        for (const char c : text)
            put(static_cast<uint8_t>(c), 2);
    }
    /* Stored where it is used. */
    void name(const std::string &text)
    {
        uint32_t hash = 0;

        for (const char c : text)
            hash = hash * 65599 + static_cast<uint8_t>(c);
        put(bytes.size() + 4, 4);
        put(0, 4);
        put(hash & 0xFFFF, 2);
        put(text.size(), 2);
        put_text(text);
        put(0, 2);
    }
    /* Returns the place of its size. */
    size_t open(const char *text, bool attribute)
    {
        put(attribute ? 0x41 : 0x01, 1);
        put(0xFFFF, 2);
        const size_t place = bytes.size();
        put(0, 4);
        name(text);
        if (!attribute)
            put(0x02, 1);
        return place;
    }
    void close(size_t place)
    {
        put(0x04, 1);
        patch(place, bytes.size() - place - 4, 4);
    }
    void substitution(uint16_t index, enum value_type type)
    {
        put(0x0E, 1);
        put(index, 2);
        put(type, 1);
    }
    /* An element with one attribute: a literal text, or a substitution. */
    void attribute(const char *text, const std::string &literal, uint16_t index,
                   enum value_type type)
    {
        const size_t size = bytes.size();

        put(0, 4);
        put(0x06, 1);
        name(text);
        if (type == VALUE_TEXT) {
            put(0x0105, 2);
            put(literal.size(), 2);
            put_text(literal);
        } else {
            substitution(index, type);
        }
        patch(size, bytes.size() - size - 4, 4);
    }
    void element(const char *text, uint16_t index, enum value_type type)
    {
        const size_t place = open(text, false);

        substitution(index, type);
        close(place);
    }
    void definition(const evtx_record &record)
    {
        const size_t event = open("Event", false), system = open("System", false);
        size_t part = open("Provider", true);

        attribute("Name", record.source, 0, VALUE_TEXT);
        put(0x02, 1);
        close(part);
        part = open("EventID", true);
        attribute("Qualifiers", "", 2, VALUE_U16);
        put(0x02, 1);
        substitution(1, VALUE_U16);
        close(part);
        element("Level", 0, VALUE_U8);
        part = open("TimeCreated", true);
        attribute("SystemTime", "", 3, VALUE_FILETIME);
        put(0x02, 1);
        close(part);
        element("EventRecordID", 4, VALUE_U64);
        close(system);
        part = open("EventData", false);
        element("Data", 5, VALUE_TEXTS);
        close(part);
        close(event);
        put(0, 1);
    }
    void instance(const evtx_record &record)
    {
        static const struct {
            uint16_t bytes;
            enum value_type type;
        } s_values[] = {
            {1, VALUE_U8      },
            {2, VALUE_U16     },
            {2, VALUE_U16     },
            {8, VALUE_FILETIME},
            {8, VALUE_U64     }
        };

        put(0x010C, 2);
        put(record.id, 4);
        put(bytes.size() + 4, 4);
        put(0, 4);
        put(record.id, 8);
        put(0, 8);
        const size_t size = bytes.size();
        put(0, 4);
        put(0x0001010F, 4);
        definition(record);
        patch(size, bytes.size() - size - 4, 4);
        put(6, 4);
        for (const auto &value : s_values) {
            put(value.bytes, 2);
            put(value.type, 2);
        }
        put(2 * record.text.size() + 2, 2);
        put(VALUE_TEXTS, 2);
        put(2, 1);
        put(record.id & 0xFFFF, 2);
        put(record.id >> 16, 2);
        put(record.filetime, 8);
        put(record.number, 8);
        put_text(record.text);
        put(0, 2);
    }
};

static void patch(std::string *bytes, size_t at, uint64_t value, size_t count)
{
    if (at + count <= bytes->size())
        memcpy(&(*bytes)[at], &value, count);
}

void evtx_seal(std::string *log)
{
    if (log->size() < FILE_HEADER_BYTES + CHUNK_HEADER_BYTES)
        return;
    patch(log, 0x7C, oxni_crc32_calc(log->data(), 0x78), 4);
    for (size_t chunk = FILE_HEADER_BYTES; chunk + CHUNK_HEADER_BYTES <= log->size();
         chunk += CHUNK_BYTES) {
        uint32_t end = 0;

        memcpy(&end, &(*log)[chunk + 0x30], 4);
        if (end >= CHUNK_HEADER_BYTES && end <= CHUNK_BYTES && chunk + end <= log->size())
            patch(log, chunk + 0x34,
                  oxni_crc32_calc(&(*log)[chunk + CHUNK_HEADER_BYTES], end - CHUNK_HEADER_BYTES),
                  4);
        const std::string header =
            log->substr(chunk, 0x78) + log->substr(chunk + 0x80, CHUNK_HEADER_BYTES - 0x80);

        patch(log, chunk + 0x7C, oxni_crc32_calc(header.data(), header.size()), 4);
    }
}

std::string evtx_build(const std::vector<evtx_record> &records)
{
    std::string log("ElfFile\0", 8);
    chunk_writer chunk;

    for (const evtx_record &record : records)
        chunk.record(record);
    memcpy(&chunk.bytes[0], "ElfChnk", 8);
    for (const size_t first : {0x08u, 0x18u}) {
        chunk.patch(first, records.front().number, 8);
        chunk.patch(first + 8, records.back().number, 8);
    }
    chunk.patch(0x28, 128, 4);
    chunk.patch(0x2C, chunk.last, 4);
    chunk.patch(0x30, chunk.bytes.size(), 4);
    chunk.patch(0x78, 1, 4);
    chunk.bytes.resize(CHUNK_BYTES);
    log.resize(FILE_HEADER_BYTES);
    patch(&log, 0x18, records.back().number + 1, 8);
    patch(&log, 0x20, 128, 4);
    patch(&log, 0x24, 0x30001, 4);
    patch(&log, 0x28, FILE_HEADER_BYTES, 2);
    patch(&log, 0x2A, 1, 2);
    log += chunk.bytes;
    evtx_seal(&log);
    return log;
}
