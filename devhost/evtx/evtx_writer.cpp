/* Binary XML with templates, chunk by chunk. */
#include "evtx_writer.h"

#include <cstring>

#include <map>

#include "../base/text.h"
#include "evtx_layout.h"
#include "evtx_template.h"
#include "evtx_values.h"

/* Some readers lose a record that ends where its chunk does. */
static constexpr uint32_t MAX_RECORD_END = EVTX_CHUNK_BYTES - 8u;
static constexpr uint32_t NAME_BUCKETS = 64u;
static constexpr uint32_t TEMPLATE_BUCKETS = 32u;

namespace
{
struct chunk_state {
    std::string bytes = std::string(EVTX_CHUNK_HEADER_BYTES, '\0');
    std::map<std::wstring, uint32_t> names;             /* to their offsets */
    std::map<const xml_template *, uint32_t> templates; /* likewise */
    struct {
        uint32_t names[NAME_BUCKETS], templates[TEMPLATE_BUCKETS];
    } tables = {};
    uint64_t first = 0, last = 0; /* record numbers; 0: none */
    uint32_t last_offset = 0;
};
} // namespace

template <typename T> static void put(std::string *bytes, T number)
{
    bytes->append(text_bytes(number));
}

static void patch(std::string *bytes, size_t at, uint32_t number)
{
    memcpy(&(*bytes)[at], &number, sizeof(number));
}

/* The hash of names, and of a GUID's eight words. */
static uint32_t hash_of(const std::string &bytes)
{
    uint32_t hash = 0;

    for (size_t i = 0; i + 2 <= bytes.size(); i += 2)
        hash = hash * 65599 + evtx_load<uint16_t>(reinterpret_cast<const uint8_t *>(&bytes[i]));
    return hash;
}

/* A name is written where it is first used. */
static void put_name(chunk_state &chunk, const std::wstring &name)
{
    const auto known = chunk.names.find(name);
    const std::string text = text_bytes(name);
    const uint16_t hash = static_cast<uint16_t>(hash_of(text));
    uint32_t &bucket = chunk.tables.names[hash % NAME_BUCKETS];

    if (known != chunk.names.end()) {
        put(&chunk.bytes, known->second);
        return;
    }
    const uint32_t offset = static_cast<uint32_t>(chunk.bytes.size() + sizeof(uint32_t));
    put(&chunk.bytes, offset);
    put(&chunk.bytes, bucket);
    put(&chunk.bytes, hash);
    put(&chunk.bytes, static_cast<uint16_t>(name.size()));
    chunk.bytes += text + std::string(2, '\0');
    chunk.names[name] = bucket = offset;
}

static void put_node(chunk_state &chunk, const xml_node &node);

static void put_attributes(chunk_state &chunk, const xml_node &node)
{
    const size_t begin = chunk.bytes.size();

    put(&chunk.bytes, uint32_t(0));
    for (size_t i = 0; i < node.attributes.size(); i++) {
        chunk.bytes += i + 1 == node.attributes.size() ? '\x06' : '\x46';
        put_name(chunk, node.attributes[i].first);
        put_node(chunk, node.attributes[i].second);
    }
    patch(&chunk.bytes, begin, static_cast<uint32_t>(chunk.bytes.size() - begin - 4));
}

/* Windows closes an element that has attributes only with one token. */
static void put_element(chunk_state &chunk, const xml_node &node)
{
    const size_t begin = chunk.bytes.size();

    chunk.bytes += node.attributes.empty() ? '\x01' : '\x41';
    put(&chunk.bytes, node.index);
    put(&chunk.bytes, uint32_t(0));
    put_name(chunk, node.text);
    if (!node.attributes.empty())
        put_attributes(chunk, node);
    if (!node.content.empty() || node.attributes.empty()) {
        chunk.bytes += '\x02';
        for (const xml_node &child : node.content)
            put_node(chunk, child);
        chunk.bytes += '\x04';
    } else {
        chunk.bytes += '\x03';
    }
    patch(&chunk.bytes, begin + 3, static_cast<uint32_t>(chunk.bytes.size() - begin - 7));
}

static void put_node(chunk_state &chunk, const xml_node &node)
{
    switch (node.kind) {
    case xml_node::ELEMENT: put_element(chunk, node); break;
    case xml_node::TEXT:
        chunk.bytes += "\x05\x01";
        put(&chunk.bytes, static_cast<uint16_t>(node.text.size()));
        chunk.bytes += text_bytes(node.text);
        break;
    case xml_node::VALUE:
        chunk.bytes += node.optional ? '\x0e' : '\x0d';
        put(&chunk.bytes, node.index);
        put(&chunk.bytes, node.type);
        break;
    }
}

static void put_fragment(chunk_state &chunk)
{
    chunk.bytes += std::string("\x0f\x01\x01\x00", 4);
}

/* A template's definition is written at its first use. */
static void put_definition(chunk_state &chunk, const xml_template &used)
{
    const std::string guid(reinterpret_cast<const char *>(used.guid), sizeof(used.guid));
    uint32_t &bucket = chunk.tables.templates[hash_of(guid) % TEMPLATE_BUCKETS];
    const uint32_t offset = static_cast<uint32_t>(chunk.bytes.size() + sizeof(uint32_t));

    put(&chunk.bytes, offset);
    put(&chunk.bytes, bucket);
    chunk.bytes += guid;
    put(&chunk.bytes, uint32_t(0));
    chunk.templates[&used] = bucket = offset;
    put_fragment(chunk);
    put_element(chunk, used.root);
    chunk.bytes += '\0';
    patch(&chunk.bytes, offset + 20, static_cast<uint32_t>(chunk.bytes.size() - offset - 24));
}

/* Result: false for a value that is too long for its size. */
static bool put_instance(chunk_state &chunk, const xml_value &instance)
{
    const xml_template &used = *instance.nested;
    const auto known = chunk.templates.find(&used);

    chunk.bytes += "\x0c\x01";
    chunk.bytes.append(reinterpret_cast<const char *>(used.guid), 4);
    if (known != chunk.templates.end())
        put(&chunk.bytes, known->second);
    else
        put_definition(chunk, used);
    put(&chunk.bytes, static_cast<uint32_t>(instance.values.size()));
    const size_t sizes = chunk.bytes.size();
    chunk.bytes.append(4 * instance.values.size(), '\0');
    for (size_t i = 0; i < instance.values.size(); i++) {
        const xml_value &value = instance.values[i];
        const size_t begin = chunk.bytes.size();

        if (value.type == EVTX_XML) {
            if (i == EVTX_CLASSIC_BODY) /* not in a manifest's record, as Windows does */
                put_fragment(chunk);
            if (!put_instance(chunk, value))
                return false;
            chunk.bytes += '\0';
        } else {
            chunk.bytes += value.bytes;
        }
        const size_t size = chunk.bytes.size() - begin;
        if (size > UINT16_MAX)
            return false;
        patch(&chunk.bytes, sizes + 4 * i,
              static_cast<uint32_t>(size | static_cast<size_t>(value.type) << 16));
    }
    return true;
}

/* Result: false when the record does not fit; then nothing else can be added to the chunk. */
static bool add_record(chunk_state *chunk, const event_record &event, const xml_value &instance)
{
    std::string &bytes = chunk->bytes;
    const auto tables = chunk->tables;
    const size_t begin = bytes.size();

    bytes += std::string("**\0\0", 4);
    put(&bytes, uint32_t(0));
    put(&bytes, uint64_t(event.number));
    put(&bytes, time_of_unix(event.time));
    put_fragment(*chunk);
    const bool holds = put_instance(*chunk, instance);
    bytes += '\0';
    bytes.append((EVTX_RECORD_ALIGNMENT - (bytes.size() + 4) % EVTX_RECORD_ALIGNMENT) %
                     EVTX_RECORD_ALIGNMENT,
                 '\0');
    const uint32_t size = static_cast<uint32_t>(bytes.size() + 4 - begin);
    if (!holds || begin + size > MAX_RECORD_END) {
        bytes.resize(begin);
        chunk->tables = tables;
        return false;
    }
    put(&bytes, size);
    patch(&bytes, begin + 4, size);
    chunk->first = chunk->first != 0 ? chunk->first : event.number;
    chunk->last = event.number;
    chunk->last_offset = static_cast<uint32_t>(begin);
    return true;
}

/* The chunk with its header and checksums. */
static std::string seal(const chunk_state &chunk)
{
    const uint64_t none = UINT64_MAX;
    const uint32_t end = static_cast<uint32_t>(chunk.bytes.size());
    const bool used = chunk.first != 0;
    std::string sealed = text_bytes(EVTX_CHUNK_BEGINS);

    for (const uint64_t number : {used ? chunk.first : 1, used ? chunk.last : none,
                                  used ? chunk.first : none, used ? chunk.last : none})
        put(&sealed, number);
    put(&sealed, uint32_t(128));
    put(&sealed, chunk.last_offset);
    put(&sealed, end);
    put(&sealed,
        oxni_crc32_calc(&chunk.bytes[EVTX_CHUNK_HEADER_BYTES], end - EVTX_CHUNK_HEADER_BYTES));
    sealed.append(64, '\0');
    put(&sealed, uint32_t(1)); /* flags: as in every chunk of Windows */
    put(&sealed, uint32_t(0)); /* the checksum */
    sealed += text_bytes(chunk.tables) + chunk.bytes.substr(EVTX_CHUNK_HEADER_BYTES);
    patch(&sealed, 0x7C, evtx_chunk_header_sum(sealed.data()));
    sealed.resize(EVTX_CHUNK_BYTES, '\0');
    return sealed;
}

static std::string file_header(uint64_t chunks, uint64_t next_record)
{
    std::string head = text_bytes(EVTX_FILE_BEGINS);

    put(&head, uint64_t(0));
    put(&head, chunks - 1);
    put(&head, next_record);
    put(&head, uint32_t(128));
    put(&head, uint16_t(1)); /* version 3.1, minor first */
    put(&head, uint16_t(3));
    put(&head, static_cast<uint16_t>(EVTX_HEADER_BYTES));
    put(&head, static_cast<uint16_t>(chunks));
    head.append(76, '\0');
    const uint32_t sum = oxni_crc32_calc(head.data(), head.size());
    put(&head, uint32_t(0)); /* flags: closed */
    put(&head, sum);
    head.resize(EVTX_HEADER_BYTES, '\0');
    return head;
}

std::string evtx_bytes(const std::vector<event_record> &events, const std::wstring &computer)
{
    evtx_templates templates(computer);
    chunk_state chunk;
    std::string chunks;

    for (const event_record &event : events) {
        const xml_value instance = templates.record(event);

        if (add_record(&chunk, event, instance))
            continue;
        if (chunk.first != 0)
            chunks += seal(chunk);
        chunk = chunk_state();
        if (!add_record(&chunk, event, instance))
            throw devhost_error(
                EXIT_BAD_CALL,
                text_format("record %u: longer than a chunk of a log", event.number));
    }
    chunks += seal(chunk);
    return file_header(chunks.size() / EVTX_CHUNK_BYTES,
                       events.empty() ? 1 : events.back().number + 1ull) +
           chunks;
}
