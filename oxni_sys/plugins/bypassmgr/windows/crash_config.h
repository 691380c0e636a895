/*
 * The coded record that each of the platform's drivers keeps of its crashes, in a file
 * crash_config.cfg.
 *
 * Stateless; any thread of the host, one call at a time.
 */
#ifndef CRASH_CONFIG_H
#define CRASH_CONFIG_H

#include <stddef.h>
#include <stdint.h>

#define CRASH_CONFIG_FILE "crash_config.cfg"

/* A file after decoding. The driver's own bytes are preserved. */
#pragma pack(push, 1)
struct crash_config_record {
    uint8_t driver_head[30];
    uint32_t count; /* crashes, as the driver counted them */
    uint8_t driver_tail[16];
};
#pragma pack(pop)
static_assert(sizeof(crash_config_record) == 50, "the file holds 50 bytes");
static_assert(offsetof(crash_config_record, count) == 30, "the count is at byte 30");

/* Results of the two functions below, and of those of the drivers that use them. */
enum crash_config_result {
    CRASH_CONFIG_OK = 0,
    CRASH_CONFIG_NULL = 1,      /* a null argument */
    CRASH_CONFIG_NOT_OPEN = 2,  /* the file cannot be opened */
    CRASH_CONFIG_TOO_SHORT = 3, /* it holds less than a record */
};

/* Reads and decodes the first 50 bytes of a file. The caller zeroes record; from a file that is too
 * short it receives the bytes there are, coded. */
int read_crash_config(crash_config_record *record, const wchar_t *path);

/* Replaces the file by the coded record. record is coded in place and left so. */
int write_crash_config(crash_config_record *record, const wchar_t *path);

#endif
