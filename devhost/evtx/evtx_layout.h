/* The layout of an .evtx file, for its reader and its writer. */
#ifndef DEVHOST_EVTX_LAYOUT_H
#define DEVHOST_EVTX_LAYOUT_H

#include <cstdint>
#include <cstring>

#include <string>

#include <oxni/base/algo.h>

/* The first bytes, with the zero at their end. */
static constexpr char EVTX_FILE_BEGINS[8] = "ElfFile";
static constexpr char EVTX_CHUNK_BEGINS[8] = "ElfChnk";
static constexpr uint32_t EVTX_HEADER_BYTES = 4096u;
static constexpr uint32_t EVTX_CHUNK_BYTES = 65536u;
static constexpr uint32_t EVTX_CHUNK_HEADER_BYTES = 512u;
static constexpr uint32_t EVTX_RECORD_ALIGNMENT = 8u;

template <typename T> T evtx_load(const uint8_t *bytes)
{
    T value;

    memcpy(&value, bytes, sizeof(value));
    return value;
}

/* The checksum of a chunk's header, which covers neither the flags nor itself. */
inline uint32_t evtx_chunk_header_sum(const void *chunk)
{
    std::string summed(static_cast<const char *>(chunk), EVTX_CHUNK_HEADER_BYTES);

    summed.erase(0x78, 8);
    return oxni_crc32_calc(summed.data(), summed.size());
}

#endif
