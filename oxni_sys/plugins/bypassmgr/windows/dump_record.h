/* The file that records the time of the last crash dump. The host's timer thread. */
#ifndef DUMP_RECORD_H
#define DUMP_RECORD_H

#include <stddef.h>
#include <stdint.h>

/* Creates the data folder if it is missing and resolves the dump record's path in it; buffer is
 * empty when the path does not fit. Result 0. */
int get_dumprecord_path(char *buffer, size_t size);

/* The recorded dump time, a file time. Result: whether there is one; otherwise it is untouched. */
bool get_dumprecord_time(int64_t *dump_time);

/* Replaces the record. Result: whether it was written. */
bool set_dumprecord_time(int64_t dump_time);

#endif
