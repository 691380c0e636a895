/*
 * Files below one folder that exist in this process only. For those who play many boots: they wait
 * neither for a disk nor for Wine's look-ups, and leave nothing behind. Whatever the calls of this
 * program, of the platform and of the plug-in open there goes here; the rest of the disk is the
 * real one. Host's one thread.
 */
#ifndef DEVHOST_MEMORY_DISK_H
#define DEVHOST_MEMORY_DISK_H

#include <windows.h>

#include <string>

/* From now on the folder's files, which is there and empty, are in memory. One folder a process. */
void memory_disk_open(const std::wstring &folder);

/* Redirects the file calls of a module that was loaded after memory_disk_open; maps: it maps what it
 * opens. Does nothing when no such disk is open. */
void memory_disk_redirect(HMODULE module, bool maps);

/* The bytes of a file, made when it is not there; and its end, harmless when it is not there. */
std::string &memory_disk_file(const std::string &path);
void memory_disk_delete(const std::string &path);

#endif
