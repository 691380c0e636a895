/*
 * Files below one folder that exist in this process only, for runs of many boots: they need neither a
 * disk nor Wine's look-ups. Calls of this program, of the platform and of the plug-in that open files
 * there are redirected here; the rest of the disk is the real one. Host's one thread.
 */
#ifndef DEVHOST_MEMORY_DISK_H
#define DEVHOST_MEMORY_DISK_H

#include <windows.h>

#include <string>

/* Keeps the files of an existing empty folder in memory from now on. One folder a process. */
void memory_disk_open(const std::wstring &folder);

/* Redirects the file calls of a module that was loaded after memory_disk_open; maps: it maps what it
 * opens. Does nothing when no such disk is open. */
void memory_disk_redirect(HMODULE module, bool maps);

/* Deletes all files and folders below the folder; none is open. */
void memory_disk_empty(void);
/* The bytes of a file, which is created when it is missing; deleting a missing file is harmless. */
std::string &memory_disk_file(const std::string &path);
void memory_disk_delete(const std::string &path);

#endif
