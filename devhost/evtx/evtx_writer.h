/*
 * Writes System logs in the .evtx format, version 3.1, as Windows would: chunks with checksums, name
 * and template tables, and the real fields of the providers whose records matter to the plug-in.
 */
#ifndef DEVHOST_EVTX_WRITER_H
#define DEVHOST_EVTX_WRITER_H

#include <string>
#include <vector>

#include "../base/event_record.h"

/*
 * Returns the bytes of a log with these records.
 *
 * events    By rising record number. A record of a known provider whose strings have the known
 *           number gets the provider's types; a string that is no value of its type stays a string.
 *           Other records are classic ones.
 * computer  Name of the computer.
 *
 * Throws devhost_error with EXIT_BAD_CALL for a record that is longer than a chunk.
 */
std::string evtx_bytes(const std::vector<event_record> &events, const std::wstring &computer);

#endif
