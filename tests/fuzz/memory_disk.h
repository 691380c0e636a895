/*
 * The documents' disk: from memory_disk_open on the platform's reader and writer of ".ejs" files
 * find theirs in memory, where a million of them take no time. Every other file is a real one.
 */
#ifndef TESTS_MEMORY_DISK_H
#define TESTS_MEMORY_DISK_H

#include <string>

void memory_disk_open(void);
/* The bytes of a file, to read and to set; made when it is not there. Spelt as the plug-in spells
 * it. UTF-8. */
std::string &memory_disk_file(const std::string &path);
void memory_disk_delete(const std::string &path);

#endif
